#include "options.h"

#include <cstdio>
#include <cstring>

#include "korvo/variant_utils/commandline.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;

enum class Takes { Text, Switch };

/** One option. Without a main option of its own to go with, it is a main option itself: it says what to do.
 */
struct Option {
    char shortName;
    const char* longName;
    Takes takes;
    const char* goesWith;
    const char* description;

    bool isAction() const { return goesWith == nullptr; }
};

constexpr Option allOptions[] = {
    {'u', "uri", Takes::Text, nullptr, "Parse a URI and print its parts"},
    {'r', "resolve", Takes::Switch, "uri", "with --uri: look up the host's address too"},
    {'b', "base", Takes::Switch, "uri", "with --uri: print the base URI instead"},
    {'d', "derive", Takes::Text, "uri",
     "with --uri: print the URI of this document in the same folder instead"},
    {'w', "with-parameters", Takes::Switch, "derive", "with --derive: append the parsed URI's parameters"},
    {'P', "show-password", Takes::Switch, "uri", "with --uri: print the password instead of ***"},
    {'h', "help", Takes::Switch, nullptr, "Print this text"},
};

const Option* findOption(const std::string& longName) {
    for (const Option& option : allOptions) {
        if (longName == option.longName) return &option;
    }
    return nullptr;
}

bool wrongUsage(const std::string& message) {
    std::fprintf(stderr, "korvoctl: %s\nTry 'korvoctl --help'.\n", message.c_str());
    return false;
}

}  // namespace

Options::Options(int argc, const char** argv) {
    for (const Option& option : allOptions) {
        // An option given without a value receives its default: a switch is on, a text stays null, which is
        // missed.
        const Variant whenBare = option.takes == Takes::Switch ? Variant(true) : Variant();
        AddParameter(definitions, option.shortName, option.longName, option.description, whenBare);
    }
    ParseCommandLine(argc, argv, definitions, parsed);
    parsed["parameters"].IsArray(false);
    collectTexts(argc, argv);
    valid = check();
}

/** Keeps option values as typed, since parsing turns what looks like a number into one: 010 would become 8.
 */
void Options::collectTexts(int argc, const char** argv) {
    for (int i = 1; i < argc; ++i) {
        const char* value = std::strchr(argv[i], '=');
        if (value == nullptr) continue;
        const std::string name(argv[i], value);
        for (const Option& option : allOptions) {
            if (name == std::string("--") + option.longName || name == std::string{'-', option.shortName}) {
                texts[option.longName] = value + 1;
            }
        }
    }
}

bool Options::check() {
    const Variant& unknown = parsed["unknownParameters"];
    if (unknown.num_begin() != unknown.num_end()) {
        return wrongUsage("unknown argument '" +
                          std::string(unknown.num_begin()->second.operator const char*()) + "'");
    }
    for (const auto& given : parsed["parameters"]) {
        const Option& option = *findOption(std::string(given.first));
        const korvo::variant::VariantType type = given.second;
        const bool isSwitch = option.takes == Takes::Switch;
        if (isSwitch && type == korvo::variant::TypeString) {
            return wrongUsage("--" + std::string(given.first) + " takes no value but 0 or 1");
        }
        if (!isSwitch && type == korvo::variant::TypeNull) {
            return wrongUsage("--" + std::string(given.first) + " needs a value");
        }
        if (!option.isAction() && !has(option.goesWith)) {
            return wrongUsage("--" + std::string(given.first) + " goes with --" + option.goesWith);
        }
        if (!option.isAction() || !has(option.longName)) continue;
        if (!chosenAction.empty()) {
            return wrongUsage("--" + chosenAction + " and --" + option.longName +
                              " cannot be given together");
        }
        chosenAction = option.longName;
    }
    return !chosenAction.empty() || wrongUsage("nothing to do");
}

bool Options::has(const char* longName) const {
    const Variant* parameters = parsed.GetKeyChain(korvo::variant::TypeMap, "parameters", false);
    const Variant* given = parameters->GetKeyChain(korvo::variant::TypeAny, longName, false);
    if (given == nullptr) return false;
    return findOption(longName)->takes == Takes::Text || static_cast<bool>(*given);
}

const std::string& Options::text(const char* longName) const {
    return *texts.GetKeyChain(korvo::variant::TypeString, longName, false);
}

void Options::printHelp() {
    PrintHelp("korvoctl", definitions);
}

}  // namespace korvoctl
