#include "configuration_text.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "../log.h"
#include "korvo/variant_utils/system_cfg.h"

namespace configuration = korvo::configuration;
using korvo::variant::TypeMap;
using korvo::variant::TypeString;
using korvo::variant::Variant;
using korvo::variant::VariantType;

namespace {

// Lines

/** The lines of a text, as they are loaded: `for (Lines lines{text}; lines.next();)`. */
struct Lines {
    /** Goes on to the next line; false after the last. */
    bool next() {
        if (rest.empty()) return false;
        const std::size_t lineFeed = rest.find('\n');
        line = rest.substr(0, lineFeed);
        end = lineFeed == std::string_view::npos ? "" : "\n";
        if (!end.empty() && !line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
            end = "\r\n";
        }
        rest.remove_prefix(line.size() + end.size());
        ++number;
        return true;
    }

    std::string_view rest;
    std::string_view line = {};
    std::string_view end = {};  ///< what ends the line: "\n", "\r\n" or, at the end of the text, nothing
    std::size_t number = 0;     ///< of the line, counted from 1
};

/** A line `key=value`, as two pieces of the text. */
struct Pair {
    std::string_view key;
    std::string_view value;
};

/** What a line says; nothing in a comment, a blank line or one that is wrong. */
std::optional<Pair> pairIn(std::string_view line) {
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.front() == '#') return std::nullopt;
    return Pair{line.substr(0, equals), line.substr(equals + 1)};
}

/** Converts a text by @p appendPair, which adds what becomes of a pair; all else stays as it is. */
template <class AppendPair>
std::string convertPairs(std::string_view text, AppendPair appendPair) {
    std::string converted;
    converted.reserve(text.size());
    for (Lines lines{text}; lines.next();) {
        if (const std::optional<Pair> pair = pairIn(lines.line))
            appendPair(converted, *pair);
        else
            converted += lines.line;
        converted += lines.end;
    }
    return converted;
}

// Keys and values

bool hasTooManyComponents(std::string_view key) {
    // The size first: it spares nearly every key the count, a tenth of loading.
    constexpr std::size_t limit = korvo::variant::maxKeyComponents;
    return key.size() >= limit && std::count(key.begin(), key.end(), '.') >= std::ptrdiff_t{limit};
}

bool isControl(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7f;
}

bool isIndexDigit(char character) { return character >= '1' && character <= '4'; }

/** Whether a component, or what begins with one, is an index component, bare or after underscores. */
bool isIndex(std::string_view component) {
    const std::size_t digit = component.find_first_not_of('_');
    return digit != std::string_view::npos && isIndexDigit(component[digit]);
}

/** Adds a key to a text, with one underscore more before each index component. */
void appendEscaped(std::string& text, std::string_view key) {
    for (std::size_t i = 0; i < key.size(); ++i) {
        text += key[i];
        if (key[i] == '.' && isIndex(key.substr(i + 1))) text += '_';
    }
}

/** Adds a key to a text, with one underscore less before each index component that has any. */
void appendUnescaped(std::string& text, std::string_view key) {
    for (std::size_t i = 0; i < key.size(); ++i) {
        text += key[i];
        if (key[i] == '.' && isIndex(key.substr(i + 1)) && key[i + 1] == '_') ++i;
    }
}

/** A value as it is loaded: a digit for a boolean word. */
std::string_view loadedValue(std::string_view value) {
    if (value == "enabled" || value == "enable" || value == "on") return "1";
    if (value == "disabled" || value == "disable" || value == "off") return "0";
    return value;
}

// Loading

/** The number of the first line of a text with a pair that begins so. */
std::string firstLine(std::string_view text, const std::string& begin) {
    Lines lines{text};
    while (lines.next() && !(pairIn(lines.line) && lines.line.substr(0, begin.size()) == begin)) {
    }
    return std::to_string(lines.number);
}

/**
 * Stores what a line of a text says in a tree of maps and strings. Returns why the line does not load, in
 * which case it changes nothing; else the empty text.
 */
