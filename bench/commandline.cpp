// Declaring and parsing the options of a service: numbers, fractions, texts and switches in equal parts. The
// program's full path is found out on each side, since that is part of the result.

#include <getopt.h>
#include <korvo/variant_utils/commandline.h>

#include <climits>
#include <deque>
#include <map>
#include <memory>

#include "bench.h"

#ifdef KORVO_BENCH_CLI11
#include <CLI/CLI.hpp>
#endif
#ifdef KORVO_BENCH_CXXOPTS
#include <cxxopts.hpp>
#endif
#ifdef KORVO_BENCH_BOOST_PROGRAM_OPTIONS
#include <boost/program_options.hpp>
#endif

namespace bench {
namespace {

using korvo::variant::Variant;

enum class Kind { number, fraction, text, flag };

struct Option {
    std::string name;
    char letter;
    Kind kind;
};

/** The options, and arguments that give each of them a value; switches are given without one. */
struct CommandLine {
    explicit CommandLine(int count) {
        // Without h, which CLI11 takes for its help.
        static const char letters[] = "abcdefgijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
        static const char* const names[] = {"port", "scale", "device", "verbose"};
        static const char* const values[] = {"=8080", "=2.5", "=/dev/video0", ""};
        arguments.emplace_back("/bin/sh");
        for (int i = 0; i < count; ++i) {
            const std::string name = names[i % 4] + std::to_string(i / 4);
            options.push_back({name, letters[i], static_cast<Kind>(i % 4)});
            arguments.push_back("--" + name + values[i % 4]);
        }
        for (const std::string& argument : arguments) vector.push_back(argument.c_str());
        vector.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(arguments.size()); }

    std::vector<Option> options;
    std::vector<std::string> arguments;
    std::vector<const char*> vector;
};

/** What every side ends up with, to be compared; a peer's own result is what is timed. */
using Values = std::map<std::string, std::string>;

std::string fullPath(const char* program) {
    char path[PATH_MAX];
    return ::realpath(program, path) != nullptr ? path : "";
}

struct Korvo {
    explicit Korvo(const CommandLine& line) {
        for (const Option& option : line.options) {
            const char* name = option.name.c_str();
            switch (option.kind) {
                case Kind::number:
                    AddParameter(definitions, option.letter, name, "A number", 1);
                    break;
                case Kind::fraction:
                    AddParameter(definitions, option.letter, name, "A fraction", 1.5);
                    break;
                case Kind::text:
                    AddParameter(definitions, option.letter, name, "A text", "none");
                    break;
                case Kind::flag:
                    AddParameter(definitions, option.letter, name, "A switch", 1);
                    break;
            }
        }
        ParseCommandLine(line.argc(), const_cast<const char**>(line.vector.data()), definitions, result);
    }
    Values values() {
        Values values;
        for (const auto& member : result["parameters"]) {
            const korvo::variant::VariantType type = member.second;
            const double number = member.second;
            const std::string& text = member.second;
            values[std::string(member.first)] =
                type == korvo::variant::TypeString ? text : std::to_string(number);
        }
        const std::string& path = result["commandLine"]["fullPath"];
        values[""] = path;
        return values;
    }
    Variant definitions, result;
};

/** One option's value where a peer leaves holding it to its host. */
struct Holder {
    unsigned long long number = 1;
    double fraction = 1.5;
    std::string text = "none";

