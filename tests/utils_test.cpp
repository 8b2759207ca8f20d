#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <locale.h>
#include <netdb.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <functional>
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

using namespace korvo::utils;

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
    ::pthread_testcancel();
    return original(&::getaddrinfo, "getaddrinfo")(std::string("six.invalid") == name ? "::1" : name, service,
                                                   hints, found);
}

__attribute__((visibility("default"))) ssize_t read(int descriptor, void* buffer, std::size_t size) {
    const ssize_t got = original(&::read, "read")(descriptor, buffer, size);
    if (afterRead) std::exchange(afterRead, nullptr)();
    return got;
}

__attribute__((visibility("default"))) int close(int descriptor) {
    if (beforeClose) beforeClose(descriptor);
    return original(&::close, "close")(descriptor);
}
}

namespace {

namespace fs = std::filesystem;

TEST(Text, SplitAppendsWhatStandsBetweenSeparators) {
    for (const auto& [input, expected] : test::readCases("split.txt")) {
        const auto given = test::fields(input);
        std::vector<std::string> pieces{"kept"};
        split(given[0], given[1], pieces);
        EXPECT_EQ(pieces, test::fields(expected));
    }
    std::vector<std::string> pieces{"x.y", "."};
    split(pieces[0], pieces[1], pieces);
    EXPECT_EQ(pieces, (std::vector<std::string>{"x.y", ".", "x", "y"})) << "the arguments may be among them";
}

TEST(Text, ReplaceAllDoesNotSearchWhatItBringsIn) {
    for (const auto& [input, expected] : test::readCases("replacements.txt")) {
        auto given = test::fields(input);
        replaceAll(given[0], given[1], given[2]);
        EXPECT_EQ(given[0], expected);
    }
}

TEST(Text, TrimsLowersAndFormatsBytes) {
    std::string text = " \t\n\v\f\ra b\xa0 ", blank = " \t ";
    trim(text), trim(blank);
    EXPECT_EQ(text + blank, "a b\xa0");
    EXPECT_EQ(lowerCase("RTSP-@[\xc4Z"), "rtsp-@[\xc4z");
    EXPECT_EQ(korvo::utils::format("%0*d", 999, 7), std::string(998, '0') + '7');
}

#ifndef __UCLIBC__  // which has no strtod_l(), or one that rounds wrongly
TEST(Text, ReadsNumbersInEveryLocaleAsStrtodDoesInTheCLocale) {
    const std::string zeros(400, '0');
    std::vector<std::string> texts = {"1e999", "0." + zeros + '1', "0x1" + zeros + "p-500"};
    std::vector<std::vector<std::string>> pieces;
    for (const auto& [what, choice] : test::readCases("number_pieces.txt"))
        pieces.push_back(test::fields(choice));
    std::minstd_rand random(1);
    while (texts.size() < 500000) {
        texts.emplace_back();
        for (std::size_t slot = texts.size() % 100 == 0 ? 0 : 1; slot < pieces.size(); ++slot)
            texts.back() += pieces[slot][(random() >> 8) % pieces[slot].size()];
    }
    const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    test::inEveryLocale([&] {
        int subnormal = 0;
        for (const std::string& text : texts) {
            char* expectedEnd = nullptr;
            const char* end = nullptr;
            const double expected = ::strtod_l(text.c_str(), &expectedEnd, cLocale);
            double value = toDouble(text.c_str(), &end);
#if _GLIBCXX_RELEASE < 12  // its from_chars() refuses subnormal numbers
            if (std::fpclassify(expected) == FP_SUBNORMAL && value == 0.0) value = expected;
#endif
            ASSERT_STREQ(end, expectedEnd) << text;
            ASSERT_EQ(std::signbit(value), std::signbit(expected)) << text;
            ASSERT_TRUE(value == expected || (std::isnan(value) && std::isnan(expected))) << text << value;
            subnormal += std::fpclassify(value) == FP_SUBNORMAL ? 1 : 0;
        }
        EXPECT_GT(subnormal, 500) << "the texts are too plain";
    });
    ::freelocale(cLocale);
}
#endif

bool writeFile(const std::string& path, const std::string& text) {
    File file;
    return file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) && file.WriteString(text) && file.Close();
}

TEST(File, WritesFromEmptyAndReadsToTheEndEvenOfAFileThatGrows) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path() / "file", old(10000, 'a'), added(50000, 'b');
    const std::ptrdiff_t descriptors = test::openDescriptors();
    std::string text;
    for (const std::string& written : {added, old}) {
        EXPECT_TRUE(writeFile(path, written) && File::ReadStringAll(path, text));
        EXPECT_EQ(text, written);
    }
    afterRead = [&] { folder.write("file", old + added); };
    EXPECT_TRUE(File::ReadStringAll(path, text));
    EXPECT_EQ(text, old + added);
    EXPECT_TRUE(File::ReadStringAll("/proc/self/stat", text));
    EXPECT_GT(text.size(), 1) << "it claims to be empty";
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST(File, WritingReplacesWhatWasPlantedAndTouchesNothingThatAnybodyHasOpen) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path() / "name";
    const std::function<void()> plants[] = {
        [&] { fs::create_symlink(folder.write("victim", "precious"), path); },
        [&] { fs::create_hard_link(folder.path() / "victim", path); },
        [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); },
        [&] { fs::permissions(folder.write("name", "old"), fs::perms(0644)); },
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
        EXPECT_EQ(fs::symlink_status(path).permissions(), fs::perms(0600));
        fs::remove(path);
        ::umask(0777);  // takes away what the owner needs, too
    }
    ::umask(usual);
}

