#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <locale.h>
#include <netdb.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <thread>
#include <tuple>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/host.h"
#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/locales.h"
#include "support/temporary_folder.h"

using namespace korvo::utils;
using testing::ElementsAre;

static std::function<void()> resolving;  ///< what happens once while a name is being resolved

/** Stands in front of the C library's own, for which "six.invalid" is the name of ::1. */
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service,
                                                                  const addrinfo* hints, addrinfo** found) {
    static const auto original =
        reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    if (resolving) std::exchange(resolving, nullptr)();
    return original(std::string("six.invalid") == name ? "::1" : name, service, hints, found);
}

namespace {

TEST(Text, SplitAppendsWhatStandsBetweenSeparatorsEmptyPiecesToo) {
    for (const auto& [input, expected] : test::readCases("split.txt")) {
        const auto given = test::fields(input);
        std::vector<std::string> pieces{"kept"};
        split(given[0], given[1], pieces);
        EXPECT_EQ(pieces, test::fields(expected)) << input;
    }
    std::vector<std::string> pieces{"x.y", "."};
    split(pieces[0], pieces[1], pieces);
    EXPECT_THAT(pieces, ElementsAre("x.y", ".", "x", "y")) << "the arguments may be pieces that are there";
}

TEST(Text, TrimRemovesAsciiWhiteSpaceAtBothEnds) {
    std::string text = " \t\n\v\f\ra b\xa0 ";
    trim(text);
    EXPECT_EQ(text, "a b\xa0");
    trim(text = " \t ");
    EXPECT_EQ(text, "");
}

TEST(Text, LowerCaseChangesAsciiLettersOnly) { EXPECT_EQ(lowerCase("RTSP-\xc4Z"), "rtsp-\xc4z"); }

TEST(Text, ReplaceAllDoesNotSearchWhatItBringsIn) {
    for (const auto& [input, expected] : test::readCases("replacements.txt")) {
        auto given = test::fields(input);
        replaceAll(given[0], given[1], given[2]);
        EXPECT_EQ(given[0], expected) << input;
    }
}

TEST(Text, FormatGivesTextsOfAnyLength) {
    for (const int length : {1, 127, 128, 999})
        EXPECT_EQ(korvo::utils::format("%0*d", length, 7),
                  std::string(static_cast<std::size_t>(length) - 1, '0') + "7");
}

TEST(Text, ReplacesLongTextsWhereverTheyStandAlsoAmongNearMisses) {
    std::minstd_rand random(1);  // NOLINT(cert-msc51-cpp): the same texts every time
    for (int round = 0; round < 2000; ++round) {
        std::string text, search;
        while (search.size() < 17) search += random() % 8 == 0 ? 'b' : 'a';
        while (text.size() < 200)
            text += random() % 4 == 0 ? search : search.substr(0, random() % search.size());
        std::string expected = text;
        for (std::size_t at = 0; (at = expected.find(search, at)) != std::string::npos; at += 3)
            expected.replace(at, search.size(), "(x)");
        replaceAll(text, search, "(x)");
        ASSERT_EQ(text, expected) << search;
    }
}

TEST(Text, ReadsNumbersTheSameInEveryLocale) {
    test::inEveryLocale([] {
        using Case = std::tuple<std::string, double, std::string>;
        constexpr double infinity = std::numeric_limits<double>::infinity();
        const std::string zeros(400, '0');
        for (const auto& [text, value, rest] :
             {Case("2.5,x", 2.5, ",x"), Case("none", 0.0, "none"), Case("0x1.8", 1.5, ""),
              Case("1e999", infinity, ""), Case("0." + zeros + '1', 0.0, ""),
              Case("0x1" + zeros + "p-500", infinity, "")}) {
            const char* end = nullptr;
            EXPECT_EQ(toDouble(text.c_str(), &end), value) << text;
            EXPECT_EQ(end, rest) << text;
            EXPECT_EQ(toDouble(text.c_str()), value) << text;
        }
    });
}

#ifndef __UCLIBC__  // which has no strtod_l(), or one that rounds wrongly
TEST(Text, ReadsAMillionTextsAsStrtodDoesInTheCLocale) {
    std::vector<std::vector<std::string>> pieces;
    for (const auto& [what, choice] : test::readCases("number_pieces.txt"))
        pieces.push_back(test::fields(choice));
    std::minstd_rand random(1);
    const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    int subnormal = 0;
    for (int i = 0; i < 1000000; ++i) {
        std::string text;
        for (std::size_t slot = i % 100 == 0 ? 0 : 1; slot < pieces.size(); ++slot)
            text += pieces[slot][(random() >> 8) % pieces[slot].size()];
        char* expectedEnd = nullptr;
        const char* end = nullptr;
        const double expected = ::strtod_l(text.c_str(), &expectedEnd, cLocale);
        double value = toDouble(text.c_str(), &end);
#if _GLIBCXX_RELEASE < 12  // its from_chars() refuses subnormal numbers
        if (std::fpclassify(expected) == FP_SUBNORMAL && value == 0.0) value = expected;
#endif
        ASSERT_STREQ(end, expectedEnd) << text;
        ASSERT_EQ(std::signbit(value), std::signbit(expected)) << text;
        ASSERT_TRUE(value == expected || (std::isnan(value) && std::isnan(expected)))
            << text << ": " << value << " instead of " << expected;
        subnormal += std::fpclassify(value) == FP_SUBNORMAL ? 1 : 0;
    }
    EXPECT_GT(subnormal, 1000) << "the texts are too plain";
    ::freelocale(cLocale);
}
#endif

bool writeFile(const std::string& path, const std::string& text) {
    File file;
    return file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) && file.WriteString(text) && file.Close();
}

