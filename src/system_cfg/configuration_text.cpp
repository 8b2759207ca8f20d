#include "configuration_text.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "korvo/variant_utils/system_cfg.h"

namespace korvo::configuration {
namespace {

using variant::Variant;

/** A line `key=value`, as two pieces of the text. */
struct Pair {
    std::string_view key;
    std::string_view value;
};

/** What a line says; nothing in a comment, a blank line or one that is wrong. */
inline std::optional<Pair> pairIn(std::string_view line) {
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.front() == '#') return std::nullopt;
    return Pair{line.substr(0, equals), line.substr(equals + 1)};
}

/** Goes through the lines of a text as it is loaded: `for (Lines lines(text); lines.next();)`. */
class Lines {
  public:
    explicit Lines(std::string_view text) : rest(text) {}

    /** Goes on to the next line; false after the last. */
    bool next() {
        if (rest.empty()) return false;
        const std::size_t lineFeed = rest.find('\n');
        current = rest.substr(0, lineFeed);
        if (lineFeed == std::string_view::npos) {
            rest = {};
        } else {
            rest.remove_prefix(lineFeed + 1);
            if (!current.empty() && current.back() == '\r') current.remove_suffix(1);
        }
        ++count;
        return true;
    }

    /** The line, without the "\n" or "\r\n" that ends it. */
    std::string_view line() const { return current; }

    /** Its number, counted from 1. */
    std::size_t number() const { return count; }

  private:
    std::string_view rest;
    std::string_view current;
    std::size_t count = 0;
};

/** The places of the dots in a key: `for (const std::size_t dot : Dots{key})`. */
struct Dots {
    struct Iterator {
        std::string_view key;
        std::size_t dot;

        std::size_t operator*() const { return dot; }
        void operator++() { dot = key.find('.', dot + 1); }
        bool operator!=(const Iterator& other) const { return dot != other.dot; }
    };

    Iterator begin() const { return {key, key.find('.')}; }
    Iterator end() const { return {key, std::string_view::npos}; }

    std::string_view key;
};

/** The digit that a boolean word stands for; nothing for any other text. */
std::string_view booleanDigit(std::string_view word) {
    if (word == "enabled" || word == "enable" || word == "on") return "1";
    if (word == "disabled" || word == "disable" || word == "off") return "0";
    return {};
}

enum class Index { None, Bare, Escaped };

/** What an index component begins with is 1 to 4, bare or after underscores. */
Index indexAt(std::string_view key, std::size_t component) {
    const std::size_t digit = key.find_first_not_of('_', component);
    if (digit == std::string_view::npos || key[digit] < '1' || key[digit] > '4') return Index::None;
    return digit == component ? Index::Bare : Index::Escaped;
}

/** Makes the tree's line of one of the file; false when it is the same line. */
bool treeLine(std::string_view line, bool escapeIndexKeys, std::string& converted) {
    const std::optional<Pair> pair = pairIn(line);
    if (!pair) return false;
    const std::string_view digit = booleanDigit(pair->value);
    if (digit.empty() && !escapeIndexKeys) return false;
    converted.clear();
    std::size_t done = 0;
    for (const std::size_t dot : Dots{escapeIndexKeys ? pair->key : std::string_view()}) {
        if (indexAt(pair->key, dot + 1) == Index::None) continue;
        converted.append(line, done, dot + 1 - done).append(1, '_');
        done = dot + 1;
    }
    if (done == 0 && digit.empty()) return false;
    if (!digit.empty()) line.remove_suffix(pair->value.size());
    converted.append(line.substr(done)).append(digit);
    return true;
}

/** Makes the file's line of one of the tree, and notes a bare index; false when it is the same line. */
bool fileLine(std::string_view line, std::string& converted, bool& bareIndex) {
    const std::optional<Pair> pair = pairIn(line);
    if (!pair) return false;
    converted.clear();
    std::size_t done = 0;
    for (const std::size_t dot : Dots{pair->key}) {
        const Index index = indexAt(pair->key, dot + 1);
        if (index == Index::Bare) bareIndex = true;
        if (index != Index::Escaped) continue;
        converted.append(line, done, dot + 1 - done);
        done = dot + 2;
    }
    if (done == 0) return false;
    converted.append(line.substr(done));
    return true;
}

/** Replaces the lines that @p convert makes another line of. Copies nothing while there is none. */
template <class Convert>
void convertLines(std::string& text, Convert convert) {
    std::string all;
    std::string converted;
    std::size_t done = 0;  // so much of the text has been converted
    for (Lines lines(text); lines.next();) {
        const std::string_view line = lines.line();
        if (!convert(line, converted)) continue;
        const auto begin = static_cast<std::size_t>(line.data() - text.data());
        all.append(text, done, begin - done).append(converted);
        done = begin + line.size();
    }
    if (done == 0) return;
    all.append(text, done, std::string::npos);
    text = std::move(all);
}

}  // namespace

bool hasBareIndex(std::string_view key) {
    for (const std::size_t dot : Dots{key}) {
        if (indexAt(key, dot + 1) == Index::Bare) return true;
    }
    return false;
}

void toTreeText(std::string& text, bool escapeIndexKeys) {
    convertLines(text, [&](std::string_view line, std::string& converted) {
        return treeLine(line, escapeIndexKeys, converted);
    });
}