TEST(File, RefusesWhatIsNoRegularFile) {
    const test::TemporaryFolder folder;
    const auto at = [&](const char* name) { return (folder.path() / name).string(); };
    fs::create_directory(at("directory"));
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    fs::create_symlink(folder.write("file", ""), at("link"));
    fs::create_hard_link(folder.write("two", ""), at("names"));
    const auto nofollow = FILE_OPEN_MODE_READ_NOFOLLOW, truncate = FILE_OPEN_MODE_TRUNCATE;
    const std::tuple<std::string, FILE_OPEN_MODE, int> cases[] = {
        {at("missing"), FILE_OPEN_MODE_READ, ENOENT},
        {at("directory"), FILE_OPEN_MODE_READ, EISDIR},
        {at("pipe"), FILE_OPEN_MODE_READ, ENOTSUP},
        {"/dev/zero", FILE_OPEN_MODE_READ, ENOTSUP},
        {at("link"), FILE_OPEN_MODE_READ, 0},
        {at("names"), FILE_OPEN_MODE_READ, 0},
        {at("file"), nofollow, 0},
        {at("link"), nofollow, ELOOP},
        {at("names"), nofollow, EMLINK},
        {at("directory"), truncate, EISDIR},
        {at("missing/file"), truncate, ENOENT},
        {std::string("nul\0x", 5), truncate, EINVAL}};
    File file;
    for (const auto& [path, mode, error] : cases)
        EXPECT_EQ(file.Initialize(path, mode) ? 0 : errno, error) << path << ' ' << mode;
    std::string text = "kept";
    EXPECT_FALSE(file.ReadStringAll(text) || file.WriteString("x")) << "nothing is open";
    EXPECT_EQ(text, "kept");
}

/** The number of the standard streams that are open. */
int openStreams() {
    int open = 0;
    for (const int stream : {0, 1, 2}) open += ::fcntl(stream, F_GETFD) == -1 ? 0 : 1;
    return open;
}

TEST(File, TakesNothingThatAHostPrintsToAStreamThatItHasClosed) {
    const test::Device device;
    const std::string path = device.path() / "file", lockFile = device.write("tmp/name.lock", "");
    fs::permissions(lockFile, fs::perms(0600));
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
        if (mutex.acquire() != 0 || openStreams() != 0 || fs::file_size(lockFile) != 0) return 4;
        const pid_t parent = ::getpid();
        test::ChildProcess child([&](const auto&) { return mutex.holder() == parent ? 0 : 5; });
        return child.exitStatus();
    });
    EXPECT_EQ(host.exitStatus(), 0);
}

TEST(File, LeavesNothingBehindWhereOnlyTheNumberOfAStandardStreamIsFree) {
    const test::Device device;
    const std::string path = device.path() / "file";
    // A lock file that is not trusted may be anybody's file, which must not be emptied.
    fs::create_hard_link(device.write("precious", "content"), device.path() / "tmp/name.lock");
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
    std::string text, address;
    std::thread([&] {
        (void)::pthread_cancel(::pthread_self());
        (void)File::ReadStringAll("/proc/self/stat", text);
        address = getHostByName("six.invalid");
    }).join();
    EXPECT_NE(text, "");
    EXPECT_EQ(address, "::1");
}

TEST(DeviceRoot, StandsInFrontOfDevicePaths) {
    for (const auto& [root, path] : {std::pair("/mnt/image/", "/mnt/image/tmp/x"), {"/", "/tmp/x"}}) {
        setDeviceRoot(root);
        EXPECT_EQ(devicePath("/tmp/x"), path);
    }
}

TEST(Host, NumericAddressesStayAsTheyAreAndLocalNamesResolve) {
    for (const char* address : {"10.0.0.2", "::1", "2001:DB8::5"}) EXPECT_EQ(getHostByName(address), address);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a machine need not know its own name
    const bool isKnown = ::gethostbyname2("localhost", AF_INET) != nullptr;
    EXPECT_EQ(getHostByName("localhost"), isKnown ? "127.0.0.1" : "");
    for (const std::string& name :
         {std::string(), std::string("localhost\0.evil", 15), std::string("no.invalid")})
        EXPECT_EQ(getHostByName(name), "");
}

}  // namespace
