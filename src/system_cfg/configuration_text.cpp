#include "configuration_text.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <utility>
#include <vector>

#include "../log.h"
#include "korvo/utils/text.h"
#include "korvo/variant_utils/system_cfg.h"

namespace configuration = korvo::configuration;
namespace utils = korvo::utils;
using configuration::Components;
using korvo::variant::TypeMap;
using korvo::variant::TypeNull;
using korvo::variant::Variant;
using korvo::variant::VariantType;

namespace {

// Lines

/** The lines of a text as loading reads them: `for (Lines lines{text}; lines.next();)`. */
struct Lines {
    /** Goes on to the next line; false after the last. */
    bool next() {
        if (rest.empty()) return false;
        const std::size_t lineFeed = std::min(rest.find('\n'), rest.size());
        line = rest.substr(0, lineFeed);
        if (lineFeed < rest.size() && !line.empty() && line.back() == '\r') line.remove_suffix(1);
        end = rest.substr(line.size(), lineFeed + 1 - line.size());
        rest.remove_prefix(line.size() + end.size());
        ++number;
        const std::size_t equals = line.find('=');
        isPair = equals != std::string_view::npos && line.front() != '#';
        key = isPair ? line.substr(0, equals) : "";
        value = isPair ? line.substr(equals + 1) : "";
        return true;
    }

    std::string_view rest;
    std::string_view line = {};
    std::string_view end = {};  ///< of the line: "\n", "\r\n" or, at the end of the text, nothing
    std::size_t number = 0;     ///< of the line, counted from 1
    bool isPair = false;        ///< neither a comment nor blank nor wrong
    std::string_view key = {}, value = {};
};

// Keys and values

bool hasTooManyComponents(std::string_view key) {
    // Test the size first: counting the dots of every key takes a tenth of the loading time.
    constexpr std::size_t limit = korvo::variant::maxKeyComponents;
    return key.size() >= limit && std::count(key.begin(), key.end(), '.') >= std::ptrdiff_t{limit};
}

bool hasControl(const std::string& text) {
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code < 0x20 || code == 0x7f) return true;
    }
    return false;
}

bool isIndexDigit(char character) { return character >= '1' && character <= '4'; }

/** Whether a text begins with an index component, bare or escaped. */
bool isIndex(std::string_view component) {
    const std::size_t digit = component.find_first_not_of('_');
    return digit != std::string_view::npos && isIndexDigit(component[digit]);
}

/** What becomes of the index components of a key. */
enum class Indices {
    Kept,
    Escaped,   ///< each gets one underscore more
    Unescaped  ///< each that has underscores loses one
};

void appendKey(std::string& text, std::string_view key, Indices indices) {
    if (indices == Indices::Kept) {
        text += key;
        return;
    }
    for (std::size_t i = 0; i < key.size(); ++i) {
        text += key[i];
        if (key[i] != '.' || !isIndex(key.substr(i + 1))) continue;
        if (indices == Indices::Escaped)
            text += '_';
        else if (key[i + 1] == '_')
            ++i;
    }
}

/** A value as it is loaded: a digit for a boolean word. */
std::string_view loadedValue(std::string_view value) {
    static constexpr std::pair<std::string_view, std::string_view> words[] = {
        {"enabled", "1"}, {"enable", "1"}, {"on", "1"}, {"disabled", "0"}, {"disable", "0"}, {"off", "0"}};
    for (const auto& [word, digit] : words) {
        if (value == word) return digit;
    }
    return value;
}

/** Converts the pairs of a text and keeps all else. @p load turns boolean words into digits. */
std::string converted(std::string_view text, Indices indices, bool load) {
    std::string result;
    result.reserve(text.size());
    for (Lines lines{text}; lines.next();) {
        if (lines.isPair) {
            appendKey(result, lines.key, indices);
            result += '=';
            result += load ? loadedValue(lines.value) : lines.value;
        } else {
            result += lines.line;
        }
        result += lines.end;
    }
    return result;
}

