#include "arguments.h"

#include "commands.h"
#include "korvo/variant_utils/commandline.h"

namespace korvoctl {
namespace {

using korvo::variant::Variant;

/** What stands after an option's "=". */
enum class Takes { Nothing, File, Folder, Name };

struct Option {
    char shortName;
    const char* longName;
    Takes takes;
    const char* description;
};

constexpr Option allOptions[] = {
    {'S', "save", Takes::Nothing, "Save to flash too, unless the flash copy holds the same values"},
    {'f', "force", Takes::Nothing, "Do it also where that loses a group of keys or a working copy"},
    {'D', "defaults", Takes::File, "File of the factory settings"},
    {'j', "json", Takes::Nothing, "Print JSON"},
    {'r', "resolve", Takes::Nothing, "Look up the host's address too"},
    {'b', "base", Takes::Nothing, "Print the URI of the document's folder instead"},
    {'d', "derive", Takes::Name, "Print the URI of this document in the same folder instead"},
    {'w', "with-parameters", Takes::Nothing, "With --derive: append the parameters of the URI"},
    {'P', "show-password", Takes::Nothing, "Print the password instead of ***"},
    {'R', "root", Takes::Folder, "Use the device tree in this folder, such as a mounted image"},
    {'h', "help", Takes::Nothing, "Explain the command"},
    {'V', "version", Takes::Nothing, "Print the version"},
};

/** Whether an option goes with a command; those about korvoctl itself go with every command. */
bool goesWith(const std::string& option, const Command& command) {
    const std::string options = std::string(" ") + command.options + ' ';
    return option == "root" || option == "help" || options.find(' ' + option + ' ') != std::string::npos;
}

std::string missingValue(const Option& option) {
    const std::string name = std::string("--") + option.longName;
    const char* const value = option.takes == Takes::File     ? "FILE"
                              : option.takes == Takes::Folder ? "DIR"
                                                              : "NAME";
    return name + " needs a value, as in " + name + '=' + value;
}

/** False, for the caller to return. */
[[nodiscard]] bool refuse(const std::string& message, const Command* command = nullptr) {
    (void)wrongUsage(message, command != nullptr ? command->name : "");
    return false;
}

[[nodiscard]] bool refuseOption(const std::string& word) { return refuse("there is no option " + word); }

}  // namespace

void declareOptions(const Command* command, Variant& definitions) {
    for (const Option& option : allOptions) {
        if (command == nullptr || goesWith(option.longName, *command))
            AddParameter(definitions, option.shortName, option.longName, option.description, Variant());
    }
}

Arguments::Arguments(int argc, const char** argv) {
    Variant definitions;
    Variant parsed;
    declareOptions(nullptr, definitions);
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const std::string name = word.substr(0, word.find('='));
        // The parser takes such a name for a path into the declarations, where "[save]" is "save" too.
        if (name.size() > 1 && name.front() == '-' && name.find_first_of("[/") != std::string::npos) {
            (void)refuseOption(word);
            return;
        }
    }
    ParseCommandLine(argc, argv, definitions, parsed);
    for (const Option& option : allOptions) {
        const std::vector<std::string> texts = OptionTexts(argc, argv, definitions, option.longName);
        if (texts.size() > 1) {
            (void)refuse(std::string("--") + option.longName + " is given twice");
            return;
        }
        if (!texts.empty()) given[option.longName] = texts.front();
    }
    std::vector<std::string> rest;
    Variant& unknown = parsed["unknownParameters"];
    for (auto word = unknown.num_begin(); word != unknown.num_end(); ++word)
        rest.push_back(static_cast<const std::string&>(word->second));
    valid = check(rest);
}

/** Checks what is left when the options are taken away: the command and its operands. */
bool Arguments::check(const std::vector<std::string>& rest) {
    for (const std::string& word : rest) {
        // A bare dash is the name of standard input.
        if (word.size() > 1 && word.front() == '-') return refuseOption(word);
    }
    if (rest.empty()) {
        if (!has("help") && !has("version")) return refuse("a command is missing");
        return checkOptions();
    }
    chosen = findCommand(rest.front());
    if (chosen == nullptr) return refuse("there is no command '" + rest.front() + "'");
    words.assign(rest.begin() + 1, rest.end());
    return checkOptions() && (has("help") || checkCommand());
}

bool Arguments::checkOptions() {
    for (const Option& option : allOptions) {
        const auto found = given.find(option.longName);
        if (found == given.end()) continue;
        const std::string name = found->first;
        const bool hasValue = !found->second.empty();
        if (option.takes == Takes::Nothing && hasValue)
            return refuse("--" + name + " takes no value", chosen);
        if (option.takes != Takes::Nothing && !hasValue) return refuse(missingValue(option), chosen);
        if (chosen == nullptr && name != "help" && name != "version" && name != "root")
            return refuse("a command is missing");
        if (chosen != nullptr && !goesWith(name, *chosen))
            return refuse("--" + name + " does not go with " + chosen->name, chosen);
    }
    return true;
}

bool Arguments::checkCommand() {
    const std::string name = chosen->name;
    if (words.size() < chosen->least) return refuse(name + " needs " + chosen->operands, chosen);
    if (words.size() > chosen->most) {
        if (chosen->most == 0) return refuse(name + " takes no operand, but got '" + words[0] + "'", chosen);
        std::string kind = chosen->operands;
        if (kind[0] == '[') kind = kind.substr(1, kind.size() - 2);
        return refuse(name + " takes only one " + kind + ", but got '" + words[1] + "' too", chosen);
    }
    for (const std::string& word : words) {
        if (word.empty()) return refuse(name + " got an empty operand", chosen);
    }
    return true;
}

std::string Arguments::text(const char* option) const {
    const auto found = given.find(option);
    return found != given.end() ? found->second : std::string();
}

}  // namespace korvoctl
