#include "korvo/utils/inter_process_mutex.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "korvo/utils/file.h"
#include "support/child_process.h"
#include "support/device.h"

static std::function<int()> atFchown;  ///< the errno value with which fchown() fails, or 0

/** Stands in front of the C library's own. */
extern "C" __attribute__((visibility("default"))) int fchown(int descriptor, uid_t owner,
                                                             gid_t group) noexcept {
    static const auto original = reinterpret_cast<decltype(&::fchown)>(::dlsym(RTLD_NEXT, "fchown"));
    errno = atFchown ? atFchown() : 0;
    return errno == 0 ? original(descriptor, owner, group) : -1;
}

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::ChildProcess;

class InterProcessMutexTest : public testing::Test {
  protected:
    /** The process that holds the lock, as the kernel tells another process; 0 when it is free. */
    pid_t holder() const {
        const ChildProcess asker([this](const ChildProcess& self) {
            struct flock request {};
            request.l_type = F_WRLCK;
            const int asked = ::fcntl(::open(lockFile.c_str(), O_RDWR), F_GETLK, &request);
            self.tell(asked != 0 ? -1 : request.l_type == F_UNLCK ? 0 : request.l_pid);
            return 0;
        });
        return asker.hear();
    }

    /** Lets the other user into the device, whose store becomes his. */
    void makeTheStoreTheOtherUsers() const {
        fs::permissions(root.path(), fs::perms(0755));
        fs::permissions(root.path() / "tmp", fs::perms(01777));
        fs::create_directories(flash);
        ASSERT_EQ(::chown(flash.c_str(), test::otherUser, test::otherUser), 0);
    }

    /** What acquire() says to root or the other user in a process that then ends with the lock. */
    int acquireAs(bool asRoot) const {
        ChildProcess user([asRoot](const ChildProcess&) {
            if (!asRoot) test::becomeOtherUser();
            return InterProcessMutex("name", true).acquire();
        });
        return user.exitStatus();
    }

    uid_t ownerOfLockFile() const {
        struct stat status {};
        EXPECT_EQ(::lstat(lockFile.c_str(), &status), 0);
        return status.st_uid;
    }

    test::Device root;
    const fs::path lockFile = root.path() / "tmp/name.lock";
    const fs::path flash = root.path() / fs::path(KORVO_FLASH_DIR).relative_path();
    InterProcessMutex mutex{"name", true};
};

TEST_F(InterProcessMutexTest, RefusesBadNames) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "/", "../name", "a/b"}) {
        InterProcessMutex refused(name, true);
        EXPECT_EQ(refused.acquire(), EINVAL) << (name ? name : "null");
        EXPECT_EQ(refused.release(), EINVAL) << (name ? name : "null");
        EXPECT_FALSE(refused.acquired() || refused.held());
    }
}

