#include "korvo/utils/inter_process_mutex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <thread>
#include <tuple>

#include "korvo/utils/file.h"
#include "support/child_process.h"
#include "support/device.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::ChildProcess;

constexpr uid_t user = test::otherUser;

class InterProcessMutexTest : public testing::Test {
  protected:
    InterProcessMutexTest() {
        fs::permissions(root.path(), fs::perms(0755));
        fs::permissions(root.path() / "tmp", fs::perms(01777));
    }

    /** The process that holds the lock, as another process sees it; 0 if it is free. */
    static pid_t holder() {
        const ChildProcess asker([](const ChildProcess& self) {
            self.tell(InterProcessMutex("name", true).holder());
            return 0;
        });
        return asker.hear();
    }

    /** A process that acquires the lock, sends what acquire() returned, and keeps the lock. */
    static ChildProcess acquirer(bool asRoot = true) {
        return ChildProcess([asRoot](const ChildProcess& self) {
            if (!asRoot) test::becomeOtherUser();
            ::umask(0777);  // takes away even what the owner needs
            InterProcessMutex lock("name", true);
            self.tell(lock.acquire());
            return ::pause();
        });
    }
    static int acquireAs(bool asRoot) { return acquirer(asRoot).hear(); }

    void plant(uid_t owner, mode_t mode, const char* content = "") const {
        ASSERT_EQ(::chmod(root.write("tmp/name.lock", content).c_str(), mode), 0);
        ASSERT_EQ(::chown(lockFile.c_str(), owner, static_cast<gid_t>(-1)), 0);
    }

    void makeTheStoreTheOtherUsers() const {
        fs::create_directories(flash);
        ASSERT_EQ(::chown(flash.c_str(), user, user), 0);
    }

    struct stat statusOfLockFile() const {
        struct stat status {};
        EXPECT_EQ(::lstat(lockFile.c_str(), &status), 0);
        return status;
    }

    test::Device root;
    const fs::path lockFile = root.path() / "tmp/name.lock", elsewhere = root.path() / "elsewhere";
    const fs::path flash = root.path() / fs::path(KORVO_FLASH_DIR).relative_path();
    InterProcessMutex mutex{"name", true};
};

TEST_F(InterProcessMutexTest, RefusesBadNamesAndADirectoryWithContent) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "../name"}) {
        InterProcessMutex refused(name, true);
        EXPECT_TRUE(refused.acquire() == EINVAL && refused.release() == EINVAL) << (name ? name : "null");
        EXPECT_FALSE(refused.acquired() || refused.held());
    }
    root.write("tmp/name.lock/precious", "content");
    EXPECT_EQ(mutex.acquire(), EPERM);
    EXPECT_EQ(root.read("tmp/name.lock/precious"), "content");
    fs::remove_all(lockFile);
    EXPECT_EQ(mutex.acquire(), 0) << "the failure kept its turn";
}

