// Declaring and parsing the options of a service: numbers, fractions, texts and switches in equal parts. The
// program's full path is found out on each side, since that is part of the result.

#include <getopt.h>
#include <korvo/variant_utils/commandline.h>

#include <CLI/CLI.hpp>
#include <boost/program_options.hpp>
#include <climits>
#include <cstdlib>
#include <cxxopts.hpp>

#include "bench.h"

namespace bench {
namespace {

using korvo::variant::Variant;

/** What an option is set to, of the option's type; bool is for switches. */
using Value = std::variant<unsigned long long, double, std::string, bool>;

/** The values by long name, and the program's full path under the empty one. */
using Values = std::map<std::string, Value>;

struct Option {
    std::string name;
    char letter;
    Value value;           ///< what it is without the argument
    std::string argument;  ///< given without one where it is a switch
};

/** The options, and arguments that give each of them. */
struct CommandLine {
    explicit CommandLine(int count) {
        // Without h, which CLI11 takes for its help.
        static const char letters[] = "abcdefgijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
        static const Option kinds[] = {{"port", 0, 1ULL, "=8080"},
                                       {"scale", 0, 1.5, "=2.5"},
                                       {"device", 0, "none", "=/dev/video0"},
                                       {"verbose", 0, false, ""}};
        for (int i = 0; i < count; ++i) {
            Option option = kinds[i % 4];
            option.name += std::to_string(i / 4);
            option.letter = letters[i];
            option.argument = "--" + option.name + option.argument;
            options.push_back(option);
        }
        for (const Option& option : options) argv.push_back(option.argument.c_str());
        argv.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(argv.size()) - 1; }

    std::vector<Option> options;
    std::vector<const char*> argv{"/bin/sh"};
};

/** The values without arguments, which a peer fills, and the path, which no peer finds out. */
Values initialValues(const CommandLine& line) {
    Values values;
    for (const Option& option : line.options) values[option.name] = option.value;
    char path[PATH_MAX];
    values[""] = ::realpath(line.argv[0], path);
    return values;
}

Variant parse(const CommandLine& line) {
    Variant definitions, result;
    for (const Option& option : line.options) {
        const auto declare = [&](const auto& value) {
            AddParameter(definitions, option.letter, option.name.c_str(), "An option", value);
        };
        std::visit(declare, option.value == Value(false) ? Value(true) : option.value);
    }
    ParseCommandLine(line.argc(), const_cast<const char**>(line.argv.data()), definitions, result);
    return result;
}

/** What parse() has found, as a peer gives it. */
Values asValues(Variant found, const CommandLine& line) {
    Values values;
    for (const Option& option : line.options) {
        const auto read = [&](auto held) -> Value {
            return found["parameters"][option.name].As<decltype(held)>();
        };
        values[option.name] = std::visit(read, option.value);
    }
    values[""] = found["commandLine"]["fullPath"].As<std::string>();
    return values;
}

Values parseWithGetopt(const CommandLine& line) {
    Values values = initialValues(line);
    std::vector<option> declared;
    for (const Option& option : line.options) {
        const bool isSwitch = std::holds_alternative<bool>(option.value);
        const int argument = isSwitch ? optional_argument : required_argument;
        declared.push_back({option.name.c_str(), argument, nullptr, option.letter});
    }
    declared.push_back({});
    ::optind = 0;
    int index = 0;
    while (::getopt_long(line.argc(), const_cast<char* const*>(line.argv.data()), "", declared.data(),
                         &index) != -1) {
        Value& value = values[declared[static_cast<std::size_t>(index)].name];
        if (auto* number = std::get_if<unsigned long long>(&value))
            *number = std::strtoull(::optarg, nullptr, 0);
        if (auto* fraction = std::get_if<double>(&value)) *fraction = std::strtod(::optarg, nullptr);
        if (auto* text = std::get_if<std::string>(&value)) *text = ::optarg;
        if (auto* given = std::get_if<bool>(&value)) *given = true;
    }
    return values;
}

/** Calls @p declare with each option and where its value is to go. */
template <class Declare>
void forEachOption(const CommandLine& line, Values& values, Declare declare) {
    for (const Option& option : line.options)
        std::visit([&](auto& value) { declare(option, value); }, values[option.name]);
}

Values parseWithCli11(const CommandLine& line) {
    Values values = initialValues(line);
    CLI::App app("A service");
    forEachOption(line, values, [&](const Option& option, auto& value) {
        const std::string names = std::string("-") + option.letter + ",--" + option.name;
        if constexpr (std::is_same_v<decltype(value), bool&>) {
            app.add_flag(names, value, "A switch");
        } else {
            app.add_option(names, value, "An option");
        }
    });
    app.parse(line.argc(), line.argv.data());
    return values;
}

Values parseWithCxxopts(const CommandLine& line) {
    Values values = initialValues(line);
    cxxopts::Options options("service", "A service");
    forEachOption(line, values, [&](const Option& option, auto& value) {
        options.add_options()(std::string(1, option.letter) + "," + option.name, "An option",
                              cxxopts::value(value));
    });
    options.parse(line.argc(), line.argv.data());
    return values;
}

Values parseWithBoost(const CommandLine& line) {
    namespace po = boost::program_options;
    Values values = initialValues(line);
    po::options_description options("A service");
    forEachOption(line, values, [&](const Option& option, auto& value) {
        auto* receiver = po::value(&value);
        if constexpr (std::is_same_v<decltype(value), bool&>) receiver->implicit_value(true);
        options.add_options()((option.name + "," + option.letter).c_str(), receiver, "An option");
    });
    po::variables_map found;
    po::store(po::parse_command_line(line.argc(), line.argv.data(), options), found);
    po::notify(found);
    return values;
}

}  // namespace

void addCommandLineRows() {
    const char work[] = "command line, declare and parse";
    const std::pair<const char*, Values (*)(const CommandLine&)> peers[] = {
        {"getopt_long", parseWithGetopt},
        {"CLI11", parseWithCli11},
        {"cxxopts", parseWithCxxopts},
        {"Boost.Program_options", parseWithBoost}};
    for (const int count : {4, 40}) {
        const auto line = std::make_shared<CommandLine>(count);
        add(work, ours, count, [line] { benchmark::DoNotOptimize(parse(*line)); });
        for (const auto& [who, parseWithPeer] : peers) {
            require(parseWithPeer(*line) == asValues(parse(*line), *line),
                    std::string(who) + " found other values");
            add(work, who, count, [line, run = parseWithPeer] { benchmark::DoNotOptimize(run(*line)); });
        }
    }
}

}  // namespace bench