TEST_F(InterProcessMutexTest, NeverWaitsForALockFileThatSomebodyElseCanHold) {
    const auto locks = [this](const ChildProcess& self) {
        struct flock request {};
        request.l_type = F_WRLCK;
        self.tell(::fcntl(::open(lockFile.c_str(), O_RDWR), F_SETLK, &request));
        return ::pause();
    };
    const auto plant = [&](mode_t mode, uid_t owner) {
        ASSERT_TRUE(::chmod(root.write("tmp/name.lock", "").c_str(), mode) == 0 &&
                    (::geteuid() != 0 || ::chown(lockFile.c_str(), owner, 0) == 0));
    };
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"a link",
         [&] {
             plant(0600, 0);
             fs::rename(lockFile, root.path() / "name"), fs::create_symlink(root.path() / "name", lockFile);
         }},
        {"a pipe", [&] { ASSERT_EQ(::mkfifo(lockFile.c_str(), 0600), 0); }},
        {"a folder", [&] { fs::create_directory(lockFile); }},
        {"open to others", [&] { plant(0606, 0); }},
        {"open to the group", [&] { plant(0640, 0); }},
        {"another user's", [&] { plant(0600, test::otherUser + 1); }},
        {"a second name", [&] { plant(0600, 0), fs::create_hard_link(lockFile, root.path() / "name"); }},
    };
    fs::permissions(root.path(), fs::perms(0755));
    fs::permissions(root.path() / "tmp", fs::perms(01777));
    const bool isRoot = ::geteuid() == 0;
    for (const auto& [what, make] : cases) {
        SCOPED_TRACE(what);
        if (!isRoot && std::string(what) == "another user's") continue;  // only root can plant that
        make();
        ChildProcess other([isRoot](const ChildProcess&) {
            if (isRoot) test::becomeOtherUser();
            return InterProcessMutex("name", true).acquire();
        });
        EXPECT_EQ(other.exitStatus(), EPERM);
        const ChildProcess holder(locks);
        (void)holder.hear();
        ChildProcess replaces([this](const ChildProcess&) { return mutex.acquire(); });
        EXPECT_EQ(replaces.exitStatus(), isRoot ? 0 : EPERM);
        fs::remove_all(lockFile), fs::remove(root.path() / "name");
    }
    root.write("tmp/name.lock/precious", "content");
    EXPECT_EQ(mutex.acquire(), EPERM);
    EXPECT_EQ(root.read("tmp/name.lock/precious"), "content");
    fs::remove_all(lockFile);
    EXPECT_EQ(mutex.acquire(), 0) << "a failure keeps the turn";
    fs::remove(lockFile);
    EXPECT_EQ(mutex.release(), 0);
}

TEST_F(InterProcessMutexTest, RootAndTheStoresOwnerExcludeOneAnother) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    const fs::path elsewhere = root.path() / "elsewhere", inside = root.path() / "tmp/inside";
    const auto plant = [&](uid_t owner, mode_t mode, const char* content = "") {
        ASSERT_EQ(::chmod(root.write("tmp/name.lock", content).c_str(), mode), 0);
        ASSERT_EQ(::chown(lockFile.c_str(), owner, owner), 0);
    };
    constexpr uid_t user = test::otherUser;
    struct Case {
        const char* what;
        bool rootFirst;
        std::function<void()> make;
    };
    const Case cases[] = {
        {"nothing, root first", true, [] {}},
        {"nothing, the user first", false, [] {}},
        {"his, root first", true, [&] { plant(user, 0600); }},
        {"his, with content, he first", false, [&] { plant(user, 0600, "printed"); }},
        {"root's", true, [&] { plant(0, 0600); }},
        {"root's, with content", true, [&] { plant(0, 0600, "secret"); }},
        {"root's, open to others", true, [&] { plant(0, 0644, "secret"); }},
        {"another user's", true, [&] { plant(user + 1, 0600); }},
        {"a second name of root's", true,
         [&] { plant(0, 0600, "secret"), fs::create_hard_link(lockFile, elsewhere); }},
        {"a link to root's", true,
         [&] {
             plant(0, 0600, "secret"), fs::rename(lockFile, elsewhere),
                 fs::create_symlink(elsewhere, lockFile);
         }},
    };
    const auto use = [&](bool asRoot, bool isKilled) {
        return [&inside, asRoot, isKilled](const ChildProcess& self) {
            if (!asRoot) test::becomeOtherUser();
            InterProcessMutex lock("name", true);
            const int error = lock.acquire();
            const bool isAlone = ::mkdir(inside.c_str(), 0700) == 0;
            self.tell(error == 0 && !isAlone ? -1 : error);
            std::this_thread::sleep_for(20ms);
            const bool isHeld = lock.held() && ::rmdir(inside.c_str()) == 0;
            if (isKilled && isHeld) return ::raise(SIGKILL);
            return isHeld ? lock.release() : EPERM;
        };
    };
    makeTheStoreTheOtherUsers();
    for (const auto& [what, rootFirst, make] : cases) {
        SCOPED_TRACE(what);
        make();
        const int planted = ::open(lockFile.c_str(), O_RDONLY);
        struct stat before {
        }, after{};
        (void)::fstat(planted, &before);
        ChildProcess first(use(rootFirst, true));
        ASSERT_EQ(first.hear(), 0);
        EXPECT_EQ(ownerOfLockFile(), user);
        ChildProcess second(use(!rootFirst, true));
        ASSERT_EQ(second.hear(), 0) << "after the killed one";
        ChildProcess third(use(rootFirst, false)), fourth(use(!rootFirst, false));
        ASSERT_EQ(third.hear(), 0);
        ASSERT_EQ(fourth.hear(), 0);
        EXPECT_EQ(first.exitStatus(), -SIGKILL) << "it lost the lock";
        EXPECT_EQ(second.exitStatus(), -SIGKILL) << "it lost the lock";
        EXPECT_EQ(third.exitStatus(), 0);
        EXPECT_EQ(fourth.exitStatus(), 0);
        (void)::fstat(planted, &after);
        if (before.st_uid == 0 && before.st_size > 0) {
            EXPECT_EQ(after.st_uid, 0U) << "root gave a secret away";
            EXPECT_EQ(after.st_size, before.st_size) << "root emptied it";
        }
        ::close(planted);
        fs::remove(lockFile), fs::remove(elsewhere);
    }
}

