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
    AddParameter(options, 'v', "verbose", "Say more", false);
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
            "\t-v\t--verbose [=0] - Say more\n\t-\xe9\t--high - Short name above ASCII\n"
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
    result["unknownParameters"][-1] = "earlier";
    const char* arguments[] = {"/proc/self/exe", "--port=8080", "-v", "%s%n"};
    ParseCommandLine(4, arguments, options, result);
    EXPECT_EQ(options, before) << "but for the kind of byShortName";
    EXPECT_EQ(test::shown(result), "map commandLine.executed=/proc/self/exe\ncommandLine.fullPath=" +
                                       std::filesystem::read_symlink("/proc/self/exe").string() +
                                       "\nmine=1\nparameters.port=8080\nparameters.verbose=0\n"
                                       "unknownParameters.0=earlier\nunknownParameters.1=%s%n");
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
            test::forEachCase(table, [&](const std::string& argument, const std::string& expected) {
                Variant result = parse(options, {argument.c_str()});
                std::string given;
                for (const auto& [name, value] : result["parameters"])
                    given += std::string(name) + ' ' + test::shown(value);
                const bool unknown = expected == "unknown";
                EXPECT_EQ(given, unknown ? "" : expected);
                EXPECT_EQ(result["unknownParameters"][0], unknown ? Variant(argument) : Variant());
                const std::string logged = "unknown parameter detected: `" + argument + "`";
                EXPECT_EQ(log.messages(), unknown ? logged : "");
            });
    });
    EXPECT_EQ(parse(options, {"-p=1", "--port=2"})["parameters"]["port"], Variant(2ULL));
    EXPECT_EQ(options["byShortName"][0xe9]["longName"], "high");
    AddParameter(options, 'e', "", "Empty long name", 1);
    EXPECT_EQ(parse(options, {"--"})["parameters"][""], Variant(1));
}

TEST(CommandLine, ArgumentsMayBeTextsOfWhatTheCallChangesOrNull) {
    test::LogCapture log;
    const std::string name = "a name that is too long for the small string optimisation";
    Variant options;
    AddParameter(options, 'a', name.c_str(), "What it is", 1);
    const Variant declared = options["byLongName"];
    Variant& record = options["byShortName"]['a'];
    AddParameter(options, 'a', record["longName"], record["description"], record["defaultValue"]);
    EXPECT_EQ(options["byLongName"], declared);

    Variant result = parse(options, {("-a=" + name).c_str()});
    const Variant commandLine = result["commandLine"];
    const char* arguments[] = {result["commandLine"]["executed"], "-a", nullptr, result["parameters"][name]};
    ParseCommandLine(4, arguments, options, result);
    EXPECT_EQ(result["commandLine"], commandLine);
    EXPECT_EQ(result["parameters"][name], Variant(1));
    EXPECT_EQ(log.messages(), "unknown parameter detected: `" + name + "`");
}

TEST(CommandLine, TellsWhatAnOptionIsSetToAndWhatWasTypedForIt) {
    test::LogCapture log;
    Variant options = cameraOptions();
    const Variant before = parse(options, {}), declared = options;
    const Variant result = parse(options, {"--port=010", "-v", "--/x"});
    EXPECT_EQ(OptionValue(options, before, "port"), Variant(554));
    EXPECT_EQ(OptionValue(options, result, "port"), Variant(8ULL));
    for (const char* name : {"", "none", "/x", "port/description", "p"})
        EXPECT_EQ(OptionValue(options, result, name), Variant()) << name;
    EXPECT_EQ(OptionValue(Variant(), result, "port"), Variant()) << "given, but not declared";
    EXPECT_EQ(options, declared) << "a look-up made something";

    const char* const arguments[] = {"cam",     "-p=010",         nullptr, "port=1",    "--port",
                                     "--por=2", "--port==a=\xff", "-v=1",  "--[port]=3"};
    EXPECT_THAT(OptionTexts(9, arguments, options, "port"), testing::ElementsAre("010", "", "=a=\xff", "3"));
    EXPECT_THAT(OptionTexts(0, nullptr, options, "port"), testing::IsEmpty());
}

}  // namespace
