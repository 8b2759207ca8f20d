#include "korvo/utils/flash.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <tuple>

#include "support/child_process.h"
#include "support/device.h"

namespace {

namespace fs = std::filesystem;
using namespace korvo::utils;

constexpr uid_t user = test::otherUser;

/** The errno value with which a call failed; 0 if it did not. */
int error(bool done) { return done ? 0 : errno; }

class FlashTest : public testing::Test {
  protected:
    FlashTest() {
        fs::permissions(root.path(), fs::perms(0777));
        fs::permissions(root.path() / "tmp", fs::perms(01777));
    }

    test::Device root;
    const std::string name = std::string(KORVO_FLASH_DIR).substr(1) + "/system.cfg";
    const fs::path working = root.path() / "tmp/system.cfg", copy = root.path() / name;
    const fs::path directory = copy.parent_path();
};

TEST_F(FlashTest, TheCopyHasTheAccessOfTheWorkingCopy) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make files of other users";
    // Whether root saves; the working copy's access; the group and bits of the flash copy.
    const std::tuple<bool, FileAccess, gid_t, mode_t> cases[] = {{true, {0, 0, 0400}, 0, 0400},
                                                                 {false, {user, user, 0640}, user, 0640},
                                                                 {false, {user, 0, 0664}, user, 0644},
                                                                 {true, {user, 0, 0640}, 0, 0640},
                                                                 {true, {user + 1, user, 0640}, user, 0640}};
    fs::create_directories(directory);
    ASSERT_EQ(::chown(directory.c_str(), user, user), 0);
    for (const auto& [byRoot, given, group, bits] : cases) {
        SCOPED_TRACE(testing::Message() << given.owner << ':' << given.group << ' ' << given.bits);
        root.write("tmp/system.cfg", "a=1\n");
        ASSERT_EQ(::chown(working.c_str(), given.owner, given.group), 0);
        ASSERT_EQ(::chmod(working.c_str(), given.bits), 0);
        test::ChildProcess process([asRoot = byRoot](const test::ChildProcess&) {
            if (!asRoot) test::becomeOtherUser();
            return error(saveToFlashRaw(false));
        });
        EXPECT_EQ(process.exitStatus(), 0);
        std::string text;
        FileAccess access;
        EXPECT_TRUE(loadFromFlashRaw(text, access) && text == "a=1\n");
        EXPECT_EQ(access.owner, given.owner == 0 ? 0 : user) << "neither root's nor the store's";
        EXPECT_EQ(std::tuple(access.group, access.bits), std::tuple(group, bits));
    }
}

TEST_F(FlashTest, SetsTheCopyAsideWhateverItIsButFollowsNoLink) {
    std::string text = "kept";
    EXPECT_EQ(error(setFlashCopyAside()), ENOENT) << "no directory";
    root.write("tmp/system.cfg", "a=1\n");
    EXPECT_EQ(error(saveToFlashRaw(false)), 0) << "it creates the directories";
    EXPECT_EQ(error(setFlashCopyAside()), 0);
    fs::create_directory(copy);
    EXPECT_EQ(error(saveToFlashRaw(false)), EISDIR);
    fs::remove(copy), fs::remove(working);
    for (const char* content : {"a=1", "b=2"}) {
        root.write(name, content);
        EXPECT_EQ(error(setFlashCopyAside()), 0);
        EXPECT_EQ(error(loadFromFlashRaw(text)), ENOENT);
        EXPECT_EQ(error(loadDamagedFlashCopy(text)), 0);
        EXPECT_EQ(text, content);
    }
    for (const fs::path& link : {copy, working}) fs::create_symlink(copy.string() + ".damaged", link);
    EXPECT_EQ(error(loadFromFlashRaw(text)), ELOOP);
    EXPECT_EQ(error(saveToFlashRaw(false)), ELOOP);
    EXPECT_EQ(error(setFlashCopyAside()), 0);
    EXPECT_EQ(error(loadDamagedFlashCopy(text)), ELOOP);
    EXPECT_EQ(text, "b=2");
}

}  // namespace