    std::string asText(Kind kind) const {
        if (kind == Kind::text) return text;
        return std::to_string(kind == Kind::fraction ? fraction : static_cast<double>(number));
    }
};

/** The holders of all options, by name. */
struct Holders {
    explicit Holders(const CommandLine& commandLine)
        : line(commandLine), holders(line.options.size()), path(fullPath(line.vector[0])) {}
    Values values() const {
        Values values;
        for (std::size_t i = 0; i < holders.size(); ++i)
            values[line.options[i].name] = holders[i].asText(line.options[i].kind);
        values[""] = path;
        return values;
    }
    const CommandLine& line;
    std::deque<Holder> holders;
    std::string path;
};

struct Getopt {
    explicit Getopt(const CommandLine& line) : path(fullPath(line.vector[0])) {
        std::vector<option> declared;
        for (std::size_t i = 0; i < line.options.size(); ++i) {
            const int argument = line.options[i].kind == Kind::flag ? optional_argument : required_argument;
            declared.push_back({line.options[i].name.c_str(), argument, nullptr, line.options[i].letter});
        }
        declared.push_back({nullptr, 0, nullptr, 0});
        ::optind = 0;
        int index = 0;
        const auto argv = const_cast<char* const*>(line.vector.data());
        while (::getopt_long(line.argc(), argv, "", declared.data(), &index) != -1) {
            const Option& found = line.options[static_cast<std::size_t>(index)];
            Holder& holder = held[found.name];
            if (found.kind == Kind::text) holder.text = ::optarg;
            if (found.kind == Kind::fraction) holder.fraction = std::strtod(::optarg, nullptr);
            if (found.kind == Kind::number) holder.number = std::strtoull(::optarg, nullptr, 0);
        }
        kinds = &line.options;
    }
    Values values() const {
        Values values;
        for (const Option& option : *kinds) values[option.name] = held.at(option.name).asText(option.kind);
        values[""] = path;
        return values;
    }
    std::map<std::string, Holder> held;
    std::string path;
    const std::vector<Option>* kinds = nullptr;
};

#ifdef KORVO_BENCH_CLI11
struct Cli11 : Holders {
    explicit Cli11(const CommandLine& commandLine) : Holders(commandLine) {
        CLI::App app("A service");
        for (std::size_t i = 0; i < holders.size(); ++i) {
            const Option& option = line.options[i];
            const std::string names = std::string("-") + option.letter + ",--" + option.name;
            switch (option.kind) {
                case Kind::number:
                    app.add_option(names, holders[i].number, "A number");
                    break;
                case Kind::fraction:
                    app.add_option(names, holders[i].fraction, "A fraction");
                    break;
                case Kind::text:
                    app.add_option(names, holders[i].text, "A text");
                    break;
                case Kind::flag:
                    app.add_flag(names, holders[i].number, "A switch");
                    break;
            }
        }
        app.parse(line.argc(), line.vector.data());
    }
};
#endif

#ifdef KORVO_BENCH_CXXOPTS
struct Cxxopts : Holders {
    explicit Cxxopts(const CommandLine& commandLine) : Holders(commandLine) {
        cxxopts::Options options("service", "A service");
        for (std::size_t i = 0; i < holders.size(); ++i) {
            const Option& option = line.options[i];
            const std::string names = std::string(1, option.letter) + "," + option.name;
            const auto number = [&] { return cxxopts::value(holders[i].number); };
            switch (option.kind) {
                case Kind::number:
                    options.add_options()(names, "A number", number());
                    break;
                case Kind::fraction:
                    options.add_options()(names, "A fraction", cxxopts::value(holders[i].fraction));
                    break;
                case Kind::text:
                    options.add_options()(names, "A text", cxxopts::value(holders[i].text));
                    break;
                case Kind::flag:
                    options.add_options()(names, "A switch", number()->implicit_value("1"));
                    break;
            }
        }
        options.parse(line.argc(), line.vector.data());
    }
};
#endif

#ifdef KORVO_BENCH_BOOST_PROGRAM_OPTIONS
struct BoostProgramOptions : Holders {
    explicit BoostProgramOptions(const CommandLine& commandLine) : Holders(commandLine) {
        namespace po = boost::program_options;
        po::options_description options("A service");
        for (std::size_t i = 0; i < holders.size(); ++i) {
            const Option& option = line.options[i];
            const std::string names = option.name + "," + option.letter;
            const auto number = [&] { return po::value(&holders[i].number); };
            switch (option.kind) {
                case Kind::number:
                    options.add_options()(names.c_str(), number(), "A number");
                    break;
                case Kind::fraction:
                    options.add_options()(names.c_str(), po::value(&holders[i].fraction), "A fraction");
                    break;
                case Kind::text:
                    options.add_options()(names.c_str(), po::value(&holders[i].text), "A text");
                    break;
                case Kind::flag:
                    options.add_options()(names.c_str(), number()->implicit_value(1), "A switch");
                    break;
            }
        }
        po::variables_map values;
        po::store(po::parse_command_line(line.argc(), line.vector.data(), options), values);
        po::notify(values);
    }
};
#endif

template <class Parser>
void addParser(const char* who) {
    for (const int count : {4, 40}) {
        const auto line = std::make_shared<CommandLine>(count);
        require(Parser(*line).values() == Korvo(*line).values(),
                std::string(who) + " found other option values");
        add("command line, declare and parse", who, count, [line] {
            Parser parser(*line);
            benchmark::DoNotOptimize(parser);
        });
    }
}

}  // namespace

void addCommandLineRows() {
    addParser<Korvo>(ours);
    addParser<Getopt>("getopt_long");
#ifdef KORVO_BENCH_CLI11
    addParser<Cli11>("CLI11");
#endif
#ifdef KORVO_BENCH_CXXOPTS
    addParser<Cxxopts>("cxxopts");
#endif
#ifdef KORVO_BENCH_BOOST_PROGRAM_OPTIONS
    addParser<BoostProgramOptions>("Boost.Program_options");
#endif
}

}  // namespace bench
