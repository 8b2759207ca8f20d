#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <locale.h>
#include <netdb.h>
#include <stdlib.h>
#include <sys/resource.h>
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
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/device.h"
#include "support/locales.h"
#include "support/temporary_folder.h"

using namespace korvo::utils;
using testing::ElementsAre;

static std::function<void()> afterRead;       ///< what happens once, after the next read
static std::function<void(int)> beforeClose;  ///< what happens to a descriptor before it is closed

/** The function of the C library that one of those below stands in front of. */
template <class Function>
static Function original(Function /*replacement*/, const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

extern "C" {
/** For it "six.invalid" is the name of ::1. */
__attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service,
                                                       const addrinfo* hints, addrinfo** found) {
    static const auto resolve = original(&::getaddrinfo, "getaddrinfo");
    ::pthread_testcancel();
    return resolve(std::string("six.invalid") == name ? "::1" : name, service, hints, found);
}

__attribute__((visibility("default"))) ssize_t read(int descriptor, void* buffer, std::size_t size) {
    static const auto readOriginal = original(&::read, "read");
    const ssize_t got = readOriginal(descriptor, buffer, size);
    if (afterRead) std::exchange(afterRead, nullptr)();
    return got;
}

__attribute__((visibility("default"))) int close(int descriptor) {
    static const auto closeOriginal = original(&::close, "close");
    if (beforeClose) beforeClose(descriptor);
    return closeOriginal(descriptor);
}
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
    std::filesystem::create_symlink(folder.write("file", ""), at("link"));
    std::filesystem::create_hard_link(folder.write("two", ""), at("names"));
    std::filesystem::create_symlink("nowhere", at("dangling"));
    const std::pair<std::string, int> notFollowed[] = {
        {at("file"), 0},         {at("link"), ELOOP},    {at("dangling"), ELOOP}, {at("names"), EMLINK},
        {at("missing"), ENOENT}, {at("folder"), EISDIR}, {at("pipe"), ENOTSUP}};
    for (const auto& [path, error] : notFollowed)
        EXPECT_EQ(file.Initialize(path, FILE_OPEN_MODE_READ_NOFOLLOW) ? 0 : errno, error) << path;
    EXPECT_TRUE(file.CopyAccess(at("missing")));
    EXPECT_FALSE(file.CopyAccess(at("pipe/x"))) << "there may be a file whose access is not known";
    EXPECT_FALSE(file.ReadStringAll(text)) << "nothing is open";
    EXPECT_FALSE(file.WriteString("x")) << "nothing is open";
    EXPECT_EQ(text, "kept");
}

TEST(File, TakesTheAccessOfARegularFileWithOneName) {
    const test::TemporaryFolder folder;
    const auto modeOf = [&](const char* name) {
        return static_cast<int>(std::filesystem::status(folder.path() / name).permissions());
    };
    const auto plant = [&](const char* name, int mode) {
        std::filesystem::path path = folder.write(name, "");
        std::filesystem::permissions(path, std::filesystem::perms(mode));
        return path;
    };
    std::filesystem::create_symlink(plant("file", 0664), folder.path() / "link");
    std::filesystem::create_hard_link(plant("two", 0666), folder.path() / "names");
    ASSERT_EQ(::mkfifo((folder.path() / "pipe").c_str(), 0666), 0);
    for (const auto& [name, mode] :
         {std::pair("link", 0600), {"names", 0600}, {"pipe", 0600}, {"file", 0664}}) {
        File file;
        ASSERT_TRUE(file.Initialize(folder.path() / "new", FILE_OPEN_MODE_TRUNCATE));
        EXPECT_TRUE(file.CopyAccess(folder.path() / name));
        EXPECT_EQ(modeOf("new"), mode) << name;
        EXPECT_EQ(file.Access().bits, static_cast<mode_t>(mode)) << name;
        korvo::utils::FileAccess narrower = file.Access();
        narrower.bits = 0600;
        EXPECT_TRUE(file.SetAccess(narrower)) << name;
        EXPECT_EQ(modeOf("new"), 0600) << name;
    }
}

