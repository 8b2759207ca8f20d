#include <gmock/gmock.h>
#include <unistd.h>

#include <optional>

#include "korvo/utils/inter_process_mutex.h"
#include "support/cases.h"
#include "support/shell.h"

namespace {

using testing::HasSubstr;

struct Korvoctl : testing::Test {
    /** Runs the command, again and again, until a file of the device holds the text. */
    void runUntil(const char* file, const std::string& text, const std::string& command = "sleep 0.02") {
        for (int tries = 0; tries < 500 && device->read(file).find(text) == std::string::npos; ++tries)
            (void)device->run(command + " 2>again");
        EXPECT_THAT(device->read(file), HasSubstr(text));
    }

    std::optional<test::ShellDevice> device{std::in_place, {KORVOCTL}};
};

TEST_F(Korvoctl, AnswersCommandsWithResultsErrorsAndExitStatus) {
    for (const auto& [command, expected] : test::readCases("korvoctl.txt")) {
        if (expected == "fresh") {
            device.reset();  // the old one first: both use the device root
            device.emplace({KORVOCTL, TEST_DATA "/../complete"});
            continue;
        }
        const auto wanted = test::fields(expected);
        EXPECT_EQ(device->outcome(command), wanted.at(0) + '|' + wanted.at(1));
        const std::string errors = device->read("errors");
        EXPECT_THAT(errors, HasSubstr(wanted.at(2)));
        EXPECT_EQ(errors.empty(), wanted.at(2).empty()) << errors;
    }
}

TEST_F(Korvoctl, SaysOnceWhatIsWrongAndThenDoesNothing) {
    const std::string before = device->read("tmp/system.cfg");
    for (const auto& [arguments, expected] : test::readCases("korvoctl_refused.txt")) {
        const auto wanted = test::fields(expected);
        EXPECT_EQ(device->outcome("korvoctl -R=. " + arguments), wanted.at(0) + '|');
        const std::string errors = device->read("errors");
        const std::size_t lineEnd = errors.find('\n');
        EXPECT_EQ(errors.substr(0, lineEnd), "korvoctl: " + wanted.at(1));
        // A second line names the help to read.
        EXPECT_THAT(errors.substr(lineEnd + 1),
                    testing::MatchesRegex(wanted.at(0) == "2" ? "Try 'korvoctl help[^\n]*'.\n" : ""));
        EXPECT_EQ(device->read("tmp/system.cfg"), before);
        EXPECT_FALSE(std::filesystem::exists(device->path().string() + KORVO_FLASH_DIR));
    }
}

TEST_F(Korvoctl, SaysForWhomAWriterWaitsAndOnlyWritersWait) {
    InterProcessMutex lock("system.cfg", true), flashLock("system.cfg.flash", true);
    ASSERT_EQ(lock.acquire() + flashLock.acquire(), 0);
    EXPECT_EQ(device->run("korvoctl -R=. get system.name && korvoctl -R=. check && korvoctl -R=. dump"), 0);
    (void)device->run("korvoctl -R=. set system.name=New --save 2>told &");
    runUntil("told", "process " + std::to_string(::getpid()) + " (");
    runUntil("told", ") to close the configuration\n");
    EXPECT_THAT(device->read("tmp/system.cfg"), HasSubstr("system.name=Entrance\n"));
    EXPECT_EQ(lock.release(), 0);
    runUntil("told", ") to save the configuration\n");
    EXPECT_FALSE(std::filesystem::exists(device->path().string() + KORVO_FLASH_DIR));
    EXPECT_EQ(flashLock.release(), 0);
    runUntil("tmp/system.cfg", "system.name=New\n");
}

TEST_F(Korvoctl, WatchPrintsEachChangeHoweverItIsMadeUntilTheDirectoryGoes) {
    (void)device->run("(korvoctl -R=. watch a >seen 2>told; echo $? >>told) &");
    runUntil("seen", "+a=2\n", "korvoctl -R=. set a=1 b=1; korvoctl -R=. set a=2 b=2");
    runUntil("seen", "-a=2\n+a=in place\n", "echo a=in place >tmp/system.cfg");
    runUntil("told", "system.cfg:2: there is no", "printf 'a=4\nc' >tmp/system.cfg");
    runUntil("seen", "-a=in place\n+a=renamed\n", "echo a=renamed >new; mv new tmp/system.cfg");
    runUntil("told", "cannot read ./tmp/system.cfg: No such file", "rm tmp/system.cfg");
    runUntil("seen", "-a=renamed\n+a=linked\n", "echo a=linked >new; ln new tmp/system.cfg");
    runUntil("told", "stopped watching ./tmp/system.cfg: No such file or directory\n3\n", "mv tmp gone");
    EXPECT_THAT(device->read("seen"), Not(HasSubstr("b=")));
}

}  // namespace
