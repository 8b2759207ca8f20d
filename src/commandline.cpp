#include "korvo/variant_utils/commandline.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "korvo/utils/text.h"
#include "log.h"

namespace korvo::variant {
namespace {

unsigned shortNameIndex(char shortName) { return static_cast<unsigned char>(shortName); }

/** printf's "%.3f" with a "." whatever the locale. */
std::string threeDecimals(double value) {
    char digits[400];  // the largest double has 309 digits before the point
    const auto result = std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, 3);
    return {digits, result.ptr};
}

void printDefault(const Variant& value) {
    const VariantType type = value;
    if ((type & TypeDouble) == TypeDouble) {
        std::printf(" [=%s]", threeDecimals(value).c_str());
    } else if ((type & TypeBool) == TypeBool) {
        std::printf(" [=%d]", static_cast<bool>(value) ? 1 : 0);
    } else if ((type & TypeNumeric) != 0) {
        std::printf(" [=%lld]", static_cast<long long>(value));
    } else if ((type & TypeString) == TypeString) {
        std::printf(" [=\"%s\"]", static_cast<const char*>(value));
    }
}

/** Whether a double can be held as a signed 64-bit integer without losing anything. */
bool isWhole(double value) {
    constexpr double limit = 9223372036854775808.0;  // 2^63
    return value >= -limit && value < limit && std::trunc(value) == value;
}

/**
 * Stores a text with a "." in it, which is a double, or a long long that is the same number, or no number.
 */
void storeFraction(const std::string& text, Variant& target) {
    const char* end = nullptr;
    const double value = utils::toDouble(text.c_str(), &end);
    if (end != text.c_str() + text.size()) {
        target = text;
    } else if (isWhole(value)) {
        target = static_cast<long long>(value);
    } else {
        target = value;
    }
}

/** Stores a text without a ".", which is an integer or no number. */
void storeInteger(const std::string& text, Variant& target) {
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 0);
    // Newer C libraries read 0b11 as binary.
    const bool isBinary = text.find_first_of("bB") == text.find_first_not_of("+-") + 1;
    if (isBinary || end != text.c_str() + text.size()) {
        target = text;
    } else if (text[0] == '-') {
        target = value;
    } else {
        target = static_cast<unsigned long long>(value);
    }
}

/**
 * Stores an option's value from its text, which is not empty: a number where written like one, else a string.
 */
void storeValue(const std::string& text, Variant& target) {
    if (text.find_first_not_of("-+.x0123456789abcdefABCDEF") != std::string::npos) {
        target = text;
    } else if (text.find('.') != std::string::npos) {
        storeFraction(text, target);
    } else {
        storeInteger(text, target);
    }
}

/** What parsing needs of a declaration; the pointers are null when there is none. */
struct Declaration {
    const Variant* longName = nullptr;
    const Variant* defaultValue = nullptr;
};

/** The declaration that an argument's name, with its dashes, stands for. */
Declaration findDeclaration(Variant& definitions, const std::string& name) {
    std::string path;
    if (name.compare(0, 2, "--") == 0) {
        path = "byLongName/" + name.substr(2);
    } else if (name.size() == 2 && name[0] == '-') {
        path = utils::format("byShortName/[%u]", shortNameIndex(name[1]));
    } else {
        return {};
    }
    // A long name with "/" in it leads into the declarations; only a whole declaration counts.
    Variant* found = definitions.GetKeyChain(TypeMap, path.c_str(), false);
    if (found == nullptr) return {};
    return {found->GetKeyChain(TypeString, "longName", false),
            found->GetKeyChain(TypeAny, "defaultValue", false)};
}

/** The canonical path of a program, null where there is none. */
Variant canonicalPath(const char* program) {
    Variant path;
    if (program == nullptr) return path;
    // Not one that realpath() allocates: uClibc's does not look whether it got it.
    const auto buffer = std::make_unique<char[]>(PATH_MAX);
    const char* found = ::realpath(program, buffer.get());
    if (found == nullptr && errno == ENOMEM) throw std::bad_alloc();
    path = found;
    return path;
}

/** Stores the option that one argument gives; false when it matches no declaration. */
[[nodiscard]] bool parseOption(const std::string& argument, Variant& definitions, Variant& result) {
    const std::size_t equals = argument.find('=');
    const Declaration declaration = findDeclaration(definitions, argument.substr(0, equals));
    if (declaration.longName == nullptr || declaration.defaultValue == nullptr) return false;
    const std::string& longName = *declaration.longName;
    Variant& target = result["parameters"][longName];
    if (equals == std::string::npos || equals + 1 == argument.size()) {
        target = *declaration.defaultValue;
    } else {
        storeValue(argument.substr(equals + 1), target);
    }
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
    // From here on the arguments are not looked at: they may be texts of a declaration that is replaced.
    const std::string& name = record["longName"];
    definitions["byShortName"][shortNameIndex(shortName)] = record;
    definitions["byLongName"][name] = record;
    definitions["all"][-1] = std::move(record);
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
    // Copied, since they may be texts of the values that are changed here.
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        if (argv[i] != nullptr) arguments.emplace_back(argv[i]);
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
        result["unknownParameters"][-1] = argument;
    }
    result.Compact();
    Variant& commandLine = result["commandLine"];
    commandLine["executed"] = std::move(executed);
    commandLine["fullPath"] = std::move(fullPath);
}

Variant OptionValue(const Variant& definitions, const Variant& result, const char* longName) {
    const std::string name = longName;
    Variant searched = result;  // a copy, because only a value that may be changed can be searched
    const Variant* given = searched.GetKeyChain(TypeAny, ("parameters/" + name).c_str(), false);
    if (given != nullptr) return *given;
    searched = definitions;
    const Declaration declaration = findDeclaration(searched, "--" + name);
    return declaration.defaultValue != nullptr ? *declaration.defaultValue : Variant();
}

std::vector<std::string> OptionTexts(int argc, const char** argv, const Variant& definitions,
                                     const char* longName) {
    std::vector<std::string> texts;
    Variant searched = definitions;  // a copy, because only a value that may be changed can be searched
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i] != nullptr ? argv[i] : "";
        const std::size_t nameEnd = std::min(argument.find('='), argument.size());
        const Declaration declaration = findDeclaration(searched, argument.substr(0, nameEnd));
        if (declaration.longName == nullptr) continue;
        const std::string& declaredName = *declaration.longName;
        if (declaredName == longName)
            texts.push_back(argument.substr(std::min(nameEnd + 1, argument.size())));
    }
    return texts;
}

}  // namespace korvo::variant
