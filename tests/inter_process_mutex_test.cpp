#include "korvo/utils/inter_process_mutex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "support/child_process.h"
#include "support/device.h"

namespace {

namespace fs = std::filesystem;
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

    test::Device root;
    const fs::path lockFile = root.path() / "tmp/name.lock";
    InterProcessMutex mutex{"name", true};
};

TEST_F(InterProcessMutexTest, RefusesBadNamesAndWhatIsPlantedInPlaceOfTheLockFile) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "/", "../name", "a/b"}) {
        InterProcessMutex refused(name, true);
        EXPECT_TRUE(refused.acquire() == EINVAL && refused.release() == EINVAL) << (name ? name : "null");
    }
    const fs::path target = root.write("target", "content");
    const std::pair<std::function<void()>, int> cases[] = {
        {[&] { fs::create_symlink(target, lockFile); }, ELOOP},
        {[&] { fs::create_directory(lockFile); }, EISDIR},
        {[&] { ASSERT_EQ(::mkfifo(lockFile.c_str(), 0600), 0); }, EPERM},
    };
    for (const auto& [plant, error] : cases) {
        plant();
        EXPECT_TRUE(mutex.acquire() == error && mutex.release() == EPERM && fs::remove(lockFile)) << error;
    }
    EXPECT_TRUE(root.read("target") == "content" && mutex.acquire() == 0);
    EXPECT_EQ(fs::status(lockFile).permissions(), fs::perms(0600));
}

TEST_F(InterProcessMutexTest, BelongsToOneObjectAndRefusesToHangItsThread) {
    InterProcessMutex second("name", true);
    EXPECT_EQ(mutex.release(), EPERM);
    ASSERT_EQ(mutex.acquire(), 0);
    EXPECT_TRUE(mutex.acquire() == EDEADLK && second.acquire() == EDEADLK);
    EXPECT_TRUE(InterProcessMutex("other", true).acquire() == 0 && second.release() == EPERM);
    EXPECT_EQ(InterProcessMutex("name", true).release(), EPERM);
    EXPECT_EQ(holder(), ::getpid()) << "a refused call or a destructor gave the lock away";
    EXPECT_EQ(mutex.release(), 0);
    EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0);
    EXPECT_EQ(holder(), 0) << "destroying the holder did not give the lock back";
    // A thread that ended with the lock is not mistaken for a later one, and any other may give it back.
    std::thread([&] { ASSERT_EQ(mutex.acquire(), 0); }).join();
    std::thread next([] { EXPECT_EQ(InterProcessMutex("name", true).acquire(), 0); });
    ::usleep(20000);
    EXPECT_EQ(mutex.release(), 0);
    next.join();
}

TEST_F(InterProcessMutexTest, ThreadsTakeTurnsAndAForkAtAnyMomentLeavesTheChildAUsableLock) {
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
        ChildProcess child([](const ChildProcess&) {
            ::alarm(20);  // a child that hangs dies of it
            return InterProcessMutex("name", true).acquire();
        });
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
        ::usleep(200000);
        return ::raise(SIGKILL);
    });
    ASSERT_TRUE(child.hear() == 0 && holder() == child.id());
    static volatile sig_atomic_t alarms = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { alarms = alarms + 1; };  // without SA_RESTART
    ::sigaction(SIGALRM, &action, nullptr);
    ::ualarm(10000, 10000);
    EXPECT_EQ(mutex.acquire(), 0);
    ::ualarm(0, 0);
    EXPECT_TRUE(holder() == ::getpid() && alarms > 0) << alarms << " signals interrupted the wait";
}

TEST_F(InterProcessMutexTest, ForkedChildNeitherKeepsNorGivesBackItsParentsLock) {
    auto inherited = std::make_unique<InterProcessMutex>("name", true);
    ASSERT_EQ(inherited->acquire(), 0);
    ChildProcess child([&](const ChildProcess&) {
        const int refused = inherited->release();
        inherited.reset();
        return refused;
    });
    EXPECT_TRUE(child.exitStatus() == EPERM && holder() == ::getpid());
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
