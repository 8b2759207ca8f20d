#include "korvo/utils/inter_process_mutex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
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
/** Locks a file for its open file description, which excludes every process. */
int lockDescription(int file) {
    constexpr int setLock = 37;  // F_OFD_SETLK, which uClibc does not name
    struct flock request {};
    request.l_type = F_WRLCK;
    return ::fcntl(file, setLock, &request);
}

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

    /** A process that acquires the lock, sends what acquire() returned, and ends with `int rest(lock)`. */
    template <class Rest>
    static ChildProcess acquirer(Rest rest) {
        return ChildProcess([rest](const ChildProcess& self) {
            InterProcessMutex lock("name", true);
            self.tell(lock.acquire());
            return rest(lock);
        });
    }

    /** What acquire() returns to root or to the other user in a process that ends with the lock. */
    static int acquireAs(bool asRoot) {
        ChildProcess process([asRoot](const ChildProcess&) {
            if (!asRoot) test::becomeOtherUser();
            return InterProcessMutex("name", true).acquire();
        });
        return process.exitStatus();
    }

    void plant(uid_t owner, mode_t mode, const char* content = "") const {
        ASSERT_EQ(::chmod(root.write("tmp/name.lock", content).c_str(), mode), 0);
        ASSERT_EQ(::chown(lockFile.c_str(), owner, static_cast<gid_t>(-1)), 0);
    }

    void makeTheStoreTheOtherUsers() const {
        fs::create_directories(flash);
        ASSERT_EQ(::chown(flash.c_str(), user, user), 0);
    }

    uid_t ownerOfLockFile() const {
        struct stat status {};
        EXPECT_EQ(::lstat(lockFile.c_str(), &status), 0);
        return status.st_uid;
    }

    test::Device root;
    const fs::path lockFile = root.path() / "tmp/name.lock", elsewhere = root.path() / "elsewhere";
    const fs::path flash = root.path() / fs::path(KORVO_FLASH_DIR).relative_path();
    InterProcessMutex mutex{"name", true};
};

TEST_F(InterProcessMutexTest, RefusesBadNames) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "/", "../name", "a/b"}) {
        InterProcessMutex refused(name, true);
        EXPECT_TRUE(refused.acquire() == EINVAL && refused.release() == EINVAL) << (name ? name : "null");
        EXPECT_FALSE(refused.acquired() || refused.held());
    }
}

TEST_F(InterProcessMutexTest, RootAndTheStoresOwnerExcludeOneAnotherWhateverStandsInThePlaceOfTheLockFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    // What stands there, whether root comes first, what acquire() returns to the first, and how it got there.
    const std::tuple<const char*, bool, int, std::function<void()>> cases[] = {
        {"nothing, root first", true, 0, [] {}},
        {"nothing, the user first", false, 0, [] {}},
        {"his, root first", true, 0, [&] { plant(user, 0600); }},
        {"his, with content", false, 0, [&] { plant(user, 0600, "printed"); }},
        {"his, open to others", false, EPERM, [&] { plant(user, 0606); }},
        {"root's", true, 0, [&] { plant(0, 0600); }},
        {"root's, with content", true, 0, [&] { plant(0, 0600, "secret"); }},
        {"root's, open to the group", false, EPERM, [&] { plant(0, 0640); }},
        {"another user's", false, EPERM, [&] { plant(user + 1, 0600); }},
        {"a second name", false, EPERM,
         [&] { plant(0, 0600, "secret"), fs::create_hard_link(lockFile, elsewhere); }},
        {"a link", false, EPERM, [&] { fs::create_symlink(root.write("elsewhere", "secret"), lockFile); }},
        {"a pipe", false, EPERM, [&] { ASSERT_EQ(::mkfifo(lockFile.c_str(), 0600), 0); }},
        {"a directory", false, EPERM, [&] { fs::create_directory(lockFile); }},
    };
    const fs::path inside = root.path() / "tmp/inside";
    const auto use = [&](bool asRoot) {
        return [&inside, asRoot](const ChildProcess& self) {
            if (!asRoot) test::becomeOtherUser();
            InterProcessMutex lock("name", true);
            const int error = lock.acquire();
            self.tell(error != 0 || ::mkdir(inside.c_str(), 0700) == 0 ? error : -1);
            std::this_thread::sleep_for(20ms);
            return error == 0 && lock.held() && ::rmdir(inside.c_str()) == 0 ? ::raise(SIGKILL) : error;
        };
    };
    makeTheStoreTheOtherUsers();
    for (const auto& [what, rootFirst, expected, make] : cases) {
        SCOPED_TRACE(what);
        make();
        const int planted = ::open(lockFile.c_str(), O_RDWR | O_NONBLOCK);
        struct stat before {
        }, after{};
        (void)::fstat(planted, &before);
        if (expected != 0) (void)lockDescription(planted);  // nobody waits for it
        ChildProcess first(use(rootFirst));
        EXPECT_EQ(first.hear(), expected);
        ChildProcess second(use(!rootFirst));
        EXPECT_EQ(second.hear(), 0);
        EXPECT_EQ(ownerOfLockFile(), user);
        ChildProcess third(use(rootFirst));
        EXPECT_EQ(third.hear(), 0);
        EXPECT_EQ(first.exitStatus(), expected == 0 ? -SIGKILL : expected);
        EXPECT_EQ(second.exitStatus(), -SIGKILL) << "it lost the lock";
        EXPECT_EQ(third.exitStatus(), -SIGKILL) << "it lost the lock";
        (void)::fstat(planted, &after);
        const bool isSecret = before.st_uid == 0 && before.st_size > 0;
        EXPECT_TRUE(!isSecret || (after.st_uid == 0 && after.st_size == before.st_size))
            << "root gave it away";
        ::close(planted);
        fs::remove(lockFile), fs::remove(elsewhere);
    }
}

