#include "korvo/variant_utils/camerainfo.h"

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
        test::forEachCase("devices.txt", [&](const std::string& input, std::string expected) {
            const CompleteDevice device;
            const auto given = test::fields(input);
            std::filesystem::remove(device.path() / given[0]);
            if (given.size() == 2) device.write(given[0], given[1]);
            const Outcome outcome = outcomeOfInit();
            if (usual.empty()) usual = outcome;
            Outcome wanted = usual;
            korvo::utils::replaceAll(expected, "\n", "");
            for (const std::string& field : test::fields(expected)) {
                const std::size_t nameEnd = field.find('=');
                if (field[0] == '-')
                    wanted.erase(field.substr(1));
                else
                    wanted[field.substr(0, nameEnd)] = field.substr(nameEnd + 1);
            }
            EXPECT_EQ(outcome, wanted);
        });
    });
}

TEST(CameraInfo, TheFirmwareVersionMustHaveItsFormInEveryLocale) {
    const CompleteDevice device;
    test::inEveryLocale([&] {
        test::forEachCase(
            "firmware_versions.txt", [&](const std::string& version, const std::string& expected) {
                device.write("lib/version", version);
                Outcome outcome = outcomeOfInit();
                EXPECT_EQ(outcome.count("fails") == 0 ? outcome["protocolVer"] : "no match", expected);
            });
    });
}

TEST(CameraInfoAccessors, ReturnTheMemberOrLeaveADefaultInItsPlace) {
    const auto check = [](const Variant& stored, int feature, double seconds, const std::string& left) {
        CameraInfo info;
        info["feature_ir"] = info["upTime"] = info["idleTime"] = info["fullVersion"] = stored;
        EXPECT_EQ(info.feature_ir(), feature);
        EXPECT_EQ(info.upTime(), seconds);
        EXPECT_EQ(info.idleTime(), seconds);
        EXPECT_EQ(info.fullVersion(), stored.As<std::string>());
        EXPECT_EQ(test::shown(info), "map " + left);
    };
    check(300, 44, 300.0, "feature_ir=300\nfullVersion=\nidleTime=300\nupTime=300");
    check("1", 0, 0.0, "feature_ir=0\nfullVersion=1\nidleTime=0\nupTime=0");
    CameraInfo array;
    array[-1] = "first";
    EXPECT_EQ(array.upTime(), 0.0);
    EXPECT_EQ(test::shown(array), "map upTime=0");
}

}  // namespace