// Loading

/** The number of the first line of a text with a pair that begins so. */
int firstLine(std::string_view text, const std::string& begin) {
    Lines lines{text};
    while (lines.next() && !(lines.isPair && lines.line.substr(0, begin.size()) == begin)) {
    }
    return static_cast<int>(lines.number);
}

/**
 * Makes the place for the value of a line in a tree of values and maps, for the caller to fill. Null for a
 * line without a value; @p reason is empty unless the line does not load.
 */
Variant* makePlace(const Lines& lines, std::string_view text, Variant& tree, std::string& reason) {
    reason.clear();
    if (!lines.isPair) {
        const bool blank = lines.line.find_first_not_of(" \t\v\f\r") == std::string_view::npos;
        if (!blank && lines.line.front() != '#') reason = "there is no \"=\"";
        return nullptr;
    }
    if (lines.line.back() == '\r')
        reason = "the value ends with a carriage return";
    else if (hasTooManyComponents(lines.key))
        reason = "the key has more than 64 components";
    Variant* node = &tree;
    for (Components at{lines.key}; reason.empty() && at.next();) {
        node = &(*node)[at.name];
        const VariantType type = *node;
        const std::string path(lines.key.substr(0, at.end));
        if (type != TypeNull && type != TypeMap && !at.isLast())
            reason = utils::format("\"%s\" is a value since line %d, so nothing can be below it",
                                   path.c_str(), firstLine(text, path + '='));
        else if (type == TypeMap && at.isLast())
            reason = utils::format("\"%s\" is a group of keys since line %d", path.c_str(),
                                   firstLine(text, path + '.'));
        else if (!at.isLast())
            node->IsArray(false);
    }
    return reason.empty() ? node : nullptr;
}

/** Makes a change of a line; @p place holds its index. Returns why it is refused, else the empty text. */
std::string addChange(const Lines& lines, Variant& place, std::vector<SystemCfgManager::Change>& changes) {
    if (static_cast<VariantType>(place) == TypeNull) {
        place = static_cast<long long>(changes.size());
        changes.push_back({std::string(lines.key), std::nullopt});
    }
    auto& [key, value] = changes[static_cast<std::size_t>(static_cast<long long>(place))];
    value = std::string(lines.value);
    if (const char* const fault = SystemCfgManager::keyFault(key))
        return utils::format("the key is refused: %s", fault);
    if (const char* const fault = SystemCfgManager::valueFault(*value))
        return utils::format("the value is refused: %s", fault);
    return "";
}

/** Loads a text into @p changes, or into the tree if there are none. */
bool loadLines(const std::string& text, Variant& tree, std::vector<SystemCfgManager::Change>* changes,
               std::vector<SystemCfgManager::Fault>* faults) {
    std::vector<SystemCfgManager::Fault> found;
    std::string reason;
    tree.IsArray(false);
    for (Lines lines{text}; lines.next() && (found.empty() || faults != nullptr);) {
        Variant* const place = makePlace(lines, text, tree, reason);
        if (place != nullptr && changes == nullptr) *place = std::string(loadedValue(lines.value));
        if (place != nullptr && changes != nullptr) reason = addChange(lines, *place, *changes);
        if (!reason.empty()) found.push_back({lines.number, reason});
    }
    const bool accepted = found.empty();
    if (faults == nullptr) return accepted;
    for (SystemCfgManager::Fault& fault : found) faults->push_back(std::move(fault));  // may hold the text
    return accepted;
}

}  // namespace

