#include "korvo/utils/inter_process_mutex.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <thread>

#include "korvo/utils/device_root.h"
#include "support/child_process.h"
#include "support/temporary_directory.h"

namespace {

using test::ChildProcess;

class InterProcessMutexTest : public testing::Test {
  protected:
    InterProcessMutexTest() {
        std::filesystem::create_directory(root.path() / "tmp");
        korvo::utils::setDeviceRoot(root.path());
    }

    /** The process that holds the lock, as the kernel tells another process; 0 when it is free. */
    pid_t holder() const {
        ChildProcess asker([this](const ChildProcess& self) {
            struct flock request {};
            request.l_type = F_WRLCK;
            const int file = ::open((root.path() / "tmp/name.lock").c_str(), O_RDWR);
            if (::fcntl(file, F_GETLK, &request) != 0) return 1;
            self.tell(request.l_type == F_UNLCK ? 0 : request.l_pid);
            return 0;
        });
        return static_cast<pid_t>(asker.hear());
    }

    test::TemporaryDirectory root;
};

TEST_F(InterProcessMutexTest, RefusesNamesThatAreNoFileName) {
    for (const char* name : {static_cast<const char*>(nullptr), "", "/", "../name", "a/b"}) {
        InterProcessMutex mutex(name, true);
        EXPECT_EQ(mutex.acquire(), EINVAL) << (name != nullptr ? name : "null");
        EXPECT_EQ(mutex.release(), EINVAL);
    }
}

TEST_F(InterProcessMutexTest, ReportsWhatIsPlantedInPlaceOfTheLockFileAndLeavesItAlone) {
    const std::filesystem::path path = root.path() / "tmp/name.lock";
    const std::filesystem::path target = root.write("target", "content");
    const struct {
        std::function<void()> plant;
        int error;
    } cases[] = {
        {[&] { std::filesystem::create_symlink(target, path); }, ELOOP},
        {[&] { std::filesystem::create_symlink("missing", path); }, ELOOP},
        {[&] { std::filesystem::create_directory(path); }, EISDIR},
        {[&] { ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0); }, EPERM},
    };
    InterProcessMutex mutex("name", true);
    for (const auto& row : cases) {
        row.plant();
        EXPECT_EQ(mutex.acquire(), row.error);
        EXPECT_EQ(mutex.release(), EPERM);
        std::filesystem::remove(path);
    }
    EXPECT_EQ(root.read("target"), "content");
    EXPECT_EQ(mutex.acquire(), 0);
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(InterProcessMutexTest, BelongsToOneObjectAndRefusesToHangItsThread) {
    InterProcessMutex first("name", true);
    InterProcessMutex second("name", true);
    InterProcessMutex other("other", true);
    EXPECT_EQ(first.release(), EPERM);
    ASSERT_EQ(first.acquire(), 0);
    EXPECT_EQ(holder(), ::getpid());
    EXPECT_EQ(first.acquire(), EDEADLK);
    EXPECT_EQ(second.acquire(), EDEADLK);
    EXPECT_EQ(second.release(), EPERM);
    EXPECT_EQ(other.acquire(), 0);
    EXPECT_EQ(holder(), ::getpid()) << "a refused call gave the lock away";
    std::thread([&] { EXPECT_EQ(first.release(), 0); }).join();
    EXPECT_EQ(holder(), 0);
    {
        InterProcessMutex third("name", true);
        ASSERT_EQ(third.acquire(), 0);
    }
    EXPECT_EQ(holder(), 0) << "destroying the holder did not give the lock back";
    EXPECT_EQ(second.acquire(), 0);
}

TEST_F(InterProcessMutexTest, ThreadThatEndedWithTheLockIsNotMistakenForALaterOne) {
    InterProcessMutex kept("name", true);
    std::thread([&] { ASSERT_EQ(kept.acquire(), 0); }).join();
    int result = -1;
    std::thread next([&] { result = InterProcessMutex("name", true).acquire(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(kept.release(), 0);
    next.join();
    EXPECT_EQ(result, 0);
}

TEST_F(InterProcessMutexTest, ThreadsTakeTurnsAndAForkAtAnyMomentLeavesTheChildAUsableLock) {
    int counter = 0;  // guarded by nothing but the lock
    std::atomic<int> rounds{0};
    std::atomic<bool> stop{false};
    std::list<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            InterProcessMutex mutex("name", true);
            for (; !stop; ++rounds) {
                EXPECT_EQ(mutex.acquire(), 0);
                ++counter;
                EXPECT_EQ(mutex.release(), 0);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        ChildProcess child([](const ChildProcess&) {
            ::alarm(20);  // a child that hangs dies of it
            InterProcessMutex mutex("name", true);
            const int result = mutex.acquire();
            return result != 0 ? result : mutex.release();
        });
        EXPECT_EQ(child.exitStatus(), 0);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(counter, rounds);
}

TEST_F(InterProcessMutexTest, KernelGivesTheLockOfAKilledProcessToTheOneThatWaits) {
    ChildProcess child([](const ChildProcess& self) {
        InterProcessMutex mutex("name", true);
        self.tell(mutex.acquire());
        return ::pause();
    });
    ASSERT_EQ(child.hear(), 0);
    EXPECT_EQ(holder(), child.id());
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        child.kill();
    });
    InterProcessMutex mutex("name", true);
    EXPECT_EQ(mutex.acquire(), 0);
    killer.join();
    EXPECT_EQ(child.exitStatus(), -SIGKILL);
}

TEST_F(InterProcessMutexTest, ForkedChildDoesNotGiveBackItsParentsLock) {
    auto mutex = std::make_unique<InterProcessMutex>("name", true);
    ASSERT_EQ(mutex->acquire(), 0);
    ChildProcess child([&](const ChildProcess&) {
        const int result = mutex->release();
        mutex.reset();
        return result;
    });
    EXPECT_EQ(child.exitStatus(), EPERM);
    EXPECT_EQ(holder(), ::getpid());
}

TEST_F(InterProcessMutexTest, NeitherAForkedChildNorAnExecutedProgramKeepsTheLock) {
    for (const bool exec : {false, true}) {
        ChildProcess parent([&](const ChildProcess& self) {
            InterProcessMutex mutex("name", true);
            if (mutex.acquire() != 0) return 1;
            const bool survives = exec || ::fork() == 0;
            if (!survives) ::_exit(0);
            self.tell(::getpid());
            return exec ? ::execlp("sleep", "sleep", "60", nullptr) : ::pause();
        });
        const auto survivor = static_cast<pid_t>(parent.hear());
        ASSERT_GT(survivor, 0);
        InterProcessMutex next("name", true);
        EXPECT_EQ(next.acquire(), 0);
        EXPECT_EQ(::kill(survivor, SIGKILL), 0) << "the survivor was to live on";
    }
}

}  // namespace
