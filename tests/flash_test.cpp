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
using korvo::utils::saveToFlashRaw;

class FlashTest : public testing::Test {
  protected:
    test::Device root;
    const std::string folder = std::string(KORVO_FLASH_DIR).substr(1), copy = folder + "/system.cfg";
};

TEST_F(FlashTest, MakesTheFolderAndAPrivateCopyAndReplacesItLater) {
    const auto save = [] {
        for (int i = 0; i < 20; ++i) EXPECT_TRUE(saveToFlashRaw(false)) << "saves were to follow one another";
    };
    const std::ptrdiff_t descriptors = test::openDescriptors();
    const std::string large = std::string(300000, 'x') + std::string("\0\xff\n", 3);  // more than one write
    for (const std::string& text : {std::string("a=1\n"), large, std::string()}) {
        root.write("tmp/system.cfg", text);
        std::thread other(save);
        save();
        other.join();
        EXPECT_EQ(root.read(copy), text);
        EXPECT_EQ(fs::status(root.path() / copy).permissions(), fs::perms(0600));
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
    const std::tuple<std::function<void()>, int, const char*> cases[] = {
        {[&] { fs::remove(root.path() / "tmp/system.cfg"); }, ENOENT, "old"},
        {[&] { fs::remove_all(root.path() / folder), root.write(folder, "no folder"); }, ENOTDIR, "no file"},
        {[&] { fs::remove(root.path() / copy), fs::create_directory(root.path() / copy); }, EISDIR,
         "no file"},
    };
    for (const auto& [spoil, error, left] : cases) {
        fs::remove_all(root.path() / folder);
        root.write("tmp/system.cfg", "new");
        root.write(copy, "old");
        spoil();
        EXPECT_FALSE(saveToFlashRaw(false));
        EXPECT_EQ(errno, error);
        EXPECT_EQ(fs::is_regular_file(root.path() / copy) ? root.read(copy) : "no file", left);
        EXPECT_FALSE(fs::exists(root.path() / (copy + ".tmp")));
    }
}

}  // namespace