TEST(File, ReadsToTheEndOfAFileThatGrowsMeanwhile) {
    const test::TemporaryFolder folder;
    const std::string old(10000, 'a'), added(50000, 'b'), path = folder.write("file", old);
    std::string text;
    afterRead = [&] { folder.write("file", old + added); };
    EXPECT_TRUE(File::ReadStringAll(path, text));
    EXPECT_TRUE(text == old + added) << text.size();
}

/** The number of the standard streams that are open. */
int openStreams() {
    int open = 0;
    for (const int stream : {0, 1, 2}) open += ::fcntl(stream, F_GETFD) == -1 ? 0 : 1;
    return open;
}

TEST(File, TakesNothingThatAHostPrintsToAStreamThatItHasClosed) {
    const test::Device device;
    const std::string path = device.path() / "file", lockFile = device.path() / "tmp/name.lock";
    device.write("tmp/name.lock", "");
    std::filesystem::permissions(lockFile, std::filesystem::perms(0600));
    for (const bool lockIsThere : {true, false}) {
        test::ChildProcess host([&](const test::ChildProcess&) {
            for (const int stream : {0, 1, 2}) ::close(stream);
            beforeClose = [](int descriptor) {
                char byte = 0;
                if (descriptor > 2) return;
                (void)!(::read(descriptor, &byte, 1) + ::write(descriptor, "printed", 7));
            };
            File file;
            std::string text;
            InterProcessMutex mutex("name", true);
            if (!file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) || openStreams() != 0) return 1;
            if (!file.WriteString("ours") || !file.Initialize(path, FILE_OPEN_MODE_READ)) return 2;
            if (openStreams() != 0 || !file.ReadStringAll(text) || text != "ours") return 3;
            if (mutex.acquire() != 0 || openStreams() != 0 || std::filesystem::file_size(lockFile) != 0)
                return 4;
            const pid_t parent = ::getpid();
            test::ChildProcess child([&](const auto&) { return mutex.holder() == parent ? 0 : 1; });
            return child.exitStatus() == 0 ? 0 : 5;
        });
        EXPECT_EQ(host.exitStatus(), 0) << lockIsThere;
        std::filesystem::remove(lockFile);
    }
}

TEST(File, LeavesNothingBehindWhereOnlyTheNumberOfAStandardStreamIsFree) {
    const test::Device device;
    const std::string path = device.path() / "file";
    // A lock file that is not to be trusted may be anybody's file, which must not be emptied.
    std::filesystem::create_hard_link(device.write("precious", "content"), device.path() / "tmp/name.lock");
    test::ChildProcess host([&](const test::ChildProcess&) {
        ::close(0);
        if (InterProcessMutex("name", true).acquire() != (::geteuid() == 0 ? 0 : EPERM)) return 1;
        if (device.read("precious") != "content") return 2;
        const rlimit few{32, 32};
        if (::setrlimit(RLIMIT_NOFILE, &few) != 0) return 3;
        while (::dup(1) >= 0) {
        }
        ::close(0);
        File file;
        if (file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) || errno != EMFILE) return 4;
        if (::access(path.c_str(), F_OK) == 0) return 5;
        return ::fcntl(0, F_GETFD) == -1 ? 0 : 6;
    });
    EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Platform, HasNoPlaceWhereAThreadIsCancelled) {
    const std::function<bool()> operations[] = {
        [] {
            std::string text;
            return File::ReadStringAll("/proc/self/stat", text);
        },
        [] { return getHostByName("six.invalid") == "::1"; },
    };
    for (const auto& operation : operations) {
        bool done = false;
        std::thread([&] {
            (void)::pthread_cancel(::pthread_self());
            done = operation();
        }).join();
        EXPECT_TRUE(done);
    }
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

}  // namespace
