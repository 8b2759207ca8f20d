#include "korvo/variant_utils/camerainfo.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support/cases.h"
#include "support/device.h"
#include "support/locales.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

const std::filesystem::path devices = TEST_DATA "/../devices";

/** The result of Init(), and why it failed: the file below the device root, errno and reason. */
std::string resultOfInit(CameraInfo& info) {
    korvo::Failure failure;
    failure.step = korvo::Step::Key;
    const bool done = info.Init(&failure);
    EXPECT_EQ(done, failure.step == korvo::Step::None);
    if (done) return "succeeds\n";
    EXPECT_EQ(failure.step, failure.error != 0 ? korvo::Step::Read : korvo::Step::Load);
    const std::string file = std::filesystem::relative(failure.subject, korvo::utils::devicePath("/"));
    const std::string error = failure.error != 0 ? "errno " + std::to_string(failure.error) : "";
    return "fails: " + file + ": " + error + failure.reason + '\n';
}

/** What Init() does, as the files "expected" of the sample devices have it: result, messages and record. */
std::string outcomeOfInit() {
    test::LogCapture log;
    CameraInfo info;
    info["earlier"] = 1;
    std::string text = resultOfInit(info), record;
    for (const test::LogLine& line : log.take()) text += line.function + ": " + line.message + '\n';
    EXPECT_TRUE(info.ToKVP(record, "=", "\n"));
    return text + record;
}

TEST(CameraInfo, GathersWhatEachSampleDeviceHasInEveryLocale) {
    test::inEveryLocale([] {
        for (const auto& sample : std::filesystem::directory_iterator(devices)) {
            const test::Device device(sample.path());
            EXPECT_EQ(outcomeOfInit(), device.read("expected")) << sample.path();
        }
    });
}

TEST(CameraInfo, TheFirmwareVersionMustHaveItsFormInEveryLocale) {
    const test::Device device(devices / "complete");
    test::inEveryLocale([&] {
        for (const auto& [version, protocol] : test::readCases("firmware_versions.txt")) {
            SCOPED_TRACE(version);
            test::LogCapture log;
            device.write("lib/version", version);
            CameraInfo info;
            errno = EDOM;
            const bool matched = info.Init();
            EXPECT_EQ(info["fullVersion"], Variant(version));
            const long long found = info["protocolVer"];
            EXPECT_EQ(matched ? std::to_string(found) : "no match", protocol);
            for (const test::LogLine& line : log.take())
                EXPECT_EQ(line.errorCode, EDOM) << "not the caller's errno";
        }
    });
}

TEST(CameraInfo, TheHardwareAddressStaysATextAndIsGivenInPairsToo) {
    const test::Device device(devices / "complete");
    for (const auto& [address, pairs] : test::readCases("board_addresses.txt")) {
        device.write("etc/board.info", "board.hwaddr=" + address + '\n');
        CameraInfo info;
        EXPECT_TRUE(info.Init());
        EXPECT_EQ(info["hwaddr"], Variant(address));
        EXPECT_EQ(info["hwaddrColons"], Variant(pairs)) << address;
    }
}

TEST(CameraInfoAccessors, ReturnTheMemberOrLeaveADefaultInItsPlace) {
    const auto check = [](const Variant& stored, int feature, double seconds, const std::string& left) {
        CameraInfo info;
        info["feature_ir"] = info["upTime"] = info["idleTime"] = info["fullVersion"] = stored;
        EXPECT_EQ(info.feature_ir(), feature);
        EXPECT_EQ(info.upTime(), seconds);
        EXPECT_EQ(info.idleTime(), seconds);
        EXPECT_EQ(info.fullVersion(), static_cast<const std::string&>(stored));
        EXPECT_EQ(test::shown(info), "map " + left);
    };
    check(300, 44, 300.0, "feature_ir=300\nfullVersion=\nidleTime=300\nupTime=300");
    check(2.75, 2, 2.75, "feature_ir=2.75\nfullVersion=\nidleTime=2.75\nupTime=2.75");
    check(true, 0, 0.0, "feature_ir=0\nfullVersion=\nidleTime=0\nupTime=0");
    check("1", 0, 0.0, "feature_ir=0\nfullVersion=1\nidleTime=0\nupTime=0");
    CameraInfo array;
    array[-1] = "first";
    EXPECT_EQ(array.upTime(), 0.0);
    EXPECT_EQ(test::shown(array), "map upTime=0");
}

}  // namespace
