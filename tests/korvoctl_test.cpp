#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <thread>

#include "korvo/utils/file.h"
#include "korvo/utils/inter_process_mutex.h"
#include "support/cases.h"
#include "support/replacements.h"
#include "support/shell.h"

namespace {

struct Korvoctl : testing::Test {
    test::ShellDevice device{KORVOCTL};
};

TEST_F(Korvoctl, AnswersCommandsWithResultsErrorsAndExitStatus) {
    std::filesystem::create_symlink(TEST_DATA "/../complete", device.path() / "bin/complete");
    for (const auto& [command, expected] : test::readCases("korvoctl.txt")) {
        SCOPED_TRACE(command);
        const auto wanted = test::fields(expected);
        EXPECT_EQ(device.outcome(command), wanted.at(0) + '|' + wanted.at(1));
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
        EXPECT_EQ(device.outcome("korvoctl -R=. " + arguments), wanted.at(0) + '|');
        const std::string errors = device.read("errors");
        const std::size_t lineEnd = errors.find('\n');
        EXPECT_EQ(errors.substr(0, lineEnd), "korvoctl: " + wanted.at(1));
        // A second line tells where to read on.
        EXPECT_THAT(errors.substr(lineEnd + 1),
                    testing::MatchesRegex(wanted.at(0) == "2" ? "Try 'korvoctl help[^\n]*'.\n" : ""));
        EXPECT_EQ(device.read("tmp/system.cfg"), before);
        EXPECT_FALSE(std::filesystem::exists(device.path().string() + KORVO_FLASH_DIR));
    }
}

TEST_F(Korvoctl, ReplacesTheConfigurationOnceForAChangeAndOnceMoreForTheCountOfASave) {
    const test::ReplacementCount replacements(device.path() / "tmp");
    for (const auto& [command, expected] : {std::pair("get system.name", 0),
                                            {"set network.http.port=1 network.upnp=1", 1},
                                            {"unset network.http.port", 1},
                                            {"set network.http.port=2 --save", 2},
                                            {"set network.http.port=2 --save", 1},
                                            {"save", 0}}) {
        EXPECT_EQ(device.run(std::string("korvoctl -R=. ") + command), 0);
        EXPECT_EQ(replacements.take(), expected) << command;
    }
}

TEST_F(Korvoctl, TellsForWhomItWaitsAndOnlyWritersWait) {
    InterProcessMutex lock("system.cfg", true);
    InterProcessMutex flashLock("system.cfg.flash", true);
    ASSERT_EQ(lock.acquire(), 0);
    ASSERT_EQ(flashLock.acquire(), 0);
    EXPECT_EQ(device.run("korvoctl -R=. get network.http.port && korvoctl -R=. check && korvoctl -R=. dump"),
              0);
    std::string name;  // not this program's where an emulator runs it
    EXPECT_TRUE(korvo::utils::File::ReadStringAll("/proc/self/comm", name));
    name.pop_back();
    const std::string waiting =
        "korvoctl: waiting for process " + std::to_string(::getpid()) + " (" + name + ") to ";
    std::string told;
    const auto awaitMessage = [&](const char* rest) {
        told += waiting + rest + '\n';
        for (int tries = 0; tries < 3000 && device.read("errors").size() < told.size(); ++tries)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    };
    std::thread writer([&] { EXPECT_EQ(device.run("korvoctl -R=. set network.http.port=8080 --save"), 0); });
    awaitMessage("close the configuration");
    EXPECT_THAT(device.read("tmp/system.cfg"), testing::HasSubstr("network.http.port=80\n"));
    EXPECT_EQ(lock.release(), 0);
    awaitMessage("save the configuration");
    EXPECT_FALSE(std::filesystem::exists(device.path().string() + KORVO_FLASH_DIR));
    EXPECT_EQ(flashLock.release(), 0);
    writer.join();
    EXPECT_EQ(device.read("errors"), told);
    EXPECT_THAT(device.read("tmp/system.cfg"), testing::HasSubstr("network.http.port=8080\n"));
}

TEST_F(Korvoctl, SaysSoWhereTheLockBelongsToNoProcess) {
#ifndef F_OFD_SETLK
    GTEST_SKIP() << "This C library has no locks of open file descriptions.";
#else
    const std::string path = device.path() / "tmp/system.cfg.lock";
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(file, F_OFD_SETLK, &whole), 0);
    EXPECT_EQ(device.run("timeout 5 korvoctl -R=. set a=1"), 124);
    EXPECT_EQ(device.read("errors"),
              "korvoctl: waiting for a program without a process id to close the configuration\n");
    ::close(file);
#endif
}

}  // namespace
