// Declaring 40 options of a service, all of them numbers, parsing a command line that gives each, reading them.

#include "korvo/variant_utils/commandline.h"

#include <getopt.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdlib>
#include <map>

#include "bench.h"

namespace {

using namespace bench;
using korvo::variant::Variant;

/** The values of options by their long names, of which each begins with its short name. */
using Options = std::map<std::string, unsigned long long>;

Options declared;
std::vector<std::string> arguments{"/bin/sh"};
std::vector<const char*> argv;

int argc() { return static_cast<int>(arguments.size()); }

void makeCommandLine() {
    // Without h, which CLI11 takes for its help.
    for (const char letter : std::string("abcdefgijklmnopqrstuvwxyzABCDEFGHIJKLMNO")) {
        declared[letter + std::string("-port")] = 554;
        arguments.push_back(std::string("--") + letter + "-port=" + std::to_string(letter));
    }
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    argv.push_back(nullptr);
}

Variant declare() {
    Variant options;
    for (const auto& [name, value] : declared) AddParameter(options, name[0], name.c_str(), "A port", value);
    return options;
}

Variant parse(Variant options) {
    Variant result;
    ParseCommandLine(argc(), argv.data(), options, result);
    return result;
}

Options parseWithGetopt() {
    Options found = declared;
    std::vector<option> options;
    for (const auto& [name, value] : found)
        options.push_back({name.c_str(), required_argument, nullptr, name[0]});
    options.push_back({});
    ::optind = 0;
    char* const* mutableArgv = const_cast<char* const*>(argv.data());
    for (int i = 0; ::getopt_long(argc(), mutableArgv, "", options.data(), &i) != -1;)
        found[options[static_cast<std::size_t>(i)].name] = std::strtoull(::optarg, nullptr, 0);
    return found;
}

Options parseWithCli11() {
    Options found = declared;
    CLI::App app("A service");
    for (auto& [name, value] : found) app.add_option("-" + name.substr(0, 1) + ",--" + name, value, "A port");
    app.parse(argc(), argv.data());
    return found;
}

void addPeer(const std::string& work, const std::string& who, Options (*parseAll)()) {
    const Variant result = parse(declare());
    for (const auto& [name, value] : parseAll())
        require(result["parameters"][name] == value && value != 554, who + " found another " + name);
    add(work, who, [parseAll] {
        return [parseAll] {
            char fullPath[PATH_MAX];  // is a part of our result, so all find it out
            benchmark::DoNotOptimize(::realpath(argv[0], fullPath));
            return parseAll();
        };
    });
}

/** Adds reading each option, beside one parse of the same command line. */
template <class Read>
void addReading(const std::string& work, Read read) {
    add(work, "one parse", [] { return [options = declare()] { return parse(options); }; });
    add(work, "ours", [read] {
        return [read, options = declare(), result = parse(declare())] {
            for (const auto& option : declared)
                benchmark::DoNotOptimize(read(options, result, option.first.c_str()));
            return 0;
        };
    });
}

}  // namespace

void bench::addCommandLineRows() {
    makeCommandLine();
    const char work[] = "declare 40 options and parse them";
    add(work, "ours", [] { return [] { return parse(declare()); }; });
    addPeer(work, "getopt_long", parseWithGetopt);
    addPeer(work, "CLI11", parseWithCli11);
    addReading("read 40 options with OptionValue", korvo::variant::OptionValue);
    addReading("read 40 options with OptionTexts",
               [](const Variant& options, const Variant&, const char* name) {
                   return OptionTexts(argc(), argv.data(), options, name);
               });
}
