#include "korvo/variant_utils/camerainfo.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <map>

#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/device.h"
#include "support/locales.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

struct CompleteDevice : test::Device {
    CompleteDevice() {
        write("etc/board.info", "board.hwaddr=021b2ca1B2c3\n");
        write("proc/sys/kernel/hostname", " camera-7\t\nsecond line\n");
        write("proc/uptime", "100.00 25.00 7\n1 1\n");
        write("lib/version", "\nAB1.xyz.v4.0.1.34.4f2a1b3.170101.1200\n\n");
    }
};

/** Why Init() fails, what it logs and the facts of the record, each by its name. */
using Outcome = std::map<std::string, std::string>;

Outcome outcomeOfInit() {
    test::LogCapture log;
    CameraInfo info;
    info["earlier"] = 1;
    korvo::Failure failure{korvo::Step::Key, 0, "", 0, ""};
    errno = EDOM;  // logged where the version does not match
    Outcome outcome;
    if (!info.Init(&failure))
        outcome["fails"] =
            std::filesystem::relative(failure.subject, korvo::utils::devicePath("/")).string() + ": " +
            (failure.error != 0 ? "errno " + std::to_string(failure.error) : failure.reason);
    const auto failed = failure.error != 0 ? korvo::Step::Read : korvo::Step::Load;
    EXPECT_EQ(failure.step, outcome.empty() ? korvo::Step::None : failed);
    EXPECT_EQ(failure.line, 0);
    for (const test::LogLine& line : log.take())
        outcome[line.function] = line.message + " " + std::to_string(line.errorCode);
    for (const auto& [name, fact] : info) {
        const std::string shown = test::shown(fact);
        outcome[std::string(name)] = shown.substr(shown.find(' ') + 1);
    }
    return outcome;
}

TEST(CameraInfo, GathersWhatEachDeviceHasInEveryLocale) {
    test::inEveryLocale([] {
        Outcome usual;
        for (auto [input, expected] : test::readCases("devices.txt")) {
            const CompleteDevice device;
            const auto given = test::fields(input);
            std::filesystem::remove(device.path() / given[0]);
            if (given.size() == 2) device.write(given[0], given[1]);
            Outcome wanted = usual;
            korvo::utils::replaceAll(expected, "\n", "");
            for (const std::string& field : test::fields(expected)) {
                if (field[0] == '-')
                    wanted.erase(field.substr(1));
                else
                    wanted[field.substr(0, field.find('='))] = field.substr(field.find('=') + 1);
            }
            EXPECT_EQ(outcomeOfInit(), wanted);
            if (usual.empty()) usual = wanted;
        }
    });
}

TEST(CameraInfo, TheFirmwareVersionMustHaveItsFormInEveryLocale) {
    const CompleteDevice device;
    test::inEveryLocale([&] {
        for (const auto& [version, expected] : test::readCases("firmware_versions.txt")) {
            device.write("lib/version", version);
            Outcome outcome = outcomeOfInit();
            EXPECT_EQ(outcome.count("fails") == 0 ? outcome["protocolVer"] : "no match", expected);
        }
    });
}

TEST(CameraInfoAccessors, ReturnTheMemberOrLeaveADefaultInItsPlace) {
    CameraInfo info;
    int number = 0;
    for (const char* key :
         {"feature_mic", "feature_ir", "feature_rtc", "feature_wifi", "feature_sdmmc", "upTime"})
        info[key] = ++number;
    info["feature_video"] = 300;
    info["idleTime"] = info["fullVersion"] = "mistyped";
    EXPECT_THAT((std::vector<int>{info.feature_mic(), info.feature_ir(), info.feature_rtc(),
                                  info.feature_wifi(), info.feature_sdmmc(), info.feature_video()}),
                testing::ElementsAre(1, 2, 3, 4, 5, 44));
    EXPECT_EQ(info.upTime(), 6.0);
    EXPECT_EQ(info.fullVersion(), "mistyped");
    static_cast<Variant&>(info)["fullVersion"] = info.idleTime();
    EXPECT_EQ(info.fullVersion(), "");
    CameraInfo array;
    array[-1] = "first";
    EXPECT_EQ(array.feature_ir() + array.upTime(), 0);
    EXPECT_EQ(test::shown(array), "map feature_ir=0\nupTime=0");
}

}  // namespace
