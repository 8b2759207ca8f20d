#include "korvo/variant_utils/commandline.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>

#include "korvo/utils/text.h"
#include "log.h"
#include "record.h"

namespace korvo::variant {
namespace {

constexpr char facility[] = "src/commandline";

unsigned shortNameIndex(char shortName) { return static_cast<unsigned char>(shortName); }

void printDefault(const Variant& value) {
    const VariantType type = value;
    if ((type & TypeDouble) == TypeDouble) {
        // Not printf's "%.3f", whose point depends on the locale.
        char digits[400];  // the largest double has 309 digits before the point
        const auto result =
            std::to_chars(digits, std::end(digits), static_cast<double>(value), std::chars_format::fixed, 3);
        std::printf(" [=%.*s]", static_cast<int>(result.ptr - digits), digits);
    } else if ((type & TypeBool) == TypeBool) {
        std::printf(" [=%d]", static_cast<bool>(value) ? 1 : 0);
    } else if ((type & TypeNumeric) != 0) {
        std::printf(" [=%lld]", static_cast<long long>(value));
    } else if ((type & TypeString) == TypeString) {
        std::printf(" [=\"%s\"]", static_cast<const char*>(value));
    }
}

/** Whether a signed 64-bit integer can hold the value. */
bool isWhole(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    return value >= -limit && value < limit && std::trunc(value) == value;
}

/** Stores a text that is not empty as a number; false if it is none. */
[[nodiscard]] bool storeNumber(const std::string& text, Variant& target) {
    if (text.find_first_not_of("-+.x0123456789abcdefABCDEF") != std::string::npos) return false;
    if (text.find('.') != std::string::npos) {
        const char* end = nullptr;
        const double value = utils::toDouble(text.c_str(), &end);
        if (*end != '\0') return false;
        if (isWhole(value))
            target = static_cast<long long>(value);
        else
            target = value;
        return true;
    }
    // Newer C libraries read 0b11 as binary.
    const std::size_t digits = text[0] == '-' || text[0] == '+' ? 1 : 0;
    if (text.compare(digits, 2, "0b") == 0 || text.compare(digits, 2, "0B") == 0) return false;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 0);
    if (*end != '\0') return false;
    if (text[0] == '-')
        target = value;
    else
        target = static_cast<unsigned long long>(value);
    return true;
}

/** An argument's name, with its dashes, and its value, empty if there is none. */
std::pair<std::string_view, std::string> splitOption(std::string_view argument) {
    const std::size_t nameEnd = std::min(argument.find('='), argument.size());
    return {argument.substr(0, nameEnd),
            std::string(argument.substr(std::min(nameEnd + 1, argument.size())))};
}

/** The parts of a declaration that parsing needs; null if there is no declaration. */
struct Declaration {
    const char* longName = nullptr;
    const Variant* defaultValue = nullptr;
};

/** Finds the declaration by an argument's name, with its dashes. */
Declaration findDeclaration(const Variant& definitions, std::string_view name) {
    std::string path;
    if (name.substr(0, 2) == "--") {
        path.append("byLongName/").append(name, 2);
    } else if (name.size() == 2 && name[0] == '-') {
        path = utils::format("byShortName/[%u]", shortNameIndex(name[1]));
    } else {
        return {};
    }
    // A name with "/" leads into a declaration; only a whole one counts.
    const Variant* found = find(definitions, TypeMap, path.c_str());
    if (found == nullptr) return {};
    const Variant* longName = find(*found, TypeString, "longName");
    const Variant* defaultValue = find(*found, TypeAny, "defaultValue");
    if (longName == nullptr || defaultValue == nullptr) return {};
    return {*longName, defaultValue};
}

/** The canonical path of a program, null if there is none. */
Variant canonicalPath(const char* program) {
    Variant path;
    if (program == nullptr) return path;
    // A buffer of ours, since uClibc's realpath() does not check its own allocation.
    std::string buffer(PATH_MAX, '\0');
    const char* found = ::realpath(program, buffer.data());
    if (found == nullptr && errno == ENOMEM) throw std::bad_alloc();
    path = found;
    return path;
}

/** Stores the option of one argument; false if it matches no declaration. */
[[nodiscard]] bool parseOption(const std::string& argument, const Variant& definitions, Variant& result) {
    const auto [name, value] = splitOption(argument);
    const Declaration declaration = findDeclaration(definitions, name);
    if (declaration.longName == nullptr) return false;
    Variant& target = result["parameters"][declaration.longName];
    if (value.empty())
        target = *declaration.defaultValue;
    else if (!storeNumber(value, target))
        target = value;
    return true;
}

}  // namespace

