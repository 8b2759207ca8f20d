#include "korvo/variant_utils/camerainfo.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <cerrno>
#include <map>
#include <vector>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/locales.h"
#include "support/log_capture.h"
#include "support/temporary_directory.h"
#include "support/variant_printer.h"

using namespace korvo::variant;
using korvo::utils::devicePath;

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

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> pieces;
    korvo::utils::split(text, "|", pieces);
    return pieces;
}

/** The record's key=value text after the healthy one's members up to one, with differences. */
std::string expectedRecord(const std::string& lastMember, const std::vector<std::string>& differences) {
    std::map<std::string, std::string> members;
    for (const std::string& member : split(lastMember == "none" ? "earlier=1" : healthyRecord)) {
        const std::string key = member.substr(0, member.find('='));
        members[key] = member.substr(key.size());
        if (key == lastMember) break;
    }
    for (const std::string& member : differences) {
        const std::string key = member.substr(0, member.find('='));
        members[key] = member.substr(key.size());
        if (key == member) members.erase(key);
    }
    std::string text;
    for (const auto& [key, value] : members) text.append(key).append(value).append("\n");
    return text;
}

/** The healthy device, but for one file. */
class Device {
  public:
    Device(const std::string& differentFile, const std::string* content) {
        korvo::utils::setDeviceRoot(directory.path().string());
        for (const auto& [name, text] : healthyFiles) {
            if (name != differentFile) directory.write(name, text);
        }
        std::string text = content != nullptr ? *content : "";
        korvo::utils::replaceAll(text, "HEALTHY", healthyFiles.at("etc/board.info"));
        if (content != nullptr) directory.write(differentFile, text);
    }
    ~Device() { korvo::utils::setDeviceRoot(""); }

  private:
    test::TemporaryDirectory directory;
};

TEST(CameraInfo, GathersWhatEachSampleDeviceHasInEveryLocale) {
    test::LogCapture log;
    test::inEveryLocale([&] {
        for (const auto& [sample, expected] : test::readCases("devices.txt")) {
            SCOPED_TRACE(sample);
            const std::size_t bar = sample.find('|');
            const std::string content = bar != std::string::npos ? sample.substr(bar + 1) : "";
            const Device device(sample.substr(0, bar), bar != std::string::npos ? &content : nullptr);
            std::vector<std::string> outcome = split(expected);
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
            EXPECT_EQ(lines[0].message, outcome[1]);
            EXPECT_EQ(lines[0].sourceFile + ' ' + lines[0].function, "src/camerainfo Init");
            EXPECT_EQ(lines[0].errorCode, outcome[0] == "deviceModel" ? EDOM : 0);
        }
    });
}

TEST(CameraInfo, TheFirmwareVersionMustHaveItsFormInEveryLocale) {
    test::LogCapture log;
    test::inEveryLocale([&] {
        for (const auto& [version, protocol] : test::readCases("firmware_versions.txt")) {
            const Device device("lib/version", &version);
            CameraInfo info;
            EXPECT_EQ(info.Init(), protocol != "no match") << version;
            EXPECT_EQ(info["fullVersion"], Variant(version));
            const auto found = std::to_string(static_cast<long long>(info["protocolVer"]));
            EXPECT_EQ(found, protocol == "no match" ? "0" : protocol) << version;
        }
    });
}

TEST(CameraInfo, TheSampleDeviceIsInOrder) {
    korvo::utils::setDeviceRoot(SAMPLE_DEVICE);
    CameraInfo info;
    EXPECT_TRUE(info.Init());
    EXPECT_EQ(info["protocolVer"], Variant(34U));
    EXPECT_EQ(static_cast<const std::string&>(info["hwaddrColons"]).size(), 17U);

    std::string text, written;
    ASSERT_TRUE(korvo::utils::File::ReadStringAll(devicePath("/tmp/system.cfg"), text));
    Variant configuration;
    EXPECT_TRUE(configuration.FromKVP(text, true, true, true) && configuration.ToKVP(written, "=", "\n"));
    EXPECT_EQ(written, text) << "keep it sorted, so that a write changes nothing but what was set";
    korvo::utils::setDeviceRoot("");
}

TEST(CameraInfoAccessors, ReturnTheMemberOrLeaveADefaultInItsPlace) {
    const auto check = [](const Variant& stored, int feature, double seconds, const std::string& text) {
        SCOPED_TRACE(test::shown(stored));
        const VariantType type = stored;
        const bool numeric = (type & TypeNumeric) != 0;
        CameraInfo info;
        const std::map<const char*, signed char> features = {
            {"feature_mic", (info["feature_mic"] = stored, info.feature_mic())},
            {"feature_ir", (info["feature_ir"] = stored, info.feature_ir())},
            {"feature_rtc", (info["feature_rtc"] = stored, info.feature_rtc())},
            {"feature_wifi", (info["feature_wifi"] = stored, info.feature_wifi())},
            {"feature_sdmmc", (info["feature_sdmmc"] = stored, info.feature_sdmmc())},
            {"feature_video", (info["feature_video"] = stored, info.feature_video())}};
        for (const auto& [key, value] : features) {
            EXPECT_EQ(value, feature) << key;
            EXPECT_EQ(info[key], numeric ? stored : Variant(false)) << key;
        }
        info["upTime"] = info["idleTime"] = info["fullVersion"] = stored;
        EXPECT_EQ(info.upTime(), seconds);
        EXPECT_EQ(info.idleTime(), seconds);
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
    Variant map;
    map["upTime"] = 0;
    EXPECT_EQ(scalar, map);
}

}  // namespace
