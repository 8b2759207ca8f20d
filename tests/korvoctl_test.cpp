#include <gmock/gmock.h>
#include <sys/wait.h>

#include "support/cases.h"
#include "support/temporary_directory.h"

namespace {

TEST(Korvoctl, AnswersCommandsWithResultsErrorsAndExitStatus) {
    const test::TemporaryDirectory device;
    std::filesystem::copy(SAMPLE_DEVICE, device.path(), std::filesystem::copy_options::recursive);
    const std::string setUp = "cd '" + device.path().string() + "' && exec 2>errors >output && flash=." +
                              KORVO_FLASH_DIR + "\nkorvoctl() { '" + KORVOCTL + "' \"$@\"; }\n";
    for (const auto& [command, expected] : test::readCases("korvoctl.txt")) {
        SCOPED_TRACE(command);
        const auto wanted = test::fields(expected);
        const int status = std::system((setUp + command).c_str());  // NOLINT(concurrency-mt-unsafe)
        EXPECT_EQ(std::to_string(WEXITSTATUS(status)) + '|' + device.read("output"),
                  wanted.at(0) + '|' + wanted.at(1));
        const std::string errors = device.read("errors");
        EXPECT_THAT(errors, testing::HasSubstr(wanted.at(2)));
        EXPECT_EQ(errors.empty(), wanted.at(2).empty()) << errors;
    }
}

}  // namespace
