#include "korvo/utils/flash.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <thread>
#include <tuple>

#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/device.h"

static int syncs = 0;

/** Stands in front of the C library's own. */
extern "C" __attribute__((visibility("default"))) void sync() noexcept { ++syncs; }

namespace {

namespace fs = std::filesystem;
using namespace korvo::utils;

constexpr uid_t user = test::otherUser;

class FlashTest : public testing::Test {
  protected:
    FlashTest() {
        fs::permissions(root.path(), fs::perms(0777));
        fs::permissions(root.path() / "tmp", fs::perms(01777));
    }

    /** The errno value with which a save fails in a process of its own; 0 if it does not. */
    static int save(bool asRoot, mode_t umask = 022) {
        test::ChildProcess process([=](const test::ChildProcess&) {
            if (!asRoot && ::geteuid() == 0) test::becomeOtherUser();
            ::umask(umask);
            return saveToFlashRaw(false) ? 0 : errno;
        });
        return process.exitStatus();
    }

    test::Device root;
    const std::string name = std::string(KORVO_FLASH_DIR).substr(1) + "/system.cfg";
    const fs::path working = root.path() / "tmp/system.cfg", copy = root.path() / name;
    const fs::path directory = copy.parent_path();
};

TEST_F(FlashTest, SavesFollowOneAnotherAndReplaceTheCopy) {
    const auto saveOften = [] {
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(saveToFlashRaw(false));
    };
    const std::ptrdiff_t descriptors = test::openDescriptors();
    const std::string large = std::string(300000, 'x') + std::string("\0\xff\n", 3);  // more than one write
    for (const std::string& text : {std::string("a=1\n"), large, std::string()}) {
        fs::permissions(root.write("tmp/system.cfg", text), fs::perms(0640));
        std::thread other(saveOften);
        saveOften();
        other.join();
        EXPECT_EQ(root.read(name), text);
        EXPECT_EQ(fs::status(copy).permissions(), fs::perms(0640));
        // What a power cut may leave; its mode must not pass to the next copy.
        fs::permissions(root.write(name + ".tmp", "left over"), fs::perms::all);
    }
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST_F(FlashTest, SavesUnderAnyUmaskAndBelowADirectoryThatItMayNotOpen) {
    root.write("tmp/system.cfg", "a=1\n");
    EXPECT_EQ(save(false, 0777), 0) << "which creates the directories";
    EXPECT_EQ(root.read(name), "a=1\n");
    fs::permissions(directory.parent_path(), fs::perms(0311));
    test::ChildProcess process([](const test::ChildProcess&) {
        if (::geteuid() == 0) test::becomeOtherUser();
        return saveToFlashRaw(false) ? syncs : 99;
    });
    EXPECT_EQ(process.exitStatus(), 1) << "it was to sync everything";
    fs::permissions(directory.parent_path(), fs::perms(0755));
}

TEST_F(FlashTest, AFailedSaveHasACauseAndLeavesTheOldCopy) {
    const fs::path elsewhere = root.path() / "elsewhere";
    const std::pair<int, std::function<void()>> cases[] = {
        {ENOENT, [&] { fs::remove(working); }},
        {ELOOP, [&] { fs::rename(working, elsewhere), fs::create_symlink(elsewhere, working); }},
        {EMLINK, [&] { fs::remove(elsewhere), fs::create_hard_link(working, elsewhere); }},
        {EISDIR, [&] { fs::remove(copy), fs::create_directory(copy); }},
        {ENOTDIR, [&] { fs::remove_all(directory), fs::copy(working, directory); }},
    };
    for (const auto& [error, spoil] : cases) {
        fs::remove_all(working);
        root.write("tmp/system.cfg", "new"), root.write(name, "old");
        spoil();
        EXPECT_EQ(saveToFlashRaw(false) ? 0 : errno, error);
        EXPECT_TRUE(!fs::is_regular_file(copy) || root.read(name) == "old");
        EXPECT_FALSE(fs::exists(copy.string() + ".tmp"));
        if (fs::is_directory(copy)) fs::remove(copy);
    }
}

TEST_F(FlashTest, TheCopyHasTheAccessOfTheWorkingCopy) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make files of other users";
    // Whether root saves; owner, group and bits of the working copy; group and bits of the flash copy.
    const std::tuple<bool, uid_t, gid_t, mode_t, gid_t, mode_t> cases[] = {
        {true, 0, 0, 0400, 0, 0400},
        {false, user, user, 0640, user, 0640},
        {false, user, 0, 0664, user, 0644},
        {true, user, 0, 0640, 0, 0640},
        {true, user + 1, user, 0640, user, 0640}};
    fs::create_directories(directory);
    ASSERT_EQ(::chown(directory.c_str(), user, user), 0);
    for (const auto& [byRoot, owner, group, bits, groupGiven, bitsGiven] : cases) {
        SCOPED_TRACE(testing::Message() << owner << ':' << group << ' ' << bits << (byRoot ? " root" : ""));
        root.write("tmp/system.cfg", "a=1\n");
        ASSERT_TRUE(::chown(working.c_str(), owner, group) == 0 && ::chmod(working.c_str(), bits) == 0);
        EXPECT_EQ(save(byRoot), 0);
        std::string text;
        FileAccess access;
        EXPECT_TRUE(loadFromFlashRaw(text, access) && text == "a=1\n");
        EXPECT_EQ(access.owner, owner == 0 ? 0 : user) << "neither root's nor the store's";
        EXPECT_EQ(access.group, groupGiven);
        EXPECT_EQ(access.bits, bitsGiven);
    }
}

TEST_F(FlashTest, SetsTheCopyAsideWhateverItIs) {
    const auto error = [](bool done) { return done ? 0 : errno; };
    std::string text = "kept";
    EXPECT_EQ(error(setFlashCopyAside()), ENOENT) << "no directory";
    for (const char* content : {"a=1", "b=2"}) {
        root.write(name, content);
        EXPECT_EQ(error(setFlashCopyAside()), 0);
        EXPECT_EQ(error(loadFromFlashRaw(text)), ENOENT);
        EXPECT_EQ(error(setFlashCopyAside()), ENOENT);
        EXPECT_EQ(error(loadDamagedFlashCopy(text)), 0);
        EXPECT_EQ(text, content);
    }
    fs::create_symlink("system.cfg.damaged", copy);
    EXPECT_EQ(error(loadFromFlashRaw(text)), ELOOP);
    EXPECT_EQ(error(setFlashCopyAside()), 0);
    EXPECT_EQ(error(loadDamagedFlashCopy(text)), ELOOP);
    EXPECT_EQ(text, "b=2");
}

}  // namespace