TEST_F(InterProcessMutexTest, TheStoresOwnerWaitsASecondForRootToGiveHimTheLockFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    makeTheStoreTheOtherUsers();
    for (const bool isGiven : {true, false}) {
        plant(0, 0600);
        ChildProcess waiting([](const ChildProcess&) { return acquireAs(false); });
        std::this_thread::sleep_for(200ms);
        if (isGiven) plant(user, 0600);
        EXPECT_EQ(waiting.exitStatus(), isGiven ? 0 : EACCES);
        EXPECT_EQ(acquireAs(true), 0);
        EXPECT_EQ(acquireAs(false), 0) << "what root left locks the user out";
    }
}

TEST_F(InterProcessMutexTest, OnlyRootAsksWhoseTheStoreIs) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    EXPECT_EQ(acquireAs(false), 0);
    EXPECT_EQ(acquireAs(true), 0) << "a lock file of somebody's";
    EXPECT_EQ(ownerOfLockFile(), 0U) << "without a flash directory the store is root's";
    makeTheStoreTheOtherUsers();
    EXPECT_EQ(mutex.holder(), 0);
    EXPECT_EQ(ownerOfLockFile(), 0U) << "asking changes nothing";
    EXPECT_EQ(mutex.acquire(), 0);
    EXPECT_EQ(ownerOfLockFile(), user) << "the file was open already";
    EXPECT_EQ(mutex.release(), 0);
    fs::remove(flash);
    fs::create_symlink(flash.filename(), flash);
    EXPECT_EQ(mutex.acquire(), ELOOP);
    EXPECT_EQ(mutex.holder(), 0);
    EXPECT_EQ(acquireAs(false), 0);
    fs::remove_all(flash.parent_path());
    root.write(flash.parent_path().lexically_relative(root.path()), "");
    EXPECT_EQ(mutex.acquire(), 0) << "there can be no flash directory";
}

TEST_F(InterProcessMutexTest, FailsAtADirectoryWithContentAndKeepsItsTurn) {
    root.write("tmp/name.lock/precious", "content");
    EXPECT_EQ(mutex.acquire(), EPERM);
    EXPECT_EQ(root.read("tmp/name.lock/precious"), "content");
    fs::remove_all(lockFile);
    EXPECT_EQ(mutex.acquire(), 0);
}