bool toFileText(std::string& text) {
    bool bareIndex = false;
    convertLines(text, [&](std::string_view line, std::string& converted) {
        return fileLine(line, converted, bareIndex);
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

bool loads(const std::string& text) {
    Variant tree;
    return SystemCfgManager::load(text, tree, nullptr);
}

bool holdsSettings(const std::string& text) {
    for (Lines lines(text); lines.next();) {
        if (pairIn(lines.line())) return true;
    }
    return false;
}

int clampedInt(const char* text) {
    return static_cast<int>(std::clamp<long long>(std::strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

int flashWritesIn(const std::string& text) {
    int count = 0;
    for (Lines lines(text); lines.next();) {
        const std::optional<Pair> pair = pairIn(lines.line());
        if (pair && pair->key == flashCyclesKey)
            count = std::max(count, clampedInt(std::string(pair->value).c_str()));
    }
    return count;
}

bool raiseFlashWrites(std::string& text, int count) {
    std::optional<std::string_view> told;
    for (Lines lines(text); lines.next();) {
        const std::optional<Pair> pair = pairIn(lines.line());
        if (pair && pair->key == flashCyclesKey) told = pair->value;  // of several lines the last one counts
    }
    if (count <= (told ? clampedInt(std::string(*told).c_str()) : 0)) return true;
    const std::string digits = std::to_string(count);
    if (told) {
        text.replace(static_cast<std::size_t>(told->data() - text.data()), told->size(), digits);
        return true;
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    text.append(flashCyclesKey).append("=").append(digits).append("\n");
    return loads(text);
}

}  // namespace korvo::configuration

namespace {

using korvo::configuration::Dots;
using korvo::configuration::Lines;
using korvo::configuration::Pair;
using korvo::configuration::pairIn;

constexpr std::size_t maxKeyComponents = 64;  // what key=value text can hold

bool hasTooManyComponents(std::string_view key) {
    return std::count(key.begin(), key.end(), '.') >= std::ptrdiff_t{maxKeyComponents};
}

bool isControl(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7f;
}

}  // namespace

const char* SystemCfgManager::keyFault(const std::string& key) {
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

const char* SystemCfgManager::valueFault(const std::string& value) {
    // What would end the line, and what a host may take for the end of the text.
    if (value.find('\n') != std::string::npos || (!value.empty() && value.back() == '\r'))
        return "it holds a line break";
    if (value.find('\0') != std::string::npos) return "it holds a zero byte";
    return nullptr;
}

namespace {

/** Finds the lines that Variant::FromKVP() refuses, in a text that it refused. */
class FaultFinder {
  public:
    explicit FaultFinder(std::vector<SystemCfgManager::Fault>& found) : faults(found) {}

    void look(std::string_view text) {
        for (Lines lines(text); lines.next();) {
            number = lines.number();
            lookAt(lines.line());
        }
        if (faults.empty()) faults.push_back({0, "it is no key=value text"});
    }

  private:
    void lookAt(std::string_view line) {
        if (line.empty() || line.front() == '#') return;
        const std::optional<Pair> pair = pairIn(line);
        if (!pair) {
            if (line.find_first_not_of(" \t\v\f\r") != std::string_view::npos) add("there is no \"=\"");
        } else if (line.back() == '\r') {
            add("the value ends with a carriage return");
        } else if (hasTooManyComponents(pair->key)) {
            add("the key has more than 64 components");
        } else {
            place(pair->key);
        }
    }

    /**
     * Notes the key of a line, unless it and that of a line before it would be a value and a group at once.
     */
    void place(std::string_view key) {
        const auto group = groups.find(key);
        if (group != groups.end()) {
            add("\"" + std::string(key) + "\" is a group of keys since line " +
                std::to_string(group->second));
            return;
        }
        for (const std::size_t dot : Dots{key}) {
            const auto value = values.find(key.substr(0, dot));
            if (value != values.end()) {
                add("\"" + std::string(value->first) + "\" is a value since line " +
                    std::to_string(value->second) + ", so nothing can be below it");
                return;
            }
        }
        for (const std::size_t dot : Dots{key}) groups.insert({key.substr(0, dot), number});
        values.insert({key, number});
    }

    void add(std::string reason) { faults.push_back({number, std::move(reason)}); }

    std::vector<SystemCfgManager::Fault>& faults;
    std::map<std::string_view, std::size_t> values;  ///< the line of each value's key
    std::map<std::string_view, std::size_t> groups;  ///< the first line of each group
    std::size_t number = 0;
};

}  // namespace

bool SystemCfgManager::load(const std::string& text, korvo::variant::Variant& tree,
                            std::vector<Fault>* faults) {
    std::string treeText = text;
    korvo::configuration::toTreeText(treeText, false);
    if (tree.FromKVP(treeText, true, true, true)) return true;
    std::vector<Fault> found;
    if (faults != nullptr) FaultFinder(found).look(text);
    // Only now, because the text may be one inside of the tree or of the faults.
    tree.Reset();
    if (faults != nullptr) std::move(found.begin(), found.end(), std::back_inserter(*faults));
    return false;
}

bool SystemCfgManager::parse(const std::string& text, std::vector<Change>& changes,
                             std::vector<Fault>* faults) {
    korvo::variant::Variant tree;
    if (!load(text, tree, faults)) return false;
    std::vector<Change> found;
    bool accepted = true;
    for (Lines lines(text); lines.next();) {
        const std::optional<Pair> pair = pairIn(lines.line());
        if (!pair) continue;
        found.push_back({std::string(pair->key), std::string(pair->value)});
        const char* const keyReason = keyFault(found.back().key);
        const char* const valueReason = valueFault(*found.back().value);
        if (keyReason == nullptr && valueReason == nullptr) continue;
        accepted = false;
        if (faults != nullptr)
            faults->push_back({lines.number(), keyReason != nullptr
                                                   ? std::string("the key is refused: ") + keyReason
                                                   : std::string("the value is refused: ") + valueReason});
    }
    if (accepted) std::move(found.begin(), found.end(), std::back_inserter(changes));
    return accepted;
}
