#include <gmock/gmock.h>
#include <sys/wait.h>

#include <thread>

#include "korvo/utils/inter_process_mutex.h"
#include "support/cases.h"
#include "support/device.h"

namespace {

/** A copy of the sample device, in which commands find korvoctl and the flash area at $flash. */
class Korvoctl : public testing::Test {
  protected:
    Korvoctl() {
        std::filesystem::copy(SAMPLE_DEVICE, device.path(), std::filesystem::copy_options::recursive);
        std::filesystem::permissions(device.write("bin/korvoctl", "#!/bin/sh\nexec '" KORVOCTL "' \"$@\"\n"),
                                     std::filesystem::perms::all);
        std::filesystem::create_symlink(TEST_DATA "/../complete", device.path() / "bin/complete");
    }

    /** Runs a command of the shell, for the files "output" and "errors"; its exit status. */
    int run(const std::string& command) const {
        const std::string setUp =
            "cd '" + device.path().string() +
            "' && exec 2>errors >output && PATH=$PWD/bin:$PATH && flash=." KORVO_FLASH_DIR "\n";
        const int status = std::system((setUp + command).c_str());  // NOLINT(concurrency-mt-unsafe)
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    test::Device device;
};

TEST_F(Korvoctl, AnswersCommandsWithResultsErrorsAndExitStatus) {
    for (const auto& [command, expected] : test::readCases("korvoctl.txt")) {
        SCOPED_TRACE(command);
        const auto wanted = test::fields(expected);
        const int status = run(command);
        EXPECT_EQ(std::to_string(status) + '|' + device.read("output"), wanted.at(0) + '|' + wanted.at(1));
        const std::string errors = device.read("errors");
        EXPECT_THAT(errors, testing::HasSubstr(wanted.at(2)));
        EXPECT_EQ(errors.empty(), wanted.at(2).empty()) << errors;
    }
}

TEST_F(Korvoctl, TellsOnceWhatIsWrongAndThenDoesNothing) {
    const std::string before = device.read("tmp/system.cfg");
    for (const auto& [arguments, expected] : test::readCases("korvoctl_refused.txt")) {
        SCOPED_TRACE(arguments);
        const auto wanted = test::fields(expected);
        EXPECT_EQ(std::to_string(run("korvoctl -R=. " + arguments)), wanted.at(0));
        const std::string hint = wanted.at(0) == "2" ? "Try 'korvoctl help" : "";
        const std::string errors = device.read("errors");
        EXPECT_EQ(errors.substr(0, errors.find(hint.empty() ? "\n" : "\nTry")), "korvoctl: " + wanted.at(1));
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), hint.empty() ? 1 : 2) << errors;
        EXPECT_THAT(errors, testing::HasSubstr(hint));
        EXPECT_TRUE(device.read("output").empty() && device.read("tmp/system.cfg") == before);
        EXPECT_FALSE(std::filesystem::exists(device.path().string() + KORVO_FLASH_DIR));
    }
}

TEST_F(Korvoctl, TellsForWhomItWaitsAndOnlyWritersWait) {
    InterProcessMutex lock("system.cfg", true);
    ASSERT_EQ(lock.acquire(), 0);
    EXPECT_EQ(run("korvoctl -R=. get network.http.port && korvoctl -R=. check && korvoctl -R=. dump"), 0);
    std::thread writer([&] { EXPECT_EQ(run("korvoctl -R=. set network.http.port=8080"), 0); });
    for (int tries = 0; tries < 3000 && device.read("errors").empty(); ++tries)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_THAT(device.read("tmp/system.cfg"), testing::HasSubstr("network.http.port=80\n"));
    EXPECT_EQ(lock.release(), 0);
    writer.join();
    EXPECT_EQ(device.read("errors"), "korvoctl: waiting for process " + std::to_string(::getpid()) +
                                         " (korvoctl_test), which has the configuration open\n");
    EXPECT_THAT(device.read("tmp/system.cfg"), testing::HasSubstr("network.http.port=8080\n"));
}

}  // namespace
