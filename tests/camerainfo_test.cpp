#include "korvo/variant_utils/camerainfo.h"

#include <gtest/gtest.h>

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
    const auto check = [](const Variant& stored, int feature, double seconds, const std::string& left) {
        CameraInfo info;
        info["feature_ir"] = info["upTime"] = info["idleTime"] = info["fullVersion"] = stored;
        EXPECT_TRUE(info.feature_ir() == feature && info.upTime() == seconds && info.idleTime() == seconds);
        EXPECT_EQ(info.fullVersion(), static_cast<const std::string&>(stored));
        EXPECT_EQ(test::shown(info), "1010 " + left);
    };
    check(300, 44, 300.0, "feature_ir=300\nfullVersion=\nidleTime=300\nupTime=300");
    check(2.75, 2, 2.75, "feature_ir=2.75\nfullVersion=\nidleTime=2.75\nupTime=2.75");
    check(true, 0, 0.0, "feature_ir=0\nfullVersion=\nidleTime=0\nupTime=0");
    check("1", 0, 0.0, "feature_ir=0\nfullVersion=1\nidleTime=0\nupTime=0");
}

}  // namespace
