#include "korvo/utils/flash.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <functional>
#include <thread>

#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/device.h"

static int syncs = 0;

/** Stands in front of the C library's own. */
extern "C" __attribute__((visibility("default"))) void sync() noexcept { ++syncs; }

namespace {

namespace fs = std::filesystem;
using korvo::utils::loadDamagedFlashCopy;
using korvo::utils::loadFromFlashRaw;
using korvo::utils::saveToFlashRaw;
using korvo::utils::setFlashCopyAside;
using korvo::utils::storeOwner;

class FlashTest : public testing::Test {
  protected:
    test::Device root;
    const std::string folder = std::string(KORVO_FLASH_DIR).substr(1), copy = folder + "/system.cfg";
};

TEST_F(FlashTest, MakesTheFolderAndTheCopyAndReplacesItLater) {
    const auto save = [] {
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(saveToFlashRaw(false)) << "saves were to follow one another";
    };
    const std::ptrdiff_t descriptors = test::openDescriptors();
    const std::string large = std::string(300000, 'x') + std::string("\0\xff\n", 3);  // more than one write
    for (const std::string& text : {std::string("a=1\n"), large, std::string()}) {
        fs::permissions(root.write("tmp/system.cfg", text), fs::perms(0640));
        std::thread other(save);
        save();
        other.join();
        EXPECT_EQ(root.read(copy), text);
        EXPECT_EQ(fs::status(root.path() / copy).permissions(), fs::perms(0640));
        // What a power cut may leave; its mode must not pass to the next copy.
        fs::permissions(root.write(copy + ".tmp", "left over"), fs::perms::all);
    }
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST_F(FlashTest, WaitsNeitherForANeighbourNorForAParentThatDied) {
#ifdef __UCLIBC__
    GTEST_SKIP() << "A child that is forked beside a thread in malloc() hangs in its own, with uClibc.";
#endif
    root.write("tmp/system.cfg", "a=1\n");
    ASSERT_TRUE(saveToFlashRaw(false));
    const int neighbour = ::open((root.path() / folder).c_str(), O_RDONLY);
    ASSERT_EQ(::flock(neighbour, LOCK_EX), 0);
    test::ChildProcess parent([](const test::ChildProcess& self) {
        const pid_t dying = ::getpid();
        std::thread saves([] {
            for (;;) (void)saveToFlashRaw(false);
        });
        for (int i = 0; i < 50; ++i) {
            if (::fork() == 0) {  // forked while the thread saves, saves when its parent is dead
                while (::getppid() == dying) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                self.tell(saveToFlashRaw(false) ? 1 : 0);
                ::_exit(0);
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        return ::raise(SIGKILL);
    });
    EXPECT_EQ(parent.exitStatus(), -SIGKILL);
    for (int i = 0; i < 50; ++i) ASSERT_EQ(parent.hear(), 1) << i;
    EXPECT_TRUE(saveToFlashRaw(false));
    ::close(neighbour);
}

TEST_F(FlashTest, SavesUnderAnyUmaskAndBelowAFolderThatItMayNotOpen) {
    const fs::path above = (root.path() / folder).parent_path();
    root.write("tmp/system.cfg", "a=1\n");
    fs::permissions(root.path() / "tmp", fs::perms(01777));
    fs::permissions(root.path(), fs::perms(0777));
    const auto syncsOfASave = [] {
        test::ChildProcess user([](const test::ChildProcess&) {
            if (::geteuid() == 0) test::becomeOtherUser();
            ::umask(0777);
            return saveToFlashRaw(false) ? syncs : 99;
        });
        return user.exitStatus();
    };
    EXPECT_EQ(syncsOfASave(), 0) << "which makes the folders";
    EXPECT_EQ(root.read(copy), "a=1\n");
    fs::permissions(above, fs::perms(0311));
    EXPECT_EQ(syncsOfASave(), 1) << "of everything, when it cannot open the folder";
    fs::permissions(above, fs::perms(0755));
}

TEST_F(FlashTest, FailureTellsItsCauseAndLeavesTheOldCopy) {
    const fs::path working = root.path() / "tmp/system.cfg", elsewhere = root.path() / "elsewhere";
    const std::tuple<std::function<void()>, int, const char*> cases[] = {
        {[&] { fs::remove(working); }, ENOENT, "old"},
        {[&] { fs::rename(working, elsewhere), fs::create_symlink(elsewhere, working); }, ELOOP, "old"},
        {[&] { fs::remove(elsewhere), fs::create_hard_link(working, elsewhere); }, EMLINK, "old"},
        {[&] { fs::remove_all(root.path() / folder), root.write(folder, "no folder"); }, ENOTDIR, "no file"},
        {[&] { fs::remove(root.path() / copy), fs::create_directory(root.path() / copy); }, EISDIR,
         "no file"},
    };
    for (const auto& [spoil, error, left] : cases) {
        fs::remove_all(root.path() / folder), fs::remove(working);
        root.write("tmp/system.cfg", "new");
        root.write(copy, "old");
        spoil();
        EXPECT_FALSE(saveToFlashRaw(false));
        EXPECT_EQ(errno, error);
        EXPECT_EQ(fs::is_regular_file(root.path() / copy) ? root.read(copy) : "no file", left);
        EXPECT_FALSE(fs::exists(root.path() / (copy + ".tmp")));
    }
}

TEST_F(FlashTest, TheCopyComesAndGoesWithTheAccessOfTheWorkingCopy) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make files of other users";
    struct Case {
        uid_t owner;  // of the working copy
        gid_t group;
        mode_t bits;
        bool byRoot;
        mode_t narrowed;  // bits of the flash copy
        gid_t groupGiven;
    };
    constexpr uid_t user = test::otherUser;
    const Case cases[] = {{0, 0, 0400, true, 0400, 0},          {user, user, 0640, false, 0640, user},
                          {user, 0, 0664, false, 0644, user},   {user, 0, 0640, true, 0640, 0},
                          {user, user, 0660, true, 0660, user}, {user + 1, user, 0640, true, 0640, user}};
    fs::permissions(root.path(), fs::perms(0755));
    fs::permissions(root.path() / "tmp", fs::perms(01777));
    fs::create_directories(root.path() / folder);
    ASSERT_EQ(::chown((root.path() / folder).c_str(), user, user), 0);
    for (const auto& [owner, group, bits, byRoot, narrowed, groupGiven] : cases) {
        SCOPED_TRACE(testing::Message() << owner << ':' << group << ' ' << bits << (byRoot ? " root" : ""));
        const fs::path working = root.write("tmp/system.cfg", "a=1\n");
        ASSERT_TRUE(::chown(working.c_str(), owner, group) == 0 && ::chmod(working.c_str(), bits) == 0);
        test::ChildProcess saves([asRoot = byRoot](const test::ChildProcess&) {
            if (!asRoot) test::becomeOtherUser();
            return saveToFlashRaw(false) ? 0 : errno;
        });
        EXPECT_EQ(saves.exitStatus(), 0);
        std::string text;
        korvo::utils::FileAccess access;
        EXPECT_TRUE(loadFromFlashRaw(text, access));
        EXPECT_EQ(text, "a=1\n");
        EXPECT_EQ(access.owner, owner == 0 ? 0 : user) << "neither root's nor the store's";
        EXPECT_EQ(access.group, groupGiven);
        EXPECT_EQ(access.bits, narrowed);
    }
}

TEST_F(FlashTest, SetsTheCopyAsideWhateverItIs) {
    const fs::path path = root.path() / copy;
    const auto error = [](bool done) { return done ? 0 : errno; };
    std::string text = "kept";
    EXPECT_EQ(error(setFlashCopyAside()), ENOENT) << "no folder";
    for (const char* content : {"a=1", "b=2"}) {
        root.write(copy, content);
        EXPECT_EQ(error(setFlashCopyAside()), 0);
        EXPECT_EQ(error(loadFromFlashRaw(text)), ENOENT);
        EXPECT_EQ(error(setFlashCopyAside()), ENOENT);
        EXPECT_EQ(error(loadDamagedFlashCopy(text)), 0);
        EXPECT_EQ(text, content);
    }
    fs::create_symlink("system.cfg.damaged", path);
    EXPECT_EQ(error(loadFromFlashRaw(text)), ELOOP);
    EXPECT_EQ(error(setFlashCopyAside()), 0);
    EXPECT_EQ(error(loadDamagedFlashCopy(text)), ELOOP);
    EXPECT_EQ(text, "b=2");
}

TEST_F(FlashTest, TheStoreBelongsToWhoeverOwnsTheFlashFolder) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can make folders of other users";
    uid_t owner = 1;
    gid_t group = 1;
    EXPECT_TRUE(storeOwner(owner, group));
    EXPECT_TRUE(owner == 0 && group == 0) << "it is missing: " << owner << ':' << group;
    fs::create_directories(root.path() / folder);
    ASSERT_EQ(::chown((root.path() / folder).c_str(), 1234, 5678), 0);
    EXPECT_TRUE(storeOwner(owner, group));
    EXPECT_TRUE(owner == 1234 && group == 5678) << owner << ':' << group;
    fs::remove(root.path() / folder);
    fs::create_symlink(fs::path(folder).filename(), root.path() / folder);
    EXPECT_FALSE(storeOwner(owner, group));
    EXPECT_EQ(errno, ELOOP);
    EXPECT_TRUE(owner == 1234 && group == 5678) << owner << ':' << group;
    const fs::path above = (root.path() / folder).parent_path();
    fs::remove_all(above);
    root.write(above.lexically_relative(root.path()), "no folder");
    EXPECT_TRUE(storeOwner(owner, group));
    EXPECT_TRUE(owner == 0 && group == 0) << "it cannot be there: " << owner << ':' << group;
}

}  // namespace
