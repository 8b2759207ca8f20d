// Declaring and parsing the options of a service, all of them numbers.

#include <getopt.h>
#include <korvo/variant_utils/commandline.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdlib>
#include <cxxopts.hpp>
#include <map>

#include "bench.h"

namespace {

using namespace bench;
using korvo::variant::Variant;

/** The values of options by their long names, of which each begins with its short name. */
using Options = std::map<std::string, unsigned long long>;

/** So many options, and arguments that give them. */
struct CommandLine {
    explicit CommandLine(std::size_t count) {
        // Without h, which CLI11 takes for its help.
        for (const char letter : std::string("abcdefgijklmnopqrstuvwxyzABCDEFGHIJKLMNOP", count)) {
            const std::string name = letter + std::string("-port");
            declared[name] = 554;
            arguments.push_back("--" + name + "=" + std::to_string(8000 + letter));
        }
        for (const std::string& argument : arguments) argv.push_back(argument.c_str());
        argv.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(argv.size()) - 1; }

    Options declared;
    std::vector<std::string> arguments;
    std::vector<const char*> argv{"/bin/sh"};
};

Variant parse(CommandLine& line) {
    Variant definitions, result;
    for (const auto& [name, value] : line.declared)
        AddParameter(definitions, name[0], name.c_str(), "A port", value);
    ParseCommandLine(line.argc(), line.argv.data(), definitions, result);
    return result;
}

Options parseWithGetopt(const CommandLine& line) {
    Options found = line.declared;
    std::vector<option> options;
    for (const auto& [name, value] : found)
        options.push_back({name.c_str(), required_argument, nullptr, name[0]});
    options.push_back({});
    ::optind = 0;
    char* const* argv = const_cast<char* const*>(line.argv.data());
    for (int i = 0; ::getopt_long(line.argc(), argv, "", options.data(), &i) != -1;)
        found[options[static_cast<std::size_t>(i)].name] = std::strtoull(::optarg, nullptr, 0);
    return found;
}

Options parseWithCli11(const CommandLine& line) {
    Options found = line.declared;
    CLI::App app("A service");
    for (auto& [name, value] : found) app.add_option("-" + name.substr(0, 1) + ",--" + name, value, "A port");
    app.parse(line.argc(), line.argv.data());
    return found;
}

Options parseWithCxxopts(const CommandLine& line) {
    Options found = line.declared;
    cxxopts::Options options("service", "A service");
    for (auto& [name, value] : found)
        options.add_options()(name.substr(0, 1) + "," + name, "A port", cxxopts::value(value));
    options.parse(line.argc(), line.argv.data());
    return found;
}

}  // namespace

void bench::addCommandLineRows() {
    const char work[] = "command line, declare and parse";
    const std::pair<const char*, Options (*)(const CommandLine&)> peers[] = {
        {"getopt_long", parseWithGetopt}, {"CLI11", parseWithCli11}, {"cxxopts", parseWithCxxopts}};
    for (const int count : {4, 40}) {
        const auto line = std::make_shared<CommandLine>(count);
        add(work, ours, count, [line] { benchmark::DoNotOptimize(parse(*line)); });
        for (const auto& [who, run] : peers) {
            const Variant expected = parse(*line);
            for (const auto& [name, value] : run(*line))
                require(expected["parameters"][name] == value, std::string(who) + " found another " + name);
            add(work, who, count, [line, run = run] {
                char fullPath[PATH_MAX];  // is a part of our result, so all find it out
                benchmark::DoNotOptimize(::realpath(line->argv[0], fullPath));
                benchmark::DoNotOptimize(run(*line));
            });
        }
    }
}
