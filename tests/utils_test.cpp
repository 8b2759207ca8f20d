#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/host.h"
#include "korvo/utils/text.h"
#include "support/locales.h"
#include "support/temporary_directory.h"

using namespace korvo::utils;
using testing::ElementsAre;

namespace {

std::vector<std::string> pieces(const std::string& text, const std::string& separator) {
    std::vector<std::string> result{"kept"};
    split(text, separator, result);
    result.erase(result.begin());
    return result;
}

TEST(Text, SplitsIntoOnePieceMoreThanSeparators) {
    EXPECT_THAT(pieces("", "."), ElementsAre());
    EXPECT_THAT(pieces("a", "."), ElementsAre("a"));
    EXPECT_THAT(pieces(".a..b.", "."), ElementsAre("", "a", "", "b", ""));
    EXPECT_THAT(pieces("a--b-c", "--"), ElementsAre("a", "b-c"));
    EXPECT_THAT(pieces("abc", ""), ElementsAre("abc"));
}

TEST(Text, TrimsLowersAndReplaces) {
    std::string text = " \t\n\v\f\ra b\xa0 ";
    trim(text);
    EXPECT_EQ(text, "a b\xa0");
    text = " \t ";
    trim(text);
    EXPECT_EQ(text, "");
    EXPECT_EQ(lowerCase("RTSP-\xc4Z"), "rtsp-\xc4z");
    text = "a.b.c";
    replaceAll(text, ".", "..");
    EXPECT_EQ(text, "a..b..c");
    replaceAll(text, "", "x");
    replaceAll(text, "..", "");
    EXPECT_EQ(text, "abc");
    EXPECT_EQ(korvo::utils::format("%s|%d", std::string(1000, 'x').c_str(), -5),
              std::string(1000, 'x') + "|-5");
}

TEST(Text, ReadsNumbersTheSameInEveryLocale) {
    test::inEveryLocale([] {
        const char* end = nullptr;
        EXPECT_EQ(toDouble("2.5,x", &end), 2.5);
        EXPECT_STREQ(end, ",x");
        EXPECT_EQ(toDouble("0x1.8"), 1.5);
        EXPECT_EQ(toDouble("1e999"), std::numeric_limits<double>::infinity());
        EXPECT_EQ(toDouble("none", &end), 0.0);
        EXPECT_STREQ(end, "none");
    });
}

TEST(File, WritesFromEmptyAndReadsToTheEnd) {
    const test::TemporaryDirectory directory;
    const std::string path = directory.write("file", "longer than what follows");
    const std::string content(100000, 'x');
    File file;
    ASSERT_TRUE(file.Initialize(path, FILE_OPEN_MODE_TRUNCATE));
    EXPECT_TRUE(file.WriteString("a"));
    EXPECT_TRUE(file.WriteString(content));
    EXPECT_TRUE(file.Close());
    std::string text;
    EXPECT_TRUE(File::ReadStringAll(path, text));
    EXPECT_EQ(text, "a" + content);

    ASSERT_TRUE(file.Initialize(directory.path() / "new", FILE_OPEN_MODE_TRUNCATE));
    EXPECT_EQ(std::filesystem::status(directory.path() / "new").permissions(), std::filesystem::perms(0600));
    EXPECT_TRUE(File::ReadStringAll("/proc/self/stat", text));  // claims to be empty
    EXPECT_FALSE(text.empty());
}

TEST(File, FailuresLeaveTheTextAndPlantedFilesAlone) {
    const test::TemporaryDirectory directory;
    const std::filesystem::path victim = directory.write("victim", "precious");
    std::filesystem::create_symlink(victim, directory.path() / "symlink");
    std::filesystem::create_hard_link(victim, directory.path() / "hardlink");
    std::filesystem::create_directory(directory.path() / "folder");
    ASSERT_EQ(::mkfifo((directory.path() / "pipe").c_str(), 0600), 0);
    const int reader = ::open((directory.path() / "pipe").c_str(), O_RDONLY | O_NONBLOCK);
    File file;
    for (const char* name : {"symlink", "hardlink", "folder", "pipe", "missing/file", "nul"}) {
        std::string path = directory.path() / name;
        if (path.size() >= 3 && path.compare(path.size() - 3, 3, "nul") == 0)
            path += std::string(1, '\0') + "x";
        EXPECT_FALSE(file.Initialize(path, FILE_OPEN_MODE_TRUNCATE)) << name;
    }
    ::close(reader);
    EXPECT_EQ(directory.read("victim"), "precious");

    std::string text = "kept";
    EXPECT_FALSE(File::ReadStringAll(directory.path() / "missing", text));
    EXPECT_FALSE(File::ReadStringAll(directory.path() / "folder", text));
    EXPECT_FALSE(file.ReadStringAll(text)) << "nothing is open";
    if (sizeof(std::size_t) == 4) {  // where a file can be larger than memory, and its size wrap to 0
        std::filesystem::resize_file(directory.write("large", ""), 0xffffffff);
        EXPECT_FALSE(File::ReadStringAll(directory.path() / "large", text));
    }
    EXPECT_FALSE(file.WriteString("x"));
    EXPECT_EQ(text, "kept");
}

TEST(DeviceRoot, StandsInFrontOfDevicePaths) {
    EXPECT_EQ(devicePath("/tmp/system.cfg"), "/tmp/system.cfg");
    setDeviceRoot("/mnt/image/");
    EXPECT_EQ(devicePath("/tmp/system.cfg"), "/mnt/image/tmp/system.cfg");
    setDeviceRoot("/");
    EXPECT_EQ(devicePath("/tmp/system.cfg"), "/tmp/system.cfg");
}

TEST(Host, NumericAddressesStayAsTheyAreAndLocalNamesResolve) {
    for (const char* address : {"10.0.0.2", "::1", "2001:db8::5"}) EXPECT_EQ(getHostByName(address), address);
    EXPECT_EQ(getHostByName("localhost"), "127.0.0.1");
    EXPECT_EQ(getHostByName(""), "");
    EXPECT_EQ(getHostByName(std::string("localhost\0.evil", 15)), "");
    EXPECT_EQ(getHostByName("no-such-host.invalid"), "");
}

}  // namespace