TEST(File, WritesFromEmptyAndReadsToTheEnd) {
    const test::TemporaryFolder folder;
    const std::string made = folder.path() / "new", content(100000, 'x');
    std::string text;
    const std::ptrdiff_t descriptors = test::openDescriptors();
    File file;
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(file.Initialize(made, FILE_OPEN_MODE_TRUNCATE));
    EXPECT_TRUE(file.Close());
    for (const std::string& written : {content, std::string("a")}) {
        EXPECT_TRUE(writeFile(made, written));
        EXPECT_TRUE(File::ReadStringAll(made, text));
        EXPECT_EQ(text, written);
    }
    EXPECT_EQ(std::filesystem::status(made).permissions(), std::filesystem::perms(0600));
    EXPECT_TRUE(File::ReadStringAll("/proc/self/stat", text));
    EXPECT_GT(text.size(), 1) << "it claims to be empty";
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST(File, WritingReplacesWhatWasPlantedAndTouchesNothingThatAnybodyHasOpen) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path() / "name";
    const std::function<void()> plants[] = {
        [&] { std::filesystem::create_symlink(folder.write("victim", "precious"), path); },
        [&] { std::filesystem::create_hard_link(folder.path() / "victim", path); },
        [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); },
        [&] { std::filesystem::permissions(folder.write("name", "old"), std::filesystem::perms(0644)); },
    };
    const mode_t usual = ::umask(0);
    for (const auto& plant : plants) {
        plant();
        const int open = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
        EXPECT_TRUE(writeFile(path, "secret"));
        char seen[16] = {};
        (void)!::read(open, seen, 8);
        EXPECT_STRNE(seen, "secret");
        ::close(open);
        EXPECT_EQ(folder.read("name") + folder.read("victim"), "secretprecious");
        EXPECT_EQ(std::filesystem::symlink_status(path).permissions(), std::filesystem::perms(0600));
        EXPECT_TRUE(std::filesystem::remove(path));
        ::umask(0777);  // takes away what the owner needs, too
    }
    ::umask(usual);
}