TEST_F(InterProcessMutexTest, TheStoresOwnerWaitsForRootToGiveHimTheLockFile) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    makeTheStoreTheOtherUsers();
    const std::tuple<const char*, std::function<int()>, int, int> cases[] = {
        {"late", [] { return std::this_thread::sleep_for(200ms), 0; }, 0, 0},
        {"refused by the file system", [] { return EPERM; }, 0, EACCES},
        {"killed before", [] { return ::raise(SIGKILL); }, -SIGKILL, EACCES},
    };
    for (const auto& [what, act, forRoot, forUser] : cases) {
        SCOPED_TRACE(what);
        ChildProcess gives([this, act = act](const ChildProcess& self) {
            atFchown = [&] { return self.tell(1), act(); };
            return mutex.acquire();
        });
        ASSERT_EQ(gives.hear(), 1);
        EXPECT_EQ(ownerOfLockFile(), 0U);
        EXPECT_EQ(acquireAs(false), forUser);
        EXPECT_EQ(gives.exitStatus(), forRoot);
        EXPECT_EQ(acquireAs(true), 0);
        EXPECT_EQ(acquireAs(false), 0) << "what root left locks the user out";
        fs::remove(lockFile);
    }
}

TEST_F(InterProcessMutexTest, OnlyRootAsksWhoseTheStoreIs) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can have another user beside it";
    makeTheStoreTheOtherUsers();
    fs::remove(flash);
    ASSERT_EQ(acquireAs(false), 0);
    EXPECT_EQ(mutex.acquire(), 0) << "a lock file of somebody's";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(ownerOfLockFile(), 0U) << "without a flash folder the store is root's";
    makeTheStoreTheOtherUsers();
    EXPECT_EQ(mutex.holder(), 0);
    EXPECT_EQ(ownerOfLockFile(), 0U) << "who looks changes nothing";
    EXPECT_EQ(mutex.acquire(), 0);
    EXPECT_EQ(ownerOfLockFile(), test::otherUser) << "the file was open already";
    EXPECT_EQ(mutex.release(), 0);
    fs::remove(flash);
    fs::create_symlink(flash.filename(), flash);
    EXPECT_EQ(mutex.acquire(), ELOOP);
    EXPECT_EQ(mutex.holder(), 0);
    EXPECT_EQ(acquireAs(false), 0);
}

TEST_F(InterProcessMutexTest, TellsOfAHolderWithoutAProcess) {
#ifndef F_OFD_SETLK
    GTEST_SKIP() << "This C library has no locks of open file descriptions.";
#else
    ASSERT_EQ(mutex.acquire(), 0);
    ASSERT_EQ(mutex.release(), 0);
    const int other = ::open(lockFile.c_str(), O_RDWR);
    struct flock request {};
    request.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(other, F_OFD_SETLK, &request), 0);
    EXPECT_EQ(mutex.holder(), -1);
    ::close(other);
