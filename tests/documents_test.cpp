// The programs in the documents and headers, as they stand there.

#include <gtest/gtest.h>

#include "korvo/variant_utils/commandline.h"
#include "support/cases.h"
#include "support/shell.h"

namespace {

int exampleOfCommandline(int argc, const char** argv) {
#include "commandline_example.h"
    return port;
}

TEST(Documents, ExampleOfTheCommandLineDoesWhatItSays) {
    const char* arguments[] = {"cam", "--port=8554"};
    EXPECT_EQ(exampleOfCommandline(1, arguments), 554);
    EXPECT_EQ(exampleOfCommandline(2, arguments), 8554);
}

TEST(Documents, ProgramsForHostsDoWhatTheySay) {
    const test::ShellDevice device{HOSTS "/first",   HOSTS "/listener",    HOSTS "/regions",
                                   HOSTS "/encoder", HOSTS "/device-page", HOSTS "/stream-source"};
    for (const auto& [command, expected] : test::readCases("hosts.txt"))
        EXPECT_EQ(device.outcome(command), expected) << device.read("errors");
}

#ifdef KORVOCTL
TEST(Documents, ServiceReloadsForEachChangeAndEndsOnTheNewest) {
    const test::ShellDevice device{HOSTS "/encoder", KORVOCTL};
    for (const auto& [command, expected] : test::readCases("services.txt"))
        EXPECT_EQ(device.outcome(command), expected) << device.read("errors");
}
#endif

}  // namespace
