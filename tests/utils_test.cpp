#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <functional>
#include <thread>
#include <tuple>

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

/** Stands in front of the C library's. Each name is one of ::1, but "four.invalid" of 127.0.0.1. */
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service,
                                                                  const addrinfo* hints, addrinfo** found) {
    ::pthread_testcancel();
    const auto original = reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    return original(name == std::string("four.invalid") ? "127.0.0.1" : "::1", service, hints, found);
}

namespace {

namespace fs = std::filesystem;

TEST(Text, SplitsReplacesTrimsLowersAndFormatsBytes) {
    for (const auto& [input, expected] : test::readCases("split.txt")) {
        const auto given = test::fields(input);
        std::vector<std::string> pieces{"kept"};
        split(given[0], given[1], pieces);
        EXPECT_EQ(pieces, test::fields(expected));
    }
    for (const auto& [input, expected] : test::readCases("replacements.txt")) {
        auto given = test::fields(input);
        replaceAll(given[0], given[1], given[2]);
        EXPECT_EQ(given[0], expected);
    }
    std::string text = " \t\n\v\f\ra b\xa0 ", blank = " \t ";
    trim(text), trim(blank);
    EXPECT_EQ(text + blank, "a b\xa0");
    EXPECT_EQ(lowerCase("RTSP-@[\xc4Z"), "rtsp-@[\xc4z");
    EXPECT_EQ(korvo::utils::format("%0*d", 999, 7), std::string(998, '0') + '7');
}

TEST(Text, ReadsTheSameNumbersInEveryLocale) {
    const std::string zeros(400, '0');
    test::inEveryLocale([&] {
        for (const auto& [text, expected] : test::readCases("numbers.txt")) {
            const char* end = nullptr;
            const double value = toDouble(text.c_str(), &end);
            std::string shown = korvo::utils::format("%g", value);
            replaceAll(shown, ",", ".");
            EXPECT_EQ(shown + '|' + end, expected);
        }
        EXPECT_EQ(toDouble(("1" + zeros).c_str(), nullptr), HUGE_VAL);
        EXPECT_EQ(toDouble(("0." + zeros + "1").c_str(), nullptr), 0.0);
        EXPECT_EQ(toDouble(("0x1" + zeros + "p-500").c_str(), nullptr), HUGE_VAL);
    });
}

TEST(File, WritesANewFileWhateverHasTheNameAndReadsItWhole) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path() / "name", secret(50000, 's');
    const std::function<void()> plants[] = {
        [&] { fs::create_symlink(folder.write("victim", "precious"), path); },
        [&] { fs::create_hard_link(folder.path() / "victim", path); },
        [&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); },
        [] {},
    };
    const std::ptrdiff_t descriptors = test::openDescriptors();
    const mode_t usual = ::umask(0);
    std::string text;
    for (const auto& plant : plants) {
        plant();
        File file;
        EXPECT_TRUE(file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) && file.WriteString(secret) &&
                    file.Close() && File::ReadStringAll(path, text));
        EXPECT_EQ(text + folder.read("victim"), secret + "precious");
        EXPECT_EQ(fs::symlink_status(path).permissions(), fs::perms(0600));
        fs::remove(path);
        ::umask(0777);  // takes away what the owner needs, too
    }
    ::umask(usual);
    EXPECT_TRUE(File::ReadStringAll("/proc/self/smaps", text));
    EXPECT_TRUE(text.size() > 10000 && text.back() == '\n') << "its size is 0, it says";
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST(File, RefusesWhatIsNoRegularFile) {
    const test::TemporaryFolder folder;
    const auto at = [&](const char* name) { return (folder.path() / name).string(); };
    ASSERT_EQ(::mkfifo(at("pipe").c_str(), 0600), 0);
    fs::create_symlink(folder.write("file", ""), at("link"));
    fs::create_hard_link(folder.write("two", ""), at("names"));
    const auto anyLink = FILE_OPEN_MODE_READ, nofollow = FILE_OPEN_MODE_READ_NOFOLLOW;
    const std::tuple<std::string, FILE_OPEN_MODE, int> cases[] = {
        {at("missing"), anyLink, ENOENT},
        {at(""), anyLink, EISDIR},
        {at("pipe"), anyLink, ENOTSUP},
        {at("link"), anyLink, 0},
        {at("file"), nofollow, 0},
        {at("link"), nofollow, ELOOP},
        {at("names"), nofollow, EMLINK},
        {"/dev/zero", nofollow, ENOTSUP},
        {at("missing/file"), FILE_OPEN_MODE_TRUNCATE, ENOENT},
        {std::string("nul\0x", 5), FILE_OPEN_MODE_TRUNCATE, EINVAL}};
    File file;
    for (const auto& [path, mode, error] : cases)
        EXPECT_EQ(file.Initialize(path, mode) ? 0 : errno, error) << path << ' ' << mode;
    std::string text = "kept";
    EXPECT_FALSE(file.ReadStringAll(text) || file.WriteString("x")) << "nothing is open";
    EXPECT_EQ(text, "kept");
}

TEST(File, LeavesAloneTheStandardStreamsThatAHostHasClosed) {
    const test::Device device;
    const std::string path = device.path() / "file", lockFile = device.write("tmp/name.lock", "");
    fs::permissions(lockFile, fs::perms(0600));
    test::ChildProcess host([&](const test::ChildProcess&) {
        for (const int stream : {0, 1, 2}) ::close(stream);
        const auto areClosed = [] {
            return ::fcntl(0, F_GETFD) + ::fcntl(1, F_GETFD) + ::fcntl(2, F_GETFD) == -3;
        };
        File file;
        std::string text;
        InterProcessMutex mutex("name", true);
        if (!file.Initialize(path, FILE_OPEN_MODE_TRUNCATE) || !areClosed()) return 1;
        if (!file.WriteString("ours") || !file.Initialize(path, FILE_OPEN_MODE_READ)) return 2;
        if (!file.ReadStringAll(text) || text != "ours" || !areClosed()) return 3;
        if (mutex.acquire() != 0 || fs::file_size(lockFile) != 0 || !areClosed()) return 4;
        return 0;
    });
    EXPECT_EQ(host.exitStatus(), 0);
}

TEST(Host, IsFoundByNameEvenInAThreadThatIsCancelled) {
    std::vector<std::string> found;
    std::thread([&] {
        (void)::pthread_cancel(::pthread_self());
        std::string text;
        EXPECT_TRUE(File::ReadStringAll("/proc/self/stat", text));
        for (const std::string& name :
             {std::string("10.0.0.2"), std::string("2001:DB8::5"), std::string(), std::string("four.invalid"),
              std::string("six.invalid"), std::string("four.invalid\0.evil", 18)})
            found.push_back(getHostByName(name));
    }).join();
    EXPECT_EQ(found, (std::vector<std::string>{"10.0.0.2", "2001:DB8::5", "", "127.0.0.1", "::1", ""}));
}

}  // namespace
