#include "korvo/variant_utils/camerainfo.h"

#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>

#include "support/cases.h"
#include "support/device.h"
#include "support/locales.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

using Fields = std::vector<std::string>;

/** The key=value text of the healthy record up to the last member gathered, with what differs. */
std::string expectedRecord(const Fields& healthy, const Fields& outcome) {
    Variant record;
    const auto take = [&](const std::string& member) {
        const std::string key = member.substr(0, member.find('='));
        record[key] = key == member ? Variant() : Variant(member.substr(key.size() + 1));
        return key == outcome[0];
    };
    if (outcome[0] != "none") (void)std::find_if(healthy.begin() + 2, healthy.end(), take);
    std::for_each(outcome.begin() + 2, outcome.end(), take);
    return test::shown(record);
}

struct Device : test::Device {
    /** Puts files FILE|CONTENT|... in place, and takes away one without content. */
    void put(const Fields& files) const {
        for (std::size_t i = 0; i + 1 < files.size(); i += 2) write(files[i], files[i + 1]);
        if (files.size() % 2 != 0) std::filesystem::remove(path() / files.back());
    }
};

TEST(CameraInfo, GathersWhatEachSampleDeviceHasInEveryLocale) {
    test::LogCapture log;
    const auto cases = test::readCases("devices.txt");
    test::inEveryLocale([&] {
        for (const auto& [sample, expected] : cases) {
            SCOPED_TRACE(sample);
            const Device device;
            device.put(test::fields(cases[0].first));
            device.put(test::fields(sample));
            const Fields outcome = test::fields(expected);
            CameraInfo info;
            info["earlier"] = 1;
            errno = EDOM;
            EXPECT_EQ(info.Init(), outcome[0] == "all");
            EXPECT_EQ(test::shown(info), expectedRecord(test::fields(cases[0].second), outcome));
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
            const Device device;
            device.put(test::fields(test::readCases("devices.txt")[0].first));
            device.put({"lib/version", version});
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
    check(300, 44, 300.0, "");
    check(2.75, 2, 2.75, "");
    check(true, 0, 0.0, "");
    check("1", 0, 0.0, "1");
}

}  // namespace
