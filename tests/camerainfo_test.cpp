#include "korvo/variant_utils/camerainfo.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <map>

#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/device.h"
#include "support/locales.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

const std::map<std::string, std::string> healthyFiles = {
    {"etc/board.info",
     "board.hwaddr=021b2ca1B2c3\r\nfeature_mic=1\nfeature_rtc=-1\nfeature_sdmmc=2\nfeature_video=3\n"
     "feature_wifi=4\nboard.name=KV2\n"},
    {"proc/sys/kernel/hostname", " camera-7\t\nsecond line\n"},
    {"proc/uptime", "100.00 25.00 7\n1 1\n"},
    {"lib/version", "\nAB1.xyz.v4.0.1.34.4f2a1b3.170101.1200\n\n"}};

/** In the order in which Init() comes to them. */
const char healthyRecord[] =
    "name=KV2|hwaddr=021b2ca1B2c3|feature_sdmmc=2|feature_mic=1|feature_video=3|feature_ir=0|feature_rtc=-1|"
    "feature_wifi=4|hostName=camera-7|upTime=100.0|idleTime=25.0|totalLoad=0.75|"
    "fullVersion=AB1.xyz.v4.0.1.34.4f2a1b3.170101.1200|version=AB1.v4.0.1.34.4f2a1b3.170101.1200|"
    "deviceModel=AB1|protocolVer=34|hwaddrColons=02:1b:2c:a1:B2:c3";

/** The key=value text of the healthy record up to a member, with what differs behind a device's message. */
std::string expectedRecord(const std::vector<std::string>& outcome) {
    Variant record;
    const auto take = [&](const std::string& member) {
        const std::string key = member.substr(0, member.find('='));
        record[key] = key == member ? Variant() : Variant(member.substr(key.size() + 1));
        return key;
    };
    for (const std::string& member : test::fields(outcome[0] == "none" ? "earlier=1" : healthyRecord))
        if (take(member) == outcome[0]) break;
    std::for_each(outcome.begin() + 2, outcome.end(), take);
    return test::shown(record);
}

/** The healthy device, but for one file: its name and, unless it is to be missing, its content. */
struct DeviceBut : test::Device {
    explicit DeviceBut(std::vector<std::string> different) {
        for (const auto& [name, text] : healthyFiles) write(name, text);
        std::filesystem::remove(path() / different[0]);
        if (different.size() < 2) return;
        korvo::utils::replaceAll(different[1], "HEALTHY", healthyFiles.at("etc/board.info"));
        write(different[0], different[1]);
    }
};

TEST(CameraInfo, GathersWhatEachSampleDeviceHasInEveryLocale) {
    test::LogCapture log;
    test::inEveryLocale([&] {
        for (const auto& [sample, expected] : test::readCases("devices.txt")) {
            SCOPED_TRACE(sample);
            const DeviceBut device(test::fields(sample));
            const auto outcome = test::fields(expected);
            CameraInfo info;
            info["earlier"] = 1;
            errno = EDOM;
            EXPECT_EQ(info.Init(), outcome[0] == "all");
            EXPECT_EQ(test::shown(info), expectedRecord(outcome));
            EXPECT_EQ(::uselocale(nullptr), LC_GLOBAL_LOCALE) << "the host's locale is its own";
            const auto lines = log.take();
            ASSERT_EQ(lines.size(), outcome[1].empty() ? 0U : 1U);
            if (lines.empty()) continue;
            EXPECT_EQ(lines[0].function + ": " + lines[0].message, "Init: " + outcome[1]);
            EXPECT_EQ(lines[0].errorCode, outcome[0] == "deviceModel" ? EDOM : 0);
        }
    });
}

TEST(CameraInfo, TheFirmwareVersionMustHaveItsFormInEveryLocale) {
    test::LogCapture log;
    test::inEveryLocale([&] {
        for (const auto& [version, protocol] : test::readCases("firmware_versions.txt")) {
            const DeviceBut device({"lib/version", version});
            CameraInfo info;
            const bool matched = info.Init();
            EXPECT_EQ(info["fullVersion"], Variant(version));
            const long long found = info["protocolVer"];
            EXPECT_EQ(matched ? std::to_string(found) : "no match", protocol) << version;
        }
    });
}

TEST(CameraInfoAccessors, ReturnTheMemberOrLeaveADefaultInItsPlace) {
    const auto check = [](const Variant& stored, int feature, double seconds, const std::string& text) {
        SCOPED_TRACE(test::shown(stored));
        const bool numeric = (VariantType(stored) & TypeNumeric) != 0;
        CameraInfo info;
        for (const char* key : {"feature_mic", "feature_ir", "feature_rtc", "feature_wifi", "feature_sdmmc",
                                "feature_video", "upTime", "idleTime", "fullVersion"})
            info[key] = stored;
        for (const int found : {info.feature_mic(), info.feature_ir(), info.feature_rtc(),
                                info.feature_wifi(), info.feature_sdmmc(), info.feature_video()})
            EXPECT_EQ(found, feature);
        EXPECT_TRUE(info.upTime() == seconds && info.idleTime() == seconds && info.fullVersion() == text);
        EXPECT_EQ(info["feature_rtc"], numeric ? stored : Variant(false));
        EXPECT_EQ(info["idleTime"], numeric ? stored : Variant(0));
        EXPECT_EQ(info["fullVersion"], Variant(text));
    };
    check(Variant(), 0, 0.0, "");
    check(300, 44, 300.0, "");
    check(2.75, 2, 2.75, "");
    check(true, 0, 0.0, "");
    check("1", 0, 0.0, "1");
}

}  // namespace
