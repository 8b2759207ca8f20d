#include "arguments.h"

#include <algorithm>
#include <set>
#include <string_view>

#include "commands.h"
#include "korvo/variant_utils/commandline.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;

struct Option {
    char shortName;
    const char* longName;
    const char* value;  ///< what follows "="; null for an option without a value
    const char* description;
};

constexpr Option allOptions[] = {
    {'S', "save", nullptr, "Save to flash too, unless the flash copy holds the same values"},
    {'f', "force", nullptr, "Proceed even if this discards a group of keys or a working copy"},
    {'D', "defaults", "FILE", "File of the factory settings"},
    {'j', "json", nullptr, "Print JSON"},
    {'r', "resolve", nullptr, "Look up the host's address too"},
    {'b', "base", nullptr, "Print the URI of the document's directory instead"},
    {'d', "derive", "NAME", "Print the URI of this document in the same directory instead"},
    {'w', "with-parameters", nullptr, "With --derive: append the parameters of the URI"},
    {'P', "show-password", nullptr, "Print the password instead of ***"},
    {'R', "root", "DIR", "Use the device tree in this directory, such as a mounted image"},
    {'h', "help", nullptr, "Explain the command"},
    {'V', "version", nullptr, "Print the version"},
};

/** Whether a command accepts an option; a null command is `korvoctl` alone. */
bool accepts(const Command* command, const std::string& option) {
    if (option == "root" || option == "help") return true;
    if (command == nullptr) return option == "version";
    const std::string options = std::string(" ") + command->options + ' ';
    return options.find(' ' + option + ' ') != std::string::npos;
}

/** False, for the caller to return. */
[[nodiscard]] bool refuse(const std::string& message, const Command* command = nullptr) {
    (void)wrongUsage(message, command != nullptr ? command->name : "");
    return false;
}

/** The name of an option without its value, which may be a secret: no message repeats it. */
std::string optionName(const std::string& word) { return word.substr(0, word.find('=')); }

/** Nor does it repeat what follows a colon: the word may be a URI. */
[[nodiscard]] bool refuseOption(const std::string& word) {
    return refuse("unknown option " + word.substr(0, word.find_first_of("=:")));
}

}  // namespace

void describeOptions(const Command& command, Variant& definitions) {
    for (const Option& option : allOptions) {
        if (!accepts(&command, option.longName)) continue;
        const std::string value = option.value != nullptr ? std::string("=") + option.value : "";
        AddParameter(definitions, option.shortName, (option.longName + value).c_str(), option.description,
                     Variant());
    }
}

Arguments::Arguments(int argc, char** argv) {
    char** const end = argv + argc;
    char** const optionsEnd = std::find(argv, end, std::string_view("--"));
    std::vector<std::string> rest;
    if (!parse(static_cast<int>(optionsEnd - argv), argv, rest)) return;
    if (optionsEnd != end) rest.insert(rest.end(), optionsEnd + 1, end);
    valid = check(rest);
}

/** Takes the options from the words before a "--"; @p rest receives the other words. */
bool Arguments::parse(int argc, char** argv, std::vector<std::string>& rest) {
    Variant definitions;
    Variant parsed;
    for (const Option& option : allOptions)
        AddParameter(definitions, option.shortName, option.longName, option.description, Variant());
    for (int i = 1; i < argc; ++i) {
        const std::string name = optionName(argv[i]);
        // The parser takes such a name for a path into the declarations, where "[save]" is "save".
        if (name.size() > 1 && name.front() == '-' && name.find_first_of("[/") != std::string::npos)
            return refuseOption(name);
    }
    ParseCommandLine(argc, argv, definitions, parsed);
    for (const Option& option : allOptions) {
        const std::vector<std::string> texts = OptionTexts(argc, argv, definitions, option.longName);
        if (texts.size() > 1) return refuse(std::string("--") + option.longName + " given twice");
        if (!texts.empty()) given[option.longName] = texts.front();
    }
    Variant& unknown = parsed["unknownParameters"];
    for (auto unparsed = unknown.num_begin(); unparsed != unknown.num_end(); ++unparsed) {
        const std::string& word = unparsed->second;
        // A bare dash names standard input.
        if (word.size() > 1 && word.front() == '-') return refuseOption(word);
        rest.push_back(word);
    }
    return true;
}

/** Checks the words that are not options: the command and its operands. */
bool Arguments::check(const std::vector<std::string>& rest) {
    if (rest.empty()) return has("help") || has("version") ? checkOptions() : refuse("missing command");
    chosen = findCommand(rest.front());
    if (chosen == nullptr) return refuse("unknown command '" + rest.front() + "'");
    words.assign(rest.begin() + 1, rest.end());
    return checkOptions() && (has("help") || checkOperands());
}

bool Arguments::checkOptions() {
    for (const Option& option : allOptions) {
        if (!has(option.longName)) continue;
        const std::string name = std::string("--") + option.longName;
        const bool hasValue = !text(option.longName).empty();
        if (option.value == nullptr && hasValue) return refuse(name + " takes no value", chosen);
        if (option.value != nullptr && !hasValue)
            return refuse(name + ": expects " + option.value + " after '='", chosen);
        if (accepts(chosen, option.longName)) continue;
        return refuse(chosen == nullptr ? "missing command" : chosen->name + (" does not accept " + name),
                      chosen);
    }
    return true;
}

bool Arguments::checkOperands() {
    const std::string name = chosen->name;
    const std::string operands = chosen->operands;
    if (words.size() < chosen->least)
        return refuse(name + ": missing " + operands.substr(0, operands.find("...")), chosen);
    if (words.size() > chosen->most) return refuse(name + ": too many arguments", chosen);
    const bool areKeys = operands.find("KEY") != std::string::npos;
    // An empty key has a message of its own.
    if (!areKeys && std::find(words.begin(), words.end(), "") != words.end())
        return refuse(name + ": empty argument", chosen);
    const bool arePairs = operands.find('=') != std::string::npos;
    std::set<std::string> keys;
    for (const std::string& word : words) {
        const std::string key = arePairs ? word.substr(0, word.find('=')) : word;
        if (!keys.insert(key).second) return refuse("key '" + key + "' given twice", chosen);
    }
    return true;
}

std::string Arguments::text(const char* option) const {
    const auto found = given.find(option);
    return found != given.end() ? found->second : std::string();
}

}  // namespace korvoctl
