#include "options.h"

#include <cstring>

#include "korvo/variant_utils/commandline.h"
#include "output.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;
using korvo::variant::VariantType;

enum class Takes { Text, Switch };

constexpr const char* isAction = nullptr;  ///< in place of what an option goes with: it says what to do
constexpr const char* always = "";         ///< it makes sense whatever is to be done

struct Option {
    char shortName;
    const char* longName;
    Takes takes;
    const char* goesWith;  ///< the option that it makes sense with
    const char* description;
};

constexpr Option allOptions[] = {
    {'u', "uri", Takes::Text, isAction, "Parse a URI and print its parts"},
    {'r', "resolve", Takes::Switch, "uri", "with --uri: look up the host's address too"},
    {'b', "base", Takes::Switch, "uri", "with --uri: print the base URI instead"},
    {'d', "derive", Takes::Text, "uri",
     "with --uri: print the URI of this document in the same folder instead"},
    {'w', "with-parameters", Takes::Switch, "derive", "with --derive: append the parsed URI's parameters"},
    {'P', "show-password", Takes::Switch, "uri", "with --uri: print the password instead of ***"},
    {'g', "get", Takes::Text, isAction, "Print the configuration value under a key"},
    {'s', "set", Takes::Text, isAction, "KEY=VALUE: store a configuration value and write the file"},
    {'S', "save", Takes::Switch, "set", "with --set: save to flash if something changed"},
    {'f', "force", Takes::Switch, "save", "with --save: save to flash even if nothing changed"},
    {'D', "dump", Takes::Switch, isAction, "Print the whole configuration"},
    {'i', "info", Takes::Switch, isAction, "Print what is known about the device"},
    {'R', "root", Takes::Text, always, "Use the device tree in this folder, such as a mounted image"},
    {'h', "help", Takes::Switch, isAction, "Print this text"},
};

const Option* findOption(const std::string& longName) {
    for (const Option& option : allOptions) {
        if (longName == option.longName) return &option;
    }
    return nullptr;
}

/** False, for the caller to return. */
bool refuse(const std::string& message) {
    (void)wrongUsage(message);
    return false;
}

}  // namespace

Options::Options(int argc, const char** argv) {
    for (const Option& option : allOptions) {
        // An option without a value receives its default: a switch is on, a text is null and will be missed.
        const Variant whenBare = option.takes == Takes::Switch ? Variant(true) : Variant();
        AddParameter(definitions, option.shortName, option.longName, option.description, whenBare);
    }
    ParseCommandLine(argc, argv, definitions, parsed);
    parsed["parameters"].IsArray(false);
    collectTexts(argc, argv);
    valid = check();
}

/** Keeps option values as typed: parsing turns what looks like a number into one, 010 into 8. */
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
        const std::string& argument = unknown.num_begin()->second;
        return refuse("unknown argument '" + argument + "'");
    }
    for (const auto& given : parsed["parameters"]) {
        if (!checkOption(std::string(given.first), given.second)) return false;
    }
    return !chosenAction.empty() || refuse("nothing to do");
}

bool Options::checkOption(const std::string& name, const Variant& value) {
    const Option& option = *findOption(name);
    if (option.takes == Takes::Switch && value != Variant(true) && value != Variant(0ULL) &&
        value != Variant(1ULL)) {
        return refuse("--" + name + " takes no value but 0 or 1");
    }
    // An option may have been named in another way than it is typed, or last without a value.
    const VariantType type = value;
    if (option.takes == Takes::Text && (type == korvo::variant::TypeNull || text(option.longName).empty())) {
        return refuse("--" + name + " needs a value");
    }
    if (option.goesWith == always) return true;
    if (option.goesWith != isAction) {
        return has(option.goesWith) || refuse("--" + name + " goes with --" + option.goesWith);
    }
    if (!has(option.longName)) return true;
    if (!chosenAction.empty())
        return refuse("--" + chosenAction + " and --" + name + " cannot be given together");
    chosenAction = name;
    return true;
}

bool Options::has(const char* longName) const {
    const Variant* parameters = parsed.GetKeyChain(korvo::variant::TypeMap, "parameters", false);
    const Variant* given = parameters->GetKeyChain(korvo::variant::TypeAny, longName, false);
    if (given == nullptr) return false;
    return findOption(longName)->takes == Takes::Text || static_cast<bool>(*given);
}

const std::string& Options::text(const char* longName) const {
    static const std::string none;
    const Variant* typed = texts.GetKeyChain(korvo::variant::TypeString, longName, false);
    if (typed == nullptr) return none;
    return *typed;
}

void Options::printHelp() {
    PrintHelp("korvoctl", definitions);
}

}  // namespace korvoctl