std::string loadLine(std::string_view line, std::string_view text, Variant& tree) {
    const std::optional<Pair> pair = pairIn(line);
    if (!pair) {
        const bool skipped = line.find_first_not_of(" \t\v\f\r") == std::string_view::npos || line[0] == '#';
        return skipped ? "" : "there is no \"=\"";
    }
    const std::string_view key = pair->key;
    if (line.back() == '\r') return "the value ends with a carriage return";
    if (hasTooManyComponents(key)) return "the key has more than 64 components";
    Variant* node = &tree;
    std::size_t begin = 0;
    for (std::size_t dot; (dot = key.find('.', begin)) != std::string_view::npos; begin = dot + 1) {
        node = &(*node)[std::string(key.substr(begin, dot - begin))];
        if (static_cast<VariantType>(*node) == TypeString) {
            const std::string value(key.substr(0, dot));
            return '"' + value + "\" is a value since line " + firstLine(text, value + '=') +
                   ", so nothing can be below it";
        }
        node->IsArray(false);
    }
    Variant& leaf = (*node)[std::string(key.substr(begin))];
    if (static_cast<VariantType>(leaf) == TypeMap) {
        const std::string group(key);
        return '"' + group + "\" is a group of keys since line " + firstLine(text, group + '.');
    }
    leaf = std::string(loadedValue(pair->value));
    return "";
}

/** Why a line that loads is no change that may be made; empty when it is one. */
std::string refusal(const SystemCfgManager::Change& change) {
    if (const char* const fault = SystemCfgManager::keyFault(change.key))
        return std::string("the key is refused: ") + fault;
    if (const char* const fault = SystemCfgManager::valueFault(*change.value))
        return std::string("the value is refused: ") + fault;
    return "";
}

}  // namespace