void AddParameter(Variant& definitions, char shortName, const char* longName, const char* description,
                  const Variant& defaultValue) {
    Variant record;
    record["longName"] = longName;
    record["shortName"] = static_cast<signed char>(shortName);
    record["description"] = description;
    record["defaultValue"] = defaultValue;
    // Do not use the arguments below: they may be texts of a declaration that is replaced.
    const std::string& name = record["longName"];
    definitions["byShortName"][shortNameIndex(shortName)] = record;
    definitions["byLongName"][name] = record;
    definitions["all"][-1LL] = std::move(record);
}

void PrintHelp(const char* programName, Variant& definitions) {
    std::printf("%s <option>[=<value>]\n", programName);
    definitions.IsArray(false);
    Variant& all = definitions["all"];
    all.IsArray(true);
    for (auto element = all.num_begin(); element != all.num_end(); ++element) {
        Variant& parameter = element->second;
        parameter.IsArray(false);
        const signed char shortName = parameter["shortName"];
        const char* longName = parameter["longName"];
        const char* description = parameter["description"];
        std::printf("\t-%c\t--%s", shortName, longName);
        printDefault(parameter["defaultValue"]);
        std::printf(" - %s\n", description);
    }
    std::putchar('\n');
}

void ParseCommandLine(int argc, const char** argv, Variant& definitions, Variant& result) {
    // Copied, since they may be texts of values that change here.
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        if (argv[i] != nullptr) arguments.push_back(argv[i]);
    }
    const char* program = argc > 0 ? argv[0] : nullptr;
    Variant executed;
    executed = program;
    Variant fullPath = canonicalPath(program);
    definitions.IsArray(false);
    definitions["byShortName"].IsArray(false);
    definitions["byLongName"].IsArray(false);
    for (const std::string& argument : arguments) {
        if (parseOption(argument, definitions, result)) continue;
        KORVO_LOG(__func__, logger::LevelWarning, 0, "unknown parameter detected: `%s`", argument.c_str());
        result["unknownParameters"][-1LL] = argument;
    }
    result.Compact();
    Variant& commandLine = result["commandLine"];
    commandLine["executed"] = std::move(executed);
    commandLine["fullPath"] = std::move(fullPath);
}

Variant OptionValue(const Variant& definitions, const Variant& result, const char* longName) {
    const std::string name = longName;
    const Declaration declaration = findDeclaration(definitions, "--" + name);
    if (declaration.defaultValue == nullptr) return Variant();
    const Variant* given = find(result, TypeAny, ("parameters/" + name).c_str());
    return given != nullptr ? *given : *declaration.defaultValue;
}

std::vector<std::string> OptionTexts(int argc, const char* const* argv, const Variant& definitions,
                                     const char* longName) {
    std::vector<std::string> texts;
    for (int i = 1; i < argc; ++i) {
        if (argv[i] == nullptr) continue;
        auto [name, value] = splitOption(argv[i]);
        const char* declared = findDeclaration(definitions, name).longName;
        if (declared != nullptr && std::strcmp(declared, longName) == 0) texts.push_back(std::move(value));
    }
    return texts;
}

}  // namespace korvo::variant