TEST(File, RefusesWhatCannotBeReplacedAndWhatIsNoPlainFile) {
    const test::TemporaryFolder folder;
    const auto at = [&](const char* name) { return (folder.path() / name).string(); };
    std::filesystem::create_directory(at("folder"));
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    File file;
    std::string text = "kept";
    for (const std::string& path : {at("folder"), at("missing/file"), at("nul") + std::string("\0x", 2)})
        EXPECT_FALSE(file.Initialize(path, FILE_OPEN_MODE_TRUNCATE)) << path;
    const std::pair<std::string, int> unreadable[] = {
        {at("missing"), ENOENT}, {at("folder"), EISDIR}, {at("pipe"), ENOTSUP}, {"/dev/zero", ENOTSUP}};
    for (const auto& [path, error] : unreadable) {
        EXPECT_FALSE(File::ReadStringAll(path, text)) << path;
        EXPECT_EQ(errno, error) << path;
    }
    EXPECT_TRUE(file.CopyAccess(at("missing")));
    EXPECT_FALSE(file.CopyAccess(at("pipe/x"))) << "there may be a file whose access is not known";
    EXPECT_FALSE(file.ReadStringAll(text)) << "nothing is open";
    EXPECT_FALSE(file.WriteString("x")) << "nothing is open";
    EXPECT_EQ(text, "kept");
}

TEST(File, IsNoPlaceWhereAThreadIsCancelled) {
    bool returned = false;
    std::thread([&] {
        (void)::pthread_cancel(::pthread_self());
        std::string text;
        returned = File::ReadStringAll("/proc/self/stat", text);
    }).join();
    EXPECT_TRUE(returned);
}

TEST(DeviceRoot, StandsInFrontOfDevicePaths) {
    for (const auto& [root, path] :
         {std::pair("/mnt/image/", "/mnt/image/tmp/x"), std::pair("/", "/tmp/x")}) {
        setDeviceRoot(root);
        EXPECT_EQ(devicePath("/tmp/x"), path);
    }
}

TEST(Host, NumericAddressesStayAsTheyAreAndLocalNamesResolve) {
    for (const char* address : {"10.0.0.2", "::1", "2001:DB8::5"}) EXPECT_EQ(getHostByName(address), address);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a machine need not know its own name
    EXPECT_EQ(getHostByName("localhost"),
              ::gethostbyname2("localhost", AF_INET) != nullptr ? "127.0.0.1" : "");
    for (const std::string& name :
         {std::string(), std::string("localhost\0.evil", 15), std::string("no.invalid")})
        EXPECT_EQ(getHostByName(name), "");
    EXPECT_EQ(getHostByName("six.invalid"), "::1");
}

/** The standard streams that are open: 1, 2 and 4 for each. */
int openStreams() {
    int mask = 0;
    for (const int stream : {0, 1, 2}) mask |= ::fcntl(stream, F_GETFD) == -1 ? 0 : 1 << stream;
    return mask;
}

TEST(Host, ClosedStandardStreamsAreTakenWhileItWorksAndStayTheHosts) {
    test::ChildProcess host([](const test::ChildProcess& self) {
        for (const int stream : {0, 1, 2}) ::close(stream);
        resolving = [&] {
            std::string text;
            (void)File::ReadStringAll("/proc/self/stat", text);
            self.tell(openStreams());
            self.tell(test::ChildProcess([](const auto&) { return openStreams(); }).exitStatus());
            ::dup2(::open("/proc/self/stat", O_RDONLY), 1);
            ::dup2(::open("/dev/null", O_RDWR | O_NONBLOCK | O_APPEND), 2);
        };
        (void)getHostByName("six.invalid");
        return openStreams();
    });
    EXPECT_EQ(host.hear(), 7) << "free for whatever is opened, when another use has ended";
    EXPECT_EQ(host.hear(), 0) << "taken in a forked child";
    EXPECT_EQ(host.exitStatus(), 6) << "the first is to be closed again, the others are the host's";
}

}  // namespace
