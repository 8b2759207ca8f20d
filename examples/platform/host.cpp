// Uses each facility once on this platform: ./host DEVICE_ROOT

#include <korvo/variant_utils/camerainfo.h>
#include <korvo/variant_utils/commandline.h>
#include <korvo/variant_utils/system_cfg.h>
#include <korvo/variant_utils/uri.h>

#include <cstdio>
#include <string>

extern std::string deviceRoot;
extern int messages;

using namespace korvo::variant;

namespace {

int failures = 0;
void expect(bool so, const char* what) {
    if (!so) std::printf("not so: %s\n", what);
    failures += so ? 0 : 1;
}
#define EXPECT(condition) expect(condition, #condition)

}  // namespace

int main(int /*argc*/, const char** argv) {
    deviceRoot = argv[1];
    Variant options, given, port;
    port = 554;
    AddParameter(options, 'p', "port", "Port", port);
    const char* arguments[] = {argv[0], "--port=8554", "-p", "stray"};
    ParseCommandLine(4, arguments, options, given);
    PrintHelp("host", options);
    EXPECT(static_cast<int>(given["parameters"]["port"]) == 554);
    EXPECT(static_cast<const std::string&>(given["unknownParameters"][0LL]) == "stray" && messages == 1);

    URI uri;
    EXPECT(URI::FromString("rtsp://u:p@h:8554/live/ch0?a=1", true, uri) && uri.port() == 8554);
    EXPECT(uri.derivedURI("ch1?", true) == "rtsp://u:p@h:8554/live/ch1?a=1");
    EXPECT(static_cast<const std::string&>(uri["parameters"]["a"]) == "1");

    CameraInfo info;
    EXPECT(info.Init() && static_cast<const std::string&>(info["deviceModel"]) == "KV2D4");

    SystemCfgManager store;
    std::string value;
    EXPECT(store.init() && store.set("network.rtsp.port", "1", nullptr) && store.close(true, false));
    EXPECT(store.init() && store.get("network.rtsp.port", &value, nullptr) && value == "1");
    // On some platforms an index component finds a key of digits too.
    EXPECT(store.set("sensor.8", "on", nullptr) && store.set("sensor.8", "off", nullptr));
    EXPECT(store.get("sensor.8", &value, nullptr) && value == "off");
    EXPECT(store.get("system.flash.cycles", &value, nullptr) && store.close(false, false));
    return failures != 0;
}