TEST_F(InterProcessMutexTest, WorksUnderAnyUmaskAndAfterWhatAnotherUmaskLeft) {
    ChildProcess process([this](const ChildProcess&) {
        if (::geteuid() == 0) test::becomeOtherUser();
        ::umask(0777);
        for (const bool isLeft : {false, true}) {
            if (isLeft) ::close(::open(lockFile.c_str(), O_RDWR | O_CREAT, 0600));
            EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0);
            EXPECT_EQ(fs::status(lockFile).permissions(), fs::perms(0600));
            fs::remove(lockFile);
        }
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(process.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, NoticesALockFileThatWasRemovedWhileHeldOrWaitedFor) {
    ASSERT_EQ(mutex.acquire(), 0);
    ChildProcess waiting = acquirer([](InterProcessMutex&) { return ::pause(); });
    const std::string waits = "-> POSIX  ADVISORY  WRITE " + std::to_string(waiting.id()) + ' ';
    for (std::string locks; locks.find(waits) == std::string::npos; std::this_thread::sleep_for(1ms))
        ASSERT_TRUE(korvo::utils::File::ReadStringAll("/proc/locks", locks));
    ASSERT_TRUE(fs::remove(lockFile));
    ChildProcess successor = acquirer([](InterProcessMutex& lock) {
        std::this_thread::sleep_for(200ms);
        return lock.held() ? 0 : 1;
    });
    ASSERT_EQ(successor.hear(), 0);
    EXPECT_FALSE(mutex.held());  // gives the old file's lock to the one that waits for it
    EXPECT_EQ(mutex.holder(), 0);
    EXPECT_FALSE(mutex.held()) << "asking brought a lost lock back";
    EXPECT_TRUE(mutex.acquired()) << "it is not released yet";
    EXPECT_EQ(mutex.release(), EPERM);
    EXPECT_EQ(mutex.holder(), successor.id());
    EXPECT_EQ(waiting.hear(), 0);
    EXPECT_EQ(mutex.holder(), waiting.id()) << "it got a lock that excludes nobody";
    EXPECT_EQ(successor.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, NoticesALockFileThatWasReplaced) {
    ASSERT_EQ(mutex.acquire(), 0);
    ASSERT_TRUE(mutex.held());
    fs::rename(lockFile, elsewhere);
    fs::permissions(root.write("tmp/name.lock", ""), fs::perms(0600));
    EXPECT_FALSE(mutex.held());
    EXPECT_EQ(mutex.release(), EPERM);
    ASSERT_EQ(mutex.acquire(), 0);
    fs::remove(lockFile);
    EXPECT_EQ(mutex.release(), 0) << "held() has not reported the loss";
}

TEST_F(InterProcessMutexTest, LeavesAloneWhatAHostOpensUnderTheNumberOfItsDescriptor) {
    const auto closeAll = [this](int last) {  // as a daemon does, which then uses the numbers up to the last
        for (int descriptor = 3; descriptor < 100; ++descriptor) ::close(descriptor);
        const int host = ::open(root.write("host", "content").c_str(), O_RDWR);
        while (::dup(host) < last) {
        }
    };
    ChildProcess daemon([&](const ChildProcess&) {
        auto owned = std::make_unique<InterProcessMutex>("name", true);
        EXPECT_EQ(owned->acquire(), 0);
        closeAll(40);
        EXPECT_FALSE(owned->held());
        EXPECT_EQ(owned->release(), EPERM);
        EXPECT_EQ(owned->acquire(), 0);
        EXPECT_TRUE(owned->held());
        EXPECT_EQ(holder(), ::getpid());
        closeAll(60);
        owned.reset();
        EXPECT_EQ(::dup(3), 61);
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(daemon.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, CancelledThreadStillGetsItsTurn) {
    ASSERT_EQ(mutex.acquire(), 0);
    int acquired = -1;
    std::thread waiting([&] {
        (void)::pthread_cancel(::pthread_self());
        acquired = InterProcessMutex("name", true).acquire();
    });
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(mutex.release(), 0);
    waiting.join();
    EXPECT_EQ(acquired, 0);
    EXPECT_EQ(mutex.acquire(), 0);
}

TEST_F(InterProcessMutexTest, BelongsToOneObjectAndRefusesToHangItsThread) {
    InterProcessMutex second("name", true);
    EXPECT_EQ(mutex.release(), EPERM);
    ASSERT_EQ(mutex.acquire(), 0);
    EXPECT_EQ(mutex.acquire(), EDEADLK);
    EXPECT_EQ(second.acquire(), EDEADLK);
    EXPECT_TRUE(mutex.acquired() && !second.acquired());
    EXPECT_EQ(InterProcessMutex("other", true).acquire(), 0);
    EXPECT_EQ(InterProcessMutex("name", true).release(), EPERM);
    EXPECT_EQ(holder(), ::getpid()) << "a refused call or a destructor gave the lock away";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0);
    EXPECT_EQ(holder(), 0) << "destroying the holder did not give the lock back";
    // A thread that ended with the lock is not mistaken for a later one, and any other may give it back.
    std::thread([&] { ASSERT_EQ(mutex.acquire(), 0); }).join();
    std::thread next([] { EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0); });
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(mutex.release(), 0);
    next.join();
}

TEST_F(InterProcessMutexTest, ThreadsTakeTurnsAndAForkAtAnyMomentLeavesTheChildAUsableLock) {
#ifdef __UCLIBC__
    GTEST_SKIP() << "A child that is forked beside a thread in malloc() hangs in its own, with uClibc.";
#endif
    std::atomic<bool> stop{false};
    int counter = 0;  // guarded by nothing but the lock
    int increments[2] = {};
    const auto count = [&](int index) {
        for (InterProcessMutex turn("name", true); !stop; ++increments[index]) {
            EXPECT_EQ(turn.acquire(), 0);
            ++counter;
            EXPECT_EQ(turn.release(), 0);
        }
    };
    std::thread first(count, 0), second(count, 1);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(acquireAs(true), 0);
    stop = true;
    first.join(), second.join();
    EXPECT_EQ(counter, increments[0] + increments[1]);
}

TEST_F(InterProcessMutexTest, HolderIsMinusOneForALockWithoutAProcess) {
    plant(::geteuid(), 0600);
    ASSERT_EQ(lockDescription(::open(lockFile.c_str(), O_RDWR)), 0);
    EXPECT_EQ(mutex.holder(), -1);
}

TEST_F(InterProcessMutexTest, ForkedChildNeitherKeepsNorGivesBackItsParentsLock) {
    auto inherited = std::make_unique<InterProcessMutex>("name", true);
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
        EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0) << (exec ? "exec" : "fork");
        EXPECT_EQ(::kill(survivor, SIGKILL), 0) << "the survivor was to live on";
    }
}

}  // namespace
