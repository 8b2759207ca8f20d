#include "korvo/variant_utils/camerainfo.h"

#include <gtest/gtest.h>

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
std::map<std::string, std::string> outcomeOfInit() {
    test::LogCapture log;
    CameraInfo info;
    info["earlier"] = 1;
    korvo::Failure failure{korvo::Step::Key, 0, "", 0, ""};
    errno = EDOM;  // logged where the version does not match
    std::map<std::string, std::string> outcome;
    if (!info.Init(&failure))
        outcome["fails"] =
            std::filesystem::path(failure.subject).filename().string() + ": " +
            (failure.step == korvo::Step::Read ? std::to_string(failure.error) : failure.reason);
    EXPECT_EQ(failure.line, 0);
    EXPECT_EQ(failure.step == korvo::Step::None, outcome.empty());
    for (const test::LogLine& line : log.take())
        outcome[line.function] = line.message + " " + std::to_string(line.errorCode);
    for (const auto& [name, fact] : info) outcome[std::string(name)] = test::shown(fact);
    return outcome;
}

TEST(CameraInfo, GathersWhatEachDeviceHasInEveryLocale) {
    test::inEveryLocale([] {
        std::map<std::string, std::string> usual;
        for (auto [input, expected] : test::readCases("devices.txt")) {
            const CompleteDevice device;
            const auto given = test::fields(input);
            std::filesystem::remove(device.path() / given[0]);
            if (given.size() == 2) device.write(given[0], given[1]);
            const auto outcome = outcomeOfInit();
            std::string differences;
            for (const auto& [name, fact] : usual)
                if (outcome.count(name) == 0) differences += '-' + name + '|';
            for (const auto& [name, fact] : outcome)
                if (usual.count(name) == 0 || usual[name] != fact)
                    differences.append(name).append("=").append(fact).append("|");
            korvo::utils::replaceAll(expected, "\n", "");
            EXPECT_EQ(differences, expected);
            if (usual.empty()) usual = outcome;
        }
    });
}

TEST(CameraInfo, TheFirmwareVersionMustHaveItsFormInEveryLocale) {
    test::inEveryLocale([] {
        for (const auto& [version, expected] : test::readCases("firmware_versions.txt")) {
            const CompleteDevice device;
            device.write("lib/version", version);
            EXPECT_EQ(outcomeOfInit()["protocolVer"], expected == "no match" ? "" : expected);
        }
    });
}

TEST(CameraInfo, ReturnsTheMemberOrLeavesADefaultInItsPlace) {
    CameraInfo info;
    ASSERT_TRUE(
        info.FromKVP("feature_ir=2\nfeature_mic=1\nfeature_rtc=3\nfeature_sdmmc=5\nfeature_video=300\n"
                     "feature_wifi=4\nfullVersion=AB1\nupTime=6\n",
                     true, false, true));
    EXPECT_EQ(korvo::utils::format("%d%d%d%d%d %d", info.feature_mic(), info.feature_ir(), info.feature_rtc(),
                                   info.feature_wifi(), info.feature_sdmmc(), info.feature_video()),
              "12345 44");
    EXPECT_EQ(info.fullVersion() + std::to_string(info.upTime() + info.idleTime()), "AB16.000000");
    info.IsArray(true);
    EXPECT_EQ(info.feature_ir(), 0);
    EXPECT_EQ(test::shown(info), "map feature_ir=0");
}

}  // namespace