TEST_F(InterProcessMutexTest, RootAndTheStoresOwnerExcludeOneAnotherWhateverStandsInThePlaceOfTheLockFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    // What stands there, whether root comes first, what acquire() returns to the first, and how it got there.
    const std::tuple<const char*, bool, int, std::function<void()>> cases[] = {
        {"nothing, root first", true, 0, [] {}},
        {"nothing, the user first", false, 0, [] {}},
        {"his, with content", false, 0, [&] { plant(user, 0600, "printed"); }},
        {"his, without access", false, 0, [&] { plant(user, 0); }},
        {"his, open to others", false, EPERM, [&] { plant(user, 0606); }},
        {"root's, with content", true, 0, [&] { plant(0, 0600, "secret"); }},
        {"root's, open to the group", false, EPERM, [&] { plant(0, 0640); }},
        {"another user's", false, EPERM, [&] { plant(user + 1, 0600); }},
        {"a second name", false, EPERM,
         [&] { plant(0, 0600, "secret"), fs::create_hard_link(lockFile, elsewhere); }},
        {"a link", false, EPERM, [&] { fs::create_symlink(root.write("elsewhere", "secret"), lockFile); }},
        {"a pipe", false, EPERM, [&] { ASSERT_EQ(::mkfifo(lockFile.c_str(), 0600), 0); }},
        {"a directory", false, EPERM, [&] { fs::create_directory(lockFile); }},
    };
    makeTheStoreTheOtherUsers();
    for (const auto& [what, rootFirst, expected, make] : cases) {
        SCOPED_TRACE(what);
        make();
        {
            const ChildProcess first = acquirer(rootFirst);
            EXPECT_EQ(first.hear(), expected);
            const ChildProcess second = acquirer(!rootFirst);
            EXPECT_TRUE(expected != 0 || holder() == first.id());
            EXPECT_EQ(::kill(first.id(), SIGKILL), 0);
            EXPECT_EQ(second.hear(), 0);
            EXPECT_EQ(holder(), second.id());
        }
        EXPECT_EQ(acquireAs(rootFirst), 0);
        const struct stat used = statusOfLockFile();
        EXPECT_EQ(std::tuple(used.st_uid, used.st_mode, used.st_nlink, used.st_size),
                  std::tuple(user, mode_t{S_IFREG | 0600}, nlink_t{1}, off_t{0}));
        EXPECT_TRUE(!fs::exists(elsewhere) || root.read("elsewhere") == "secret");
        fs::remove(lockFile), fs::remove(elsewhere);
    }
}

TEST_F(InterProcessMutexTest, RootGivesTheLockFileToTheStoresOwnerWhoWaitsASecondForIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    EXPECT_EQ(acquireAs(false), 0);
    EXPECT_EQ(acquireAs(true), 0) << "a lock file of somebody's";
    EXPECT_EQ(statusOfLockFile().st_uid, 0U) << "without a flash directory the store is root's";
    makeTheStoreTheOtherUsers();
    EXPECT_EQ(holder(), 0);
    EXPECT_EQ(statusOfLockFile().st_uid, 0U) << "asking changes nothing";
    for (const int expected : {EACCES, 0}) {
        const ChildProcess waiting = acquirer(false);
        std::this_thread::sleep_for(200ms);
        EXPECT_TRUE(expected != 0 || acquireAs(true) == 0);
        EXPECT_EQ(waiting.hear(), expected);
    }
    fs::remove(flash);
    fs::create_symlink(flash, flash);
    EXPECT_EQ(mutex.acquire(), ELOOP) << "nobody knows whose the store is";
}

TEST_F(InterProcessMutexTest, NoticesALockFileThatWasReplacedOrRemovedWhileHeldOrWaitedFor) {
    ASSERT_EQ(mutex.acquire(), 0);
    const ChildProcess waiting = acquirer();
    const std::string waits = "-> POSIX  ADVISORY  WRITE " + std::to_string(waiting.id()) + ' ';
    for (std::string locks; locks.find(waits) == std::string::npos; std::this_thread::sleep_for(1ms))
        ASSERT_TRUE(korvo::utils::File::ReadStringAll("/proc/locks", locks));
    EXPECT_TRUE(mutex.held());
    fs::rename(lockFile, elsewhere);
    plant(::geteuid(), 0600);
    const ChildProcess successor = acquirer();
    ASSERT_EQ(successor.hear(), 0);
    EXPECT_FALSE(mutex.held());  // gives the old file's lock to the one that waits for it
    EXPECT_EQ(mutex.holder(), 0);
    EXPECT_FALSE(mutex.held()) << "asking brought a lost lock back";
    EXPECT_TRUE(mutex.acquired()) << "it is not released yet";
    EXPECT_EQ(mutex.release(), EPERM);
    EXPECT_EQ(mutex.holder(), successor.id());
    EXPECT_EQ(::kill(successor.id(), SIGKILL), 0);
    EXPECT_EQ(waiting.hear(), 0);
    EXPECT_EQ(mutex.holder(), waiting.id()) << "it got a lock that excludes nobody";
    EXPECT_EQ(::kill(waiting.id(), SIGKILL), 0);
    EXPECT_EQ(mutex.acquire(), 0);
    fs::remove(lockFile);
    EXPECT_FALSE(mutex.held());
}

