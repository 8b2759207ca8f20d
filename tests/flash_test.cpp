#include "korvo/utils/flash.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <thread>

#include "korvo/utils/device_root.h"
#include "support/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using korvo::utils::saveToFlashRaw;

class FlashTest : public testing::Test {
  protected:
    FlashTest() { korvo::utils::setDeviceRoot(root.path()); }

    test::TemporaryDirectory root;
    const std::string folder = std::string(KORVO_FLASH_DIR).substr(1);
    const std::string copy = folder + "/system.cfg";
};

TEST_F(FlashTest, MakesTheFolderAndAPrivateCopyAndReplacesItLater) {
    // A text of more than one write, with bytes that are no text.
    const std::string large = std::string(300000, 'x') + std::string("\0\xff\n", 3);
    for (const std::string& text : {std::string("a=1\n"), large, std::string()}) {
        root.write("tmp/system.cfg", text);
        // What a power cut may have left; its mode must not pass to the copy.
        fs::permissions(root.write(folder + "/system.cfg.tmp", "left over"), fs::perms::all);
        if (text.size() == 4) fs::remove_all(root.path() / folder.substr(0, folder.find('/')));
        ASSERT_TRUE(saveToFlashRaw(false));
        EXPECT_EQ(root.read(copy), text);
        struct stat status {};
        ASSERT_EQ(::stat((root.path() / copy).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0600U);
        EXPECT_FALSE(fs::exists(root.path() / (copy + ".tmp")));
    }
}

TEST_F(FlashTest, FailureLeavesTheOldCopyAndNoTemporaryFile) {
    const fs::path configuration = root.path() / "tmp/system.cfg";
    const fs::path temporary = root.path() / (copy + ".tmp");
    const struct {
        std::function<void()> spoil;
        int error;
    } cases[] = {
        {[&] { fs::remove(configuration); }, ENOENT},
        {[&] { fs::remove(configuration), fs::create_directory(configuration); }, EISDIR},
        {[&] { fs::remove_all(root.path() / folder), root.write(folder, "no folder"); }, ENOTDIR},
        {[&] { fs::remove(root.path() / copy), fs::create_directory(root.path() / copy); }, EISDIR},
    };
    for (const auto& row : cases) {
        fs::remove_all(root.path() / folder);
        fs::remove_all(configuration);
        root.write("tmp/system.cfg", "new");
        root.write(copy, "old");
        row.spoil();
        EXPECT_FALSE(saveToFlashRaw(false));
        EXPECT_EQ(errno, row.error);
        EXPECT_TRUE(!fs::is_regular_file(root.path() / copy) || root.read(copy) == "old");
        EXPECT_FALSE(fs::exists(temporary));
    }
}

TEST_F(FlashTest, SavesFromSeveralThreadsFollowOneAnother) {
    root.write("tmp/system.cfg", "a=1\n");
    std::thread other([] {
        for (int i = 0; i < 50; ++i) EXPECT_TRUE(saveToFlashRaw(false));
    });
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(saveToFlashRaw(false));
    other.join();
    EXPECT_EQ(root.read(copy), "a=1\n");
}

}  // namespace
