#include "korvo/variant_utils/camerainfo.h"

#include <gtest/gtest.h>
#include <locale.h>

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

const std::map<std::string, std::string> healthyFiles = {
    {"etc/board.info",
     "board.hwaddr=021b2ca1B2c3\r\nfeature_mic=1\nfeature_rtc=-1\nfeature_sdmmc=1\nfeature_video=1\n"
     "feature_wifi=1\nboard.name=KV2\n"},
    {"proc/sys/kernel/hostname", " camera-7\t\nsecond line\n"},
    {"proc/uptime", "100.00 25.00 7\n1 1\n"},
    {"lib/version", "\nAB1.xyz.v4.0.1.34.4f2a1b3.170101.1200\n\n"}};

/** In the order in which Init() comes to them. */
const char healthyRecord[] =
    "name=KV2|hwaddr=021b2ca1B2c3|feature_sdmmc=1|feature_mic=1|feature_video=1|feature_ir=0|feature_rtc=-1|"
    "feature_wifi=1|hostName=camera-7|upTime=100.0|idleTime=25.0|totalLoad=0.75|"
    "fullVersion=AB1.xyz.v4.0.1.34.4f2a1b3.170101.1200|version=AB1.v4.0.1.34.4f2a1b3.170101.1200|"
    "deviceModel=AB1|protocolVer=34|hwaddrColons=02:1b:2c:a1:B2:c3";

/** The record's key=value text after the healthy one's members up to one, with differences. */
std::string expectedRecord(const std::string& lastMember, const std::vector<std::string>& differences) {
    std::map<std::string, std::string> members;
    const auto take = [&](const std::string& member) {
        const std::string key = member.substr(0, member.find('='));
        members[key] = member;
        if (key == member) members.erase(key);
        return key;
    };
    for (const std::string& member : test::fields(lastMember == "none" ? "earlier=1" : healthyRecord))
        if (take(member) == lastMember) break;
    for (const std::string& member : differences) take(member);
    std::string text;
    for (const auto& member : members) text += member.second + '\n';
    return text;
}

/** The healthy device, but for one file. */
struct DeviceBut : test::Device {
    DeviceBut(const std::string& differentFile, const std::string* content) {
        for (const auto& [name, text] : healthyFiles) {
            if (name != differentFile) write(name, text);
        }
        std::string text = content != nullptr ? *content : "";
        korvo::utils::replaceAll(text, "HEALTHY", healthyFiles.at("etc/board.info"));
        if (content != nullptr) write(differentFile, text);
    }
};

TEST(CameraInfo, GathersWhatEachSampleDeviceHasInEveryLocale) {
    test::LogCapture log;
    test::inEveryLocale([&] {
        for (const auto& [sample, expected] : test::readCases("devices.txt")) {
            SCOPED_TRACE(sample);
            const auto file = test::fields(sample);
            const DeviceBut device(file[0], file.size() > 1 ? &file[1] : nullptr);
            const auto outcome = test::fields(expected);
            CameraInfo info;
            info["earlier"] = 1;
            errno = EDOM;
            EXPECT_EQ(info.Init(), outcome[0] == "all");
            std::string text;
            EXPECT_TRUE(info.ToKVP(text, "=", "\n"));
            EXPECT_EQ(text, expectedRecord(outcome[0], {outcome.begin() + 2, outcome.end()}));
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
            const DeviceBut device("lib/version", &version);
            CameraInfo info;
            EXPECT_EQ(info.Init(), protocol != "no match") << version;
            EXPECT_EQ(info["fullVersion"], Variant(version));
            const auto found = std::to_string(static_cast<long long>(info["protocolVer"]));
            EXPECT_EQ(found, protocol == "no match" ? "0" : protocol) << version;
        }
    });
}

TEST(CameraInfoAccessors, ReturnTheMemberOrLeaveADefaultInItsPlace) {
    using Info = CameraInfo;
    const auto check = [](const Variant& stored, int feature, double seconds, const std::string& text) {
        SCOPED_TRACE(test::shown(stored));
        const bool numeric = (static_cast<VariantType>(stored) & TypeNumeric) != 0;
        CameraInfo info;
        for (const auto& [key, get] :
             {std::pair("feature_mic", &Info::feature_mic), std::pair("feature_ir", &Info::feature_ir),
              std::pair("feature_rtc", &Info::feature_rtc), std::pair("feature_wifi", &Info::feature_wifi),
              std::pair("feature_sdmmc", &Info::feature_sdmmc),
              std::pair("feature_video", &Info::feature_video)}) {
            info[key] = stored;
            EXPECT_EQ((info.*get)(), feature) << key;
            EXPECT_EQ(info[key], numeric ? stored : Variant(false)) << key;
        }
        info["upTime"] = info["idleTime"] = info["fullVersion"] = stored;
        EXPECT_TRUE(info.upTime() == seconds && info.idleTime() == seconds);
        EXPECT_EQ(info["idleTime"], numeric ? stored : Variant(0));
        EXPECT_EQ(info.fullVersion(), text);
        EXPECT_EQ(info["fullVersion"], Variant(text));
    };
    check(Variant(), 0, 0.0, "");
    check(300, 44, 300.0, "");
    check(2.75, 2, 2.75, "");
    check(true, 0, 0.0, "");
    check("1", 0, 0.0, "1");

    CameraInfo scalar;
    static_cast<Variant&>(scalar) = "text";
    EXPECT_EQ(scalar.upTime(), 0.0);
    EXPECT_EQ(VariantType(scalar), TypeMap);
}

}  // namespace
