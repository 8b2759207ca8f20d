#include "korvo/variant_utils/commandline.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "support/cases.h"
#include "support/locales.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

Variant cameraOptions() {
    Variant options;
    AddParameter(options, 'p', "port", "Listening port", 554);
    AddParameter(options, 'v', "verbose", "Say more", true);
    AddParameter(options, '\xe9', "high", "Short name above ASCII", Variant());
    return options;
}

Variant parse(Variant& options, std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "./cam");
    Variant result;
    ParseCommandLine(static_cast<int>(arguments.size()), arguments.data(), options, result);
    return result;
}

TEST(CommandLine, HelpListsDeclarationsInOrderWithDefaultsByType) {
    Variant options = cameraOptions(), none;
    AddParameter(options, 'g', "gain", "Gain", 0.5);
    AddParameter(options, 'n', "name", "Name", "cam");
    AddParameter(options, 'p', "port", "Again", ~0ULL);
    test::inEveryLocale([&] {
        testing::internal::CaptureStdout();
        PrintHelp("cam", options);
        PrintHelp("bare", none);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "cam <option>[=<value>]\n\t-p\t--port [=554] - Listening port\n"
                  "\t-v\t--verbose [=1] - Say more\n\t-\xe9\t--high - Short name above ASCII\n"
                  "\t-g\t--gain [=0.500] - Gain\n\t-n\t--name [=\"cam\"] - Name\n"
                  "\t-p\t--port [=-1] - Again\n\nbare <option>[=<value>]\n\n");
    });
}

TEST(CommandLine, ParsesAWholeCommandLineAndKeepsWhatTheResultHeld) {
    test::LogCapture log;
    Variant options = cameraOptions(), before = options, result;
    before["byShortName"].IsArray(false);
    result["mine"] = 1;
    result["unknownParameters"][-1] = "earlier, and too long for the small string optimisation";
    const auto earlier = result["unknownParameters"][0].As<std::string>();
    const char* arguments[] = {
        "/proc/self/exe", "-p=8", nullptr, "-v", "-p=9", result["unknownParameters"][0]};
    ParseCommandLine(6, arguments, options, result);
    EXPECT_EQ(log.messages(), "unknown parameter detected: `" + earlier + "`");
    EXPECT_EQ(options, before) << "but for the kind of byShortName";
    EXPECT_EQ(test::shown(result),
              "map commandLine.executed=/proc/self/exe\ncommandLine.fullPath=" +
                  std::filesystem::read_symlink("/proc/self/exe").string() +
                  "\nmine=1\nparameters.port=9\nparameters.verbose=1\nunknownParameters.0=" + earlier +
                  "\nunknownParameters.1=" + earlier);
    ParseCommandLine(0, arguments, options, result);
    EXPECT_EQ(result["commandLine"]["executed"], Variant());
    EXPECT_EQ(parse(options, {})["commandLine"]["fullPath"], Variant()) << "there is no such program";
}

TEST(CommandLine, FindsOptionsByNameAndConvertsValuesByHowTheyAreWrittenInEveryLocale) {
    test::LogCapture log;
    Variant options = cameraOptions();
    AddParameter(options, 'l', "", "Empty long name", 1);
    AddParameter(options, 't', "a name too long for the small string optimisation", "Replaced", 1);
    Variant& replaced = options["byShortName"]['t'];
    AddParameter(options, 't', replaced["longName"], replaced["description"], replaced["defaultValue"]);
    options["byLongName"]["unfinished"]["longName"] = "unfinished";
    test::inEveryLocale([&] {
        for (const auto& [argument, expected] : test::readCases("options.txt")) {
            Variant result = parse(options, {argument.c_str()});
            std::string given = "unknown";
            for (const auto& [name, value] : result["parameters"])
                given = std::string(name) + ' ' + test::shown(value);
            EXPECT_EQ(given, expected);
            EXPECT_EQ(log.take().size(), result["unknownParameters"].Size());
        }
    });
}

TEST(CommandLine, ReadsOptionsThatAreDeclared) {
    test::LogCapture log;
    Variant options = cameraOptions();
    const Variant result = parse(options, {"--port=1", "--/x"}), declared = options;
    EXPECT_EQ(OptionValue(options, result, "port"), Variant(1ULL));
    EXPECT_EQ(OptionValue(options, Variant(), "port"), Variant(554));
    for (const char* name : {"", "none", "/x", "port/description", "p"})
        EXPECT_EQ(OptionValue(options, result, name), Variant()) << name;
    EXPECT_EQ(OptionValue(Variant(), result, "port"), Variant()) << "given, but not declared";
    EXPECT_EQ(options, declared) << "a look-up made something";
    const char* const arguments[] = {"-p=0", "-p=1", nullptr, "-v=2", "--port==3", "port=4", "-p"};
    EXPECT_THAT(OptionTexts(7, arguments, options, "port"), testing::ElementsAre("1", "=3", ""));
}

}  // namespace