#endif
}

TEST_F(InterProcessMutexTest, WorksUnderAnyUmaskAndAfterWhatAnotherUmaskLeft) {
    fs::permissions(root.path(), fs::perms(0755));
    fs::permissions(root.path() / "tmp", fs::perms(01777));
    ChildProcess user([this](const ChildProcess&) {
        if (::geteuid() == 0) test::becomeOtherUser();
        ::umask(0777);
        for (const bool leftByKilled : {false, true}) {
            if (leftByKilled) ::close(::open(lockFile.c_str(), O_RDWR | O_CREAT, 0600));
            struct stat status {};
            EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0);
            EXPECT_EQ(::stat(lockFile.c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 07777, 0600);
            EXPECT_EQ(::unlink(lockFile.c_str()), 0);
        }
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(user.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, NoticesALockFileThatWasRemovedWhileHeldOrWaitedFor) {
    ASSERT_EQ(mutex.acquire(), 0);
    ASSERT_TRUE(mutex.held());
    ChildProcess waiting([](const ChildProcess& self) {
        InterProcessMutex waiter("name", true);
        self.tell(waiter.acquire());
        ::pause();
        return 0;
    });
    const std::string waits = "-> POSIX  ADVISORY  WRITE " + std::to_string(waiting.id()) + ' ';
    for (std::string locks; locks.find(waits) == std::string::npos; std::this_thread::sleep_for(1ms))
        ASSERT_TRUE(korvo::utils::File::ReadStringAll("/proc/locks", locks));
    ASSERT_TRUE(fs::remove(lockFile));
    ChildProcess successor([this](const ChildProcess& self) {
        const int error = mutex.acquire();
        self.tell(mutex.held() ? error : -1);
        std::this_thread::sleep_for(200ms);
        return 0;
    });
    ASSERT_EQ(successor.hear(), 0);
    // Asking gives the old file's lock to the one that waits for it.
    EXPECT_FALSE(mutex.held());
    EXPECT_EQ(mutex.holder(), 0);
    EXPECT_FALSE(mutex.held()) << "asking brought a lost lock back";
    EXPECT_TRUE(mutex.acquired()) << "it is not released yet";
    EXPECT_EQ(mutex.release(), EPERM);
    EXPECT_EQ(mutex.holder(), successor.id());
    EXPECT_EQ(waiting.hear(), 0);
    EXPECT_EQ(mutex.holder(), waiting.id()) << "it got a lock that excludes nobody";
    EXPECT_EQ(successor.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, NoticesALockFileThatWasMovedAway) {
    for (const bool another : {false, true}) {
        ASSERT_EQ(mutex.acquire(), 0);
        fs::rename(lockFile, root.path() / "moved");
        if (another) fs::permissions(root.write("tmp/name.lock", ""), fs::perms(0600));
        EXPECT_FALSE(mutex.held());
        EXPECT_EQ(mutex.release(), EPERM);
        ASSERT_EQ(mutex.acquire(), 0);
        EXPECT_TRUE(mutex.held()) << "not the file that others use";
        EXPECT_EQ(mutex.release(), 0);
    }
}

TEST_F(InterProcessMutexTest, LeavesAloneWhatAHostOpensUnderTheNumberOfItsDescriptor) {
    const auto closeAll = [this](int last) {  // as a daemon does, which then uses the numbers up to the last
        for (int descriptor = 3; descriptor < 100; ++descriptor) ::close(descriptor);
        const int host = ::open(root.write("host", "content").c_str(), O_RDWR);
        while (::dup(host) < last) {
        }
        return host;
    };
    ChildProcess daemon([&](const ChildProcess&) {
        auto owned = std::make_unique<InterProcessMutex>("name", true);
        EXPECT_EQ(owned->acquire(), 0);
        EXPECT_EQ(closeAll(40), 3);
        EXPECT_FALSE(owned->held());
        EXPECT_EQ(owned->release(), EPERM);
        EXPECT_EQ(owned->acquire(), 0);
        EXPECT_TRUE(owned->held());
        EXPECT_EQ(holder(), ::getpid());
        const int host = closeAll(60);
        owned.reset();
        EXPECT_EQ(::dup(host), 61);
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(daemon.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, TwoNamesInTwoProcessesOfTwoThreadsAreNoDeadlock) {
    const auto taker = [](const ChildProcess&) {
        std::atomic<int> failures{0};
        const auto take = [&](const char* name) {
            InterProcessMutex one(name, true);
            for (int i = 0; i < 500; ++i) {
                if (one.acquire() != 0) ++failures;
                if (i % 100 == 0) std::this_thread::sleep_for(1ms);
                if (one.release() != 0) ++failures;
            }
        };
        std::thread first(take, "name"), second(take, "other");
        first.join(), second.join();
        return failures > 0 ? 1 : 0;
    };
    ChildProcess one(taker), two(taker);
    EXPECT_EQ(one.exitStatus(), 0);
    EXPECT_EQ(two.exitStatus(), 0);
}

TEST_F(InterProcessMutexTest, CancelledThreadPassesItsTurnOn) {
    ASSERT_EQ(mutex.acquire(), 0);
    pthread_t thread{};
    const auto wait = [](void*) -> void* {
        InterProcessMutex waiter("name", true);
        (void)waiter.acquire();
        for (;;) ::pause();
    };
    ASSERT_EQ(::pthread_create(&thread, nullptr, wait, nullptr), 0);
    std::this_thread::sleep_for(20ms);
    ASSERT_EQ(::pthread_cancel(thread), 0);
    ASSERT_EQ(mutex.release(), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(thread, &result), 0);
    ASSERT_EQ(result, PTHREAD_CANCELED);
    ChildProcess next([](const ChildProcess&) { return InterProcessMutex("name", true).acquire(); });
    EXPECT_EQ(next.exitStatus(), 0);
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
    EXPECT_EQ(second.release(), EPERM);
    EXPECT_EQ(InterProcessMutex("name", true).release(), EPERM);
    EXPECT_EQ(holder(), ::getpid()) << "a refused call or a destructor gave the lock away";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_FALSE(mutex.acquired());
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
    for (int i = 0; i < 100; ++i) {
        ChildProcess child([](const ChildProcess&) { return InterProcessMutex("name", true).acquire(); });
        EXPECT_EQ(child.exitStatus(), 0);
    }
    stop = true;
    first.join();
    second.join();
    EXPECT_EQ(counter, increments[0] + increments[1]);
}

TEST_F(InterProcessMutexTest, WaitsThroughSignalsUntilTheKernelTakesTheLockOfAKilledProcess) {
    ChildProcess child([&](const ChildProcess& self) {
        self.tell(mutex.acquire());
        std::this_thread::sleep_for(200ms);
        return ::raise(SIGKILL);
    });
    ASSERT_EQ(child.hear(), 0);
    ASSERT_EQ(holder(), child.id());
    static volatile sig_atomic_t alarms = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { alarms = alarms + 1; };  // without SA_RESTART
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval every10ms{{0, 10000}, {0, 10000}}, never{};
    ::setitimer(ITIMER_REAL, &every10ms, nullptr);
    EXPECT_EQ(mutex.acquire(), 0);
    ::setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(holder(), ::getpid());
    EXPECT_GT(alarms, 0) << "no signal interrupted the wait";
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
            for (;;) ::pause();
        });
        const pid_t survivor = parent.hear();
        ASSERT_GT(survivor, 0);
        EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0) << (exec ? "exec" : "fork");
        EXPECT_EQ(::kill(survivor, SIGKILL), 0) << "the survivor was to live on";
    }
}

}  // namespace