namespace korvo::configuration {

const char* pathFault(const std::string& key) {
    if (key.empty()) return "it is empty";
    if (key.front() == '.' || key.back() == '.' || key.find("..") != std::string::npos)
        return "it has an empty component";
    if (hasTooManyComponents(key)) return "it has more than 64 components";
    if (key.front() == '#' || key.find(".#") != std::string::npos)
        return "a component of it begins with \"#\"";
    if (key.find_first_of("/[]=") != std::string::npos) return "it holds \"/\", \"[\", \"]\" or \"=\"";
    if (std::any_of(key.begin(), key.end(), isControl)) return "it holds a control character";
    return nullptr;
}

bool hasBareIndex(std::string_view key) {
    for (std::size_t i = 1; i < key.size(); ++i) {
        if (key[i - 1] == '.' && isIndexDigit(key[i])) return true;
    }
    return false;
}

std::string treeText(const std::string& text, bool escapeIndexKeys) {
    return convertPairs(text, [&](std::string& converted, const Pair& pair) {
        if (escapeIndexKeys)
            appendEscaped(converted, pair.key);
        else
            converted += pair.key;
        converted.append("=").append(loadedValue(pair.value));
    });
}

bool toFileText(std::string& text) {
    bool bareIndex = false;
    text = convertPairs(text, [&](std::string& converted, const Pair& pair) {
        bareIndex = bareIndex || hasBareIndex(pair.key);
        appendUnescaped(converted, pair.key);
        converted.append("=").append(pair.value);
    });
    if (!bareIndex) return true;
    // Only a host that fills the tree itself leaves an index component bare. Then two keys may have become
    // one. Loaded as strings and written again, each line is the same, only their order is another; where two
    // have the same key, the first is missing. So the size tells whether all lines are there.
    Variant tree;
    std::string again;
    return tree.FromKVP(text, true, true, true) && tree.ToKVP(again, "=", "\n") &&
           again.size() == text.size();
}

bool loads(const std::string& text, const std::string& path, Failure* failure) {
    Variant tree;
    std::vector<SystemCfgManager::Fault> faults;
    return SystemCfgManager::load(text, tree, &faults) ||
           fail(failure, {Step::Load, 0, path, faults.front().line, faults.front().reason});
}

bool holdsPairs(const std::string& text) {
    for (Lines lines{text}; lines.next();) {
        if (pairIn(lines.line)) return true;
    }
    return false;
}

bool holdsSettings(const std::string& text) {
    for (Lines lines{text}; lines.next();) {
        const std::optional<Pair> pair = pairIn(lines.line);
        if (pair && pair->key != flashCyclesKey) return true;
    }
    return false;
}

int clampedInt(const char* text) {
    return static_cast<int>(std::clamp<long long>(std::strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

int flashWritesIn(const std::string& text) {
    int count = 0;
    for (Lines lines{text}; lines.next();) {
        const std::optional<Pair> pair = pairIn(lines.line);
        if (pair && pair->key == flashCyclesKey)
            count = std::max(count, clampedInt(std::string(pair->value).c_str()));
    }
    return count;
}

void raiseFlashWrites(std::string& text, int count) {
    std::optional<std::string_view> told;
    for (Lines lines{text}; lines.next();) {
        const std::optional<Pair> pair = pairIn(lines.line);
        if (pair && pair->key == flashCyclesKey) told = pair->value;  // of several lines the last one counts
    }
    if (count <= clampedInt(std::string(told.value_or("")).c_str())) return;
    const std::string digits = std::to_string(count);
    if (told) {
        text.replace(static_cast<std::size_t>(told->data() - text.data()), told->size(), digits);
        return;
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    text.append(flashCyclesKey).append("=").append(digits).append("\n");
}

}  // namespace korvo::configuration

bool SystemCfgManager::load(const std::string& text, Variant& tree, std::vector<Fault>* faults) {
    Variant loaded;
    loaded.IsArray(false);
    std::vector<Fault> found;
    for (Lines lines{text}; lines.next() && (found.empty() || faults != nullptr);) {
        std::string reason = loadLine(lines.line, text, loaded);
        if (!reason.empty()) found.push_back({lines.number, std::move(reason)});
    }
    const bool accepted = found.empty();
    if (!accepted) loaded.Reset();
    // Last: the text may be in the tree or in the faults.
    tree = std::move(loaded);
    if (faults != nullptr) std::move(found.begin(), found.end(), std::back_inserter(*faults));
    return accepted;
}

bool SystemCfgManager::parse(const std::string& text, std::vector<Change>& changes,
                             std::vector<Fault>* faults) {
    Variant tree;
    tree.IsArray(false);
    std::vector<Change> found;
    std::map<std::string_view, std::size_t> places;  // of the keys among what was found
    std::vector<Fault> refused;
    for (Lines lines{text}; lines.next();) {
        std::string reason = loadLine(lines.line, text, tree);
        if (const std::optional<Pair> pair = pairIn(lines.line); pair && reason.empty()) {
            const auto [place, isNew] = places.emplace(pair->key, found.size());
            if (isNew) found.push_back({std::string(pair->key), std::nullopt});
            Change& change = found[place->second];
            change.value = std::string(pair->value);
            reason = refusal(change);
        }
        if (!reason.empty()) refused.push_back({lines.number, std::move(reason)});
    }
    const bool accepted = refused.empty();
    // Last: the text may be in the changes or in the faults.
    if (accepted) std::move(found.begin(), found.end(), std::back_inserter(changes));
    if (faults != nullptr) std::move(refused.begin(), refused.end(), std::back_inserter(*faults));
    return accepted;
}

const char* SystemCfgManager::keyFault(const std::string& key) {
    if (const char* const fault = configuration::pathFault(key)) return fault;
    // Only a slip of the hand makes such a key. Other white space is a control character.
    if (key.front() == ' ' || key.back() == ' ' || key.find(". ") != std::string::npos ||
        key.find(" .") != std::string::npos)
        return "a component of it begins or ends with a blank";
    if (key.compare(0, 3, "\xef\xbb\xbf") == 0) return "it begins with a byte order mark";
    return nullptr;
}

const char* SystemCfgManager::valueFault(const std::string& value) {
    // What would end the line, and what a host may take for the end of the text.
    if (value.find('\n') != std::string::npos || (!value.empty() && value.back() == '\r'))
        return "it holds a line break";
    if (value.find('\0') != std::string::npos) return "it holds a zero byte";
    return nullptr;
}