TEST_F(InterProcessMutexTest, LeavesAloneWhatAHostOpensUnderTheNumberOfItsDescriptor) {
    ChildProcess daemon([&](const ChildProcess&) {
        EXPECT_EQ(mutex.acquire(), 0);
        for (int descriptor = 3; descriptor < 100; ++descriptor) ::close(descriptor);
        const int host = ::open(root.write("host", "content").c_str(), O_RDWR);
        while (::dup(host) < 40) {
        }
        EXPECT_FALSE(mutex.held());
        EXPECT_EQ(mutex.release(), EPERM);
        EXPECT_EQ(mutex.acquire(), 0);
        EXPECT_EQ(holder(), ::getpid());
        EXPECT_EQ(::dup(host), 42) << "it closed a descriptor of the host's";
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(daemon.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, BelongsToOneObjectAndRefusesToHangItsThread) {
    EXPECT_EQ(mutex.release(), EPERM);
    ASSERT_EQ(mutex.acquire(), 0);
    EXPECT_EQ(mutex.acquire(), EDEADLK);
    EXPECT_EQ(InterProcessMutex("name", true).acquire(), EDEADLK);
    EXPECT_EQ(InterProcessMutex("other", true).acquire(), 0);
    EXPECT_EQ(InterProcessMutex("name", true).release(), EPERM);
    EXPECT_EQ(holder(), ::getpid()) << "a refused call or a destructor gave the lock away";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0);
    EXPECT_EQ(holder(), 0) << "destroying the holder did not give the lock back";
    // A thread that ended with the lock is not mistaken for a later one, and any other may give it back.
    std::thread([&] { ASSERT_EQ(mutex.acquire(), 0); }).join();
    int acquired = -1;
    std::thread next([&] {
        (void)::pthread_cancel(::pthread_self());  // it still gets its turn, and gives it back
        acquired = InterProcessMutex("name", true).acquire();
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(mutex.release(), 0);
    next.join();
    EXPECT_EQ(acquired, 0);
    EXPECT_EQ(mutex.acquire(), 0);
}

TEST_F(InterProcessMutexTest, ThreadsTakeTurnsAndAForkAtAnyMomentLeavesTheChildAUsableLock) {
#ifdef __UCLIBC__
    GTEST_SKIP() << "A child that is forked beside a thread in malloc() hangs in its own, with uClibc.";
#endif
    std::atomic<bool> stop{false};
    int counter = 0;  // guarded by nothing but the lock
    std::atomic<int> increments{0};
    const auto count = [&] {
        for (InterProcessMutex turn("name", true); !stop; ++increments) {
            EXPECT_EQ(turn.acquire(), 0);
            ++counter;
            EXPECT_EQ(turn.release(), 0);
        }
    };
    std::thread first(count), second(count);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(acquireAs(true), 0);
    stop = true;
    first.join(), second.join();
    EXPECT_EQ(counter, increments);
}

TEST_F(InterProcessMutexTest, ForkedChildNeitherKeepsNorGivesBackItsParentsLock) {
    std::optional<InterProcessMutex> inherited(std::in_place, "name", true);
    ASSERT_EQ(inherited->acquire(), 0);
    ChildProcess child([&](const ChildProcess&) {
        const int refused = inherited->acquired() ? 0 : inherited->release();
        inherited.reset();
        return refused;
    });
    EXPECT_EQ(child.exitStatus(), EPERM);
    EXPECT_EQ(holder(), ::getpid());
    inherited.reset();
    // A process that lives on with what it had when the lock was held: a forked child, and a new program.
    for (const bool exec : {false, true}) {
        ChildProcess parent([&](const ChildProcess& self) {
            if (mutex.acquire() != 0 || (::fork() == 0) == exec) return 0;
            self.tell(::getpid());
            if (exec) ::execlp("sleep", "sleep", "60", nullptr);
            return ::pause();
        });
        const pid_t survivor = parent.hear();
        ASSERT_GT(survivor, 0);
        EXPECT_EQ(acquireAs(true), 0) << (exec ? "exec" : "fork");
        EXPECT_EQ(::kill(survivor, SIGKILL), 0) << "the survivor was to live on";
    }
}

}  // namespace
