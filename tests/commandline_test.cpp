#include "korvo/variant_utils/commandline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

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

std::string help(Variant options) {
    testing::internal::CaptureStdout();
    PrintHelp("cam", options);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(CommandLine, HelpListsDeclarationsInOrderWithDefaultsByType) {
    test::inEveryLocale([] {
        Variant options;
        AddParameter(options, 'p', "port", "Listening port", 554);
        AddParameter(options, 'v', "verbose", "Say more", true);
        AddParameter(options, 'g', "gain", "Gain", 0.5);
        AddParameter(options, 'n', "name", "Name", "cam");
        AddParameter(options, 'c', "config", "File", Variant());
        AddParameter(options, 'u', "limit", "Limit", ~0ULL);
        AddParameter(options, 'p', "port", "Again", -1e300);
        const std::string text = help(options);
        EXPECT_EQ(text.substr(0, text.find("\t-p\t--port [=-1")),
                  "cam <option>[=<value>]\n"
                  "\t-p\t--port [=554] - Listening port\n"
                  "\t-v\t--verbose [=1] - Say more\n"
                  "\t-g\t--gain [=0.500] - Gain\n"
                  "\t-n\t--name [=\"cam\"] - Name\n"
                  "\t-c\t--config - File\n"
                  "\t-u\t--limit [=-1] - Limit\n");
        EXPECT_THAT(text, testing::EndsWith(".000] - Again\n\n"));
        EXPECT_EQ(static_cast<const std::string&>(options["byLongName"]["port"]["description"]), "Again");
    });
    Variant none;
    EXPECT_EQ(help(none), "cam <option>[=<value>]\n\n");
    PrintHelp("cam", none);
    EXPECT_EQ(VariantType(none["all"]), TypeArray);
}

TEST(CommandLine, ParsesAWholeCommandLineAndKeepsWhatTheResultHeld) {
    test::LogCapture log;
    Variant options = cameraOptions();
    Variant before = options;
    before["byShortName"].IsArray(false);
    Variant result;
    result["mine"] = 1;
    result["unknownParameters"][-1] = "earlier";
    const char* arguments[] = {"/proc/self/exe", "--port=8080", "-v", "%s%n"};
    ParseCommandLine(4, arguments, options, result);
    EXPECT_EQ(options, before) << "but for the kind of byShortName";
    EXPECT_EQ(result["mine"], Variant(1));
    EXPECT_EQ(result["parameters"]["port"], Variant(8080ULL));
    EXPECT_EQ(result["parameters"]["verbose"], Variant(false));
    EXPECT_EQ(result["unknownParameters"][1], Variant("%s%n"));
    EXPECT_EQ(result["commandLine"]["executed"], Variant("/proc/self/exe"));
    EXPECT_EQ(result["commandLine"]["fullPath"],
              Variant(std::filesystem::read_symlink("/proc/self/exe").string()));
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].message, "unknown parameter detected: `%s%n`");
    EXPECT_EQ(lines[0].level, 4);
    EXPECT_EQ(lines[0].sourceFile + ' ' + lines[0].function, "src/commandline ParseCommandLine");

    Variant none, empty;
    ParseCommandLine(0, nullptr, none, empty);
    EXPECT_EQ(VariantType(empty["commandLine"]["fullPath"]), TypeNull);
    const char* nowhere[] = {"no/such/program"};
    ParseCommandLine(1, nowhere, none, empty);
    EXPECT_EQ(empty["commandLine"]["executed"], Variant("no/such/program"));
    EXPECT_EQ(VariantType(empty["commandLine"]["fullPath"]), TypeNull);
}

TEST(CommandLine, FindsOptionsByShortAndLongName) {
    test::LogCapture log;
    Variant options = cameraOptions();
    for (const char* argument : {"--port", "--port=", "-p", "-p="}) {
        EXPECT_EQ(parse(options, {argument})["parameters"]["port"], Variant(554)) << argument;
    }
    EXPECT_EQ(parse(options, {"-p=1", "--port=2"})["parameters"]["port"], Variant(2ULL));
    EXPECT_EQ(parse(options, {"-\xe9=x"})["parameters"]["high"], Variant("x"));
    EXPECT_TRUE(log.take().empty());

    const std::vector<const char*> unknown = {"",
                                              "-",
                                              "--",
                                              "-=x",
                                              "--=x",
                                              "-p8080",
                                              "port",
                                              "-port=1",
                                              "--Port=1",
                                              "--po",
                                              "--port/description",
                                              "--port/longName=1",
                                              "--[0]",
                                              "8080",
                                              "%s%n"};
    Variant result = parse(options, unknown);
    for (std::size_t i = 0; i < unknown.size(); ++i)
        EXPECT_EQ(result["unknownParameters"][static_cast<int>(i)], Variant(unknown[i]));
    EXPECT_EQ(result.GetKeyChain(TypeAny, "parameters", false), nullptr);
    EXPECT_EQ(log.take().size(), unknown.size());

    AddParameter(options, 'e', "", "Empty long name", 1);
    EXPECT_EQ(parse(options, {"--"})["parameters"][""], Variant(1));
}

TEST(CommandLine, ConvertsValuesByHowTheyAreWrittenInEveryLocale) {
    test::inEveryLocale([&] {
        Variant options = cameraOptions();
        for (const auto& [text, expected] : test::readCases("option_values.txt")) {
            const Variant value = parse(options, {("-p=" + text).c_str()})["parameters"]["port"];
            EXPECT_EQ(test::shown(value), expected) << text;
        }
    });
}

}  // namespace