namespace korvo::configuration {

bool Components::next() {
    if (isLast()) return false;
    begin = end + 1;
    end = std::min(key.find('.', begin), key.size());
    name = key.substr(begin, end - begin);
    return true;
}

const char* pathFault(const std::string& key) {
    const std::string dotted = '.' + key + '.';
    if (key.empty()) return "it is empty";
    if (dotted.find("..") != std::string::npos) return "it has an empty component";
    if (hasTooManyComponents(key)) return "it has more than 64 components";
    if (dotted.find(".#") != std::string::npos) return "a component of it begins with \"#\"";
    if (key.find_first_of("/[]=") != std::string::npos) return "it holds \"/\", \"[\", \"]\" or \"=\"";
    if (hasControl(key)) return "it holds a control character";
    return nullptr;
}

bool hasBareIndex(std::string_view key) {
    for (std::size_t i = 1; i < key.size(); ++i) {
        if (key[i - 1] == '.' && isIndexDigit(key[i])) return true;
    }
    return false;
}

std::string treeText(const std::string& text, bool escapeIndexKeys) {
    return converted(text, escapeIndexKeys ? Indices::Escaped : Indices::Kept, true);
}

bool toFileText(std::string& text) {
    bool bareIndex = false;
    for (Lines lines{text}; lines.next();) bareIndex = bareIndex || hasBareIndex(lines.key);
    text = converted(text, Indices::Unescaped, false);
    if (!bareIndex) return true;
    // Only a host that fills the tree itself leaves an index component bare. Then two keys may have become
    // one, and loading drops the first of two equal keys. Otherwise loading and writing again only reorders
    // the lines, so the size stays.
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

Contents contentsOf(const std::string& text) {
    Contents contents;
    for (Lines lines{text}; lines.next();) {
        if (!lines.isPair) continue;
        contents.pairs = true;
        if (lines.key == flashCyclesKey) {
            contents.lastValue = lines.value;
            contents.lastCount = clampedInt(std::string(lines.value).c_str());
            contents.largestCount = std::max(contents.largestCount, contents.lastCount);
        } else {
            contents.settings = true;
        }
    }
    return contents;
}

int clampedInt(const char* text) {
    return static_cast<int>(std::clamp<long long>(std::strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

void raiseFlashWrites(std::string& text, int count) {
    const Contents now = contentsOf(text);
    if (count <= now.lastCount) return;
    const std::string digits = utils::format("%d", count);
    if (now.lastValue.data() != nullptr) {
        const std::ptrdiff_t place = now.lastValue.data() - text.data();
        text.replace(static_cast<std::size_t>(place), now.lastValue.size(), digits);
        return;
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    text.append(flashCyclesKey).append("=").append(digits).append("\n");
}

}  // namespace korvo::configuration

bool SystemCfgManager::load(const std::string& text, Variant& tree, std::vector<Fault>* faults) {
    Variant loaded;
    const bool accepted = loadLines(text, loaded, nullptr, faults);
    if (!accepted) loaded.Reset();
    tree = std::move(loaded);  // last: the text may be in the tree
    return accepted;
}

bool SystemCfgManager::parse(const std::string& text, std::vector<Change>& changes,
                             std::vector<Fault>* faults) {
    Variant places;
    std::vector<Change> found;
    if (!loadLines(text, places, &found, faults)) return false;
    for (Change& change : found) changes.push_back(std::move(change));
    return true;
}

const char* SystemCfgManager::keyFault(const std::string& key) {
    if (const char* const fault = configuration::pathFault(key)) return fault;
    // Only a typing slip makes such a key. Other white space is a control character.
    const std::string dotted = '.' + key + '.';
    if (dotted.find(". ") != std::string::npos || dotted.find(" .") != std::string::npos)
        return "a component of it begins or ends with a blank";
    if (key.compare(0, 3, "\xef\xbb\xbf") == 0) return "it begins with a byte order mark";
    return nullptr;
}

const char* SystemCfgManager::valueFault(const std::string& value) {
    // A line break would end the line; a zero byte, the text that a C string holds.
    if (value.find('\n') != std::string::npos || (!value.empty() && value.back() == '\r'))
        return "it holds a line break";
    if (value.find('\0') != std::string::npos) return "it holds a zero byte";
    return nullptr;
}
