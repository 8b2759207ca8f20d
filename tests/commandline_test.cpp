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
    const auto help = [](Variant options) {
        testing::internal::CaptureStdout();
        PrintHelp("cam", options);
        return testing::internal::GetCapturedStdout();
    };
    test::inEveryLocale([&] {
        Variant options = cameraOptions();
        AddParameter(options, 'g', "gain", "Gain", 0.5);
        AddParameter(options, 'n', "name", "Name", "cam");
        AddParameter(options, 'u', "limit", "Limit", ~0ULL);
        AddParameter(options, 'p', "port", "Again", -1e300);
        const std::string text = help(options);
        EXPECT_EQ(
            text.substr(0, text.find("\t-p\t--port [=-1")),
            "cam <option>[=<value>]\n\t-p\t--port [=554] - Listening port\n"
            "\t-v\t--verbose [=1] - Say more\n\t-\xe9\t--high - Short name above ASCII\n"
            "\t-g\t--gain [=0.500] - Gain\n\t-n\t--name [=\"cam\"] - Name\n\t-u\t--limit [=-1] - Limit\n");
        EXPECT_THAT(text, testing::EndsWith(".000] - Again\n\n"));
    });
    EXPECT_EQ(help(Variant()), "cam <option>[=<value>]\n\n");
}

TEST(CommandLine, ParsesAWholeCommandLineAndKeepsWhatTheResultHeld) {
    test::LogCapture log;
    Variant options = cameraOptions(), before = options, result;
    before["byShortName"].IsArray(false);
    result["mine"] = 1;
    result["unknownParameters"][-1] = "earlier, and too long for the small string optimisation";
    const char* arguments[] = {
        "/proc/self/exe", "--port=8080", nullptr, "-v", "-p=9", result["unknownParameters"][0]};
    ParseCommandLine(6, arguments, options, result);
    const test::LogLine warning = log.take().at(0);
    EXPECT_EQ(warning.sourceFile + ", " + warning.function, "src/commandline, ParseCommandLine");
    EXPECT_EQ(warning.level, korvo::logger::LevelWarning);
    EXPECT_EQ(options, before) << "but for the kind of byShortName";
    EXPECT_EQ(test::shown(result),
              "map commandLine.executed=/proc/self/exe\ncommandLine.fullPath=" +
                  std::filesystem::read_symlink("/proc/self/exe").string() +
                  "\nmine=1\nparameters.port=9\nparameters.verbose=1\nunknownParameters.0=" + arguments[5] +
                  "\nunknownParameters.1=" + arguments[5]);
    ParseCommandLine(0, nullptr, options, result);
    ParseCommandLine(0, {}, options, result);
    EXPECT_EQ(result["commandLine"]["executed"], Variant());
    EXPECT_EQ(parse(options, {})["commandLine"]["fullPath"], Variant()) << "there is no such program";
}

TEST(CommandLine, FindsOptionsByNameAndConvertsValuesByHowTheyAreWrittenInEveryLocale) {
    test::LogCapture log;
    Variant options = cameraOptions();
    AddParameter(options, 't', "twice", "Replaced", 1);
    AddParameter(options, 'e', "twice", "Counts", 2);
    options["byLongName"]["unfinished"]["longName"] = "unfinished";
    test::inEveryLocale([&] {
        for (const char* table : {"options.txt", "option_values.txt"})
            for (const auto& [argument, expected] : test::readCases(table)) {
                const char* const arguments[] = {"cam", nullptr, argument.c_str()};
                Variant result = parse(options, {argument.c_str()});
                std::string given;
                for (const auto& [name, value] : result["parameters"]) {
                    const std::string longName(name), typed = argument.substr(argument.find('=') + 1);
                    given = longName + ' ' + test::shown(value);
                    EXPECT_EQ(OptionValue(options, result, longName.c_str()), value);
                    EXPECT_THAT(OptionTexts(3, arguments, options, longName.c_str()),
                                testing::ElementsAre(typed == argument ? "" : typed));
                }
                const bool unknown = given.empty();
                EXPECT_EQ(unknown ? "unknown" : given, expected);
                EXPECT_EQ(result["unknownParameters"][0], unknown ? Variant(argument) : Variant());
                EXPECT_EQ(log.messages(), unknown ? "unknown parameter detected: `" + argument + "`" : "");
            }
    });
    AddParameter(options, 'e', "", "Empty long name", 1);
    EXPECT_EQ(parse(options, {"--"})["parameters"][""], Variant(1));
}

TEST(CommandLine, DeclarationsMayBeTextsOfTheOneThatTheyReplace) {
    Variant options;
    AddParameter(options, 'a', "a name too long for the small string optimisation", "What it is", 1);
    const Variant declared = options["byLongName"];
    Variant& record = options["byShortName"]['a'];
    AddParameter(options, 'a', record["longName"], record["description"], record["defaultValue"]);
    EXPECT_EQ(options["byLongName"], declared);
}

TEST(CommandLine, ReadsOptionsThatAreDeclared) {
    test::LogCapture log;
    Variant options = cameraOptions();
    const Variant result = parse(options, {"--port=1", "--/x"}), declared = options;
    EXPECT_EQ(OptionValue(options, parse(options, {}), "port"), Variant(554));
    for (const char* name : {"", "none", "/x", "port/description", "p"})
        EXPECT_EQ(OptionValue(options, result, name), Variant()) << name;
    EXPECT_EQ(OptionValue(Variant(), result, "port"), Variant()) << "given, but not declared";
    EXPECT_EQ(options, declared) << "a look-up made something";
    const char* const arguments[] = {"-p=0", "-p=1", "-v=2", "--port==3", "port=4"};
    EXPECT_THAT(OptionTexts(5, arguments, options, "port"), testing::ElementsAre("1", "=3"));
}

}  // namespace
