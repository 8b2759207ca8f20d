#include "korvo/variant_utils/system_cfg.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <new>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "korvo/utils/device_root.h"
#include "korvo/utils/file.h"
#include "korvo/utils/flash.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "log.h"

namespace utils = korvo::utils;
using korvo::logger::LevelError;
using korvo::logger::LevelWarning;
using korvo::variant::TypeAny;
using korvo::variant::TypeArray;
using korvo::variant::TypeMap;
using korvo::variant::TypeNull;
using korvo::variant::TypeNumeric;
using korvo::variant::TypeString;
using korvo::variant::Variant;
using korvo::variant::VariantType;

namespace {

const char sourceFile[] = "src/system_cfg";
const char configurationPath[] = "/tmp/system.cfg";
const char flashCyclesKey[] = "system.flash.cycles";
constexpr std::size_t maxKeyComponents = 64;  // what key=value text can hold

// The file's text and the tree's

/** Collects replacements in a text, from the left to the right, and copies nothing while there are none. */
class Replacements {
  public:
    explicit Replacements(std::string& target) : text(target) {}

    void replace(std::size_t begin, std::size_t length, std::string_view replacement) {
        result.append(text, done, begin - done).append(replacement);
        done = begin + length;
    }

    void apply() {
        if (done == 0) return;
        result.append(text, done, std::string::npos);
        text = std::move(result);
    }

  private:
    std::string& text;
    std::string result;
    std::size_t done = 0;  ///< so much of the text has been dealt with
};

/**
 * Calls @p visit with the places of the key, the "=" and the end of the value of each line that is a pair.
 */
template <class Visit>
void forEachPair(std::string_view text, Visit visit) {
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t lineFeed = text.find('\n', begin);
        const std::size_t lineEnd = std::min(lineFeed, text.size());
        const std::string_view line = text.substr(begin, lineEnd - begin);
        const std::size_t equals = line.find('=');
        if (equals != std::string_view::npos && line[0] != '#') {
            const bool carriageReturn = lineFeed != std::string_view::npos && line.back() == '\r';
            visit(begin, begin + equals, carriageReturn ? lineEnd - 1 : lineEnd);
        }
        begin = lineEnd + 1;
    }
}

/**
 * Calls @p visit with the place and the underscores in front of each component after a dot that begins with
 * 1 to 4.
 */
template <class Visit>
void forEachIndexComponent(std::string_view key, Visit visit) {
    for (std::size_t dot = key.find('.'); dot != std::string_view::npos; dot = key.find('.', dot + 1)) {
        const std::size_t digit = key.find_first_not_of('_', dot + 1);
        if (digit != std::string_view::npos && key[digit] >= '1' && key[digit] <= '4')
            visit(dot + 1, digit - dot - 1);
    }
}

/** The digit that a boolean word stands for; nothing for any other text. */
std::string_view booleanDigit(std::string_view word) {
    if (word == "enabled" || word == "enable" || word == "on") return "1";
    if (word == "disabled" || word == "disable" || word == "off") return "0";
    return {};
}

/** Turns the file's text into that of the tree. */
void rewriteLoaded(std::string& text, bool escapeIndexKeys) {
    const std::string_view all = text;
    Replacements replacements(text);
    forEachPair(text, [&](std::size_t begin, std::size_t equals, std::size_t end) {
        if (escapeIndexKeys) {
            forEachIndexComponent(all.substr(begin, equals - begin),
                                  [&](std::size_t at, std::size_t /*underscores*/) {
                                      replacements.replace(begin + at, 0, "_");
                                  });
        }
        const std::string_view digit = booleanDigit(all.substr(equals + 1, end - equals - 1));
        if (!digit.empty()) replacements.replace(equals + 1, end - equals - 1, digit);
    });
    replacements.apply();
}

/** Whether no two lines of a text get in each other's way when it is loaded. */
bool loadsWhole(const std::string& text) {
    Variant tree;
    std::string again;
    return tree.FromKVP(text, true, true, true) && tree.ToKVP(again, "=", "\n") &&
           again.size() == text.size();
}

/** Turns the tree's text into that of the file. False when two keys of the tree would be one in the file. */
bool rewriteForFile(std::string& text) {
    const std::string_view all = text;
    bool unescaped = false;
    Replacements replacements(text);
    forEachPair(text, [&](std::size_t begin, std::size_t equals, std::size_t /*end*/) {
        forEachIndexComponent(all.substr(begin, equals - begin),
                              [&](std::size_t at, std::size_t underscores) {
                                  if (underscores == 0) {
                                      unescaped = true;
                                  } else {
                                      replacements.replace(begin + at, 1, "");
                                  }
                              });
    });
    replacements.apply();
    // Only a host that fills the tree itself leaves an index component unescaped.
    return !unescaped || loadsWhole(text);
}

// Keys and values

bool isControl(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7f;
}

/** Appends the components of a key; false when the key is refused. */
bool splitKey(const std::string& key, std::vector<std::string>& components) {
    if (SystemCfgManager::keyFault(key) != nullptr) return false;
    utils::split(key, ".", components);
    return true;
}

bool isContainer(const Variant& node) {
    const VariantType type = node;
    return type == TypeMap || type == TypeArray;
}

/** Whether a node can have a member of that name and still be written. */
bool canHold(Variant& node, const std::string& name) {
    if (!isContainer(node)) return static_cast<VariantType>(node) == TypeNull;
    // In a tree that a host filled, an indexed member may have a line of that name already.
    const long long index = std::strtoll(name.c_str(), nullptr, 10);
    if (std::to_string(index) != name) return true;
    const Variant* indexed = node.GetKeyChain(TypeAny, ("[" + name + "]").c_str(), true);
    return indexed == nullptr || indexed == node.GetKeyChain(TypeAny, name.c_str(), true);
}

/**
 * The map for the last component of a key, made with its parents when they are missing, and that component;
 * null when the key is refused, and nothing is made then.
 */
Variant* findParent(Variant& root, bool escapeIndexKeys, const std::string& key, std::string& lastKey) {
    bool escaped = true;
    if (escapeIndexKeys) {
        forEachIndexComponent(
            key, [&](std::size_t, std::size_t underscores) { escaped = escaped && underscores > 0; });
    }
    std::vector<std::string> components;
    const bool accepted = escaped && splitKey(key, components);
    lastKey.clear();  // only now, because it may be the key itself
    if (!accepted) return nullptr;
    // Whatever refuses the key stands before the first missing member, so nothing has been made then.
    Variant* parent = &root;
    for (std::size_t i = 0;; ++i) {
        if (!canHold(*parent, components[i])) return nullptr;
        if (!isContainer(*parent)) parent->IsArray(false);
        if (i + 1 == components.size()) break;
        parent = &(*parent)[components[i]];
    }
    lastKey = std::move(components.back());
    return parent;
}

/** The value under a key; null when there is none. False when the key is refused. */
bool findValue(Variant& root, const std::string& key, VariantType type, Variant*& value) {
    value = nullptr;
    std::vector<std::string> components;
    if (!splitKey(key, components)) return false;
    std::string path;
    for (const std::string& component : components) {
        if (!path.empty()) path += '/';
        // In brackets a letter is a text key in every variant library; bare, it need not be.
        const bool letter =
            component.size() == 1 && std::isalpha(static_cast<unsigned char>(component[0])) != 0;
        path += letter ? "[" + component + "]" : component;
    }
    value = root.GetKeyChain(type, path.c_str(), true);
    return true;
}

/** The integer that a text stands for; the nearest int, whatever the width of long. */
int clampedInt(const char* text) {
    return static_cast<int>(std::clamp<long long>(std::strtoll(text, nullptr, 10), INT_MIN, INT_MAX));
}

/** What the integer get() tells of a value. */
int toInt(const Variant& value) {
    const VariantType type = value;
    return type == TypeString ? clampedInt(value) : static_cast<int>(value);
}

/** The count that a value stands for; the nearest int. */
int toCount(const Variant& value) {
    const VariantType type = value;
    if (type == TypeString) return clampedInt(value);
    const double count = value;  // exact for all that is not clamped
    return count >= INT_MAX ? INT_MAX : count <= INT_MIN ? INT_MIN : static_cast<int>(value);
}

VariantType categoryOf(int) { return TypeNumeric; }
VariantType categoryOf(const std::string&) { return TypeString; }

bool equals(const Variant& stored, int value) { return toInt(stored) == value; }
bool equals(const Variant& stored, const std::string& value) {
    return static_cast<const std::string&>(stored) == value;
}

bool canBeValue(int) { return true; }
bool canBeValue(const std::string& value) { return SystemCfgManager::valueFault(value) == nullptr; }

/** Stores a member of a map; whether that changed it. */
template <class Value>
bool store(Variant& parent, const std::string& name, const Value& value) {
    const Variant* stored = parent.GetKeyChain(categoryOf(value), name.c_str(), true);
    if (stored != nullptr && equals(*stored, value)) return false;
    parent[name] = value;
    return true;
}

/** Makes one change in a tree. False when it is refused. */
bool makeChange(Variant& root, bool escapeIndexKeys, const SystemCfgManager::Change& change) {
    if (!change.value) {
        Variant* node = nullptr;
        if (!findValue(root, change.key, TypeAny, node)) return false;
        // A null member has no line, and nothing finds it.
        if (node != nullptr) node->Reset();
        return true;
    }
    std::string lastKey;
    Variant* const parent =
        canBeValue(*change.value) ? findParent(root, escapeIndexKeys, change.key, lastKey) : nullptr;
    if (parent != nullptr) (void)store(*parent, lastKey, *change.value);
    return parent != nullptr;
}

/** Whether two trees have the same lines in the file. */
bool sameLines(const Variant& one, const Variant& other) {
    std::string lines;
    std::string otherLines;
    return one.ToKVP(lines, "=", "\n") && other.ToKVP(otherLines, "=", "\n") && lines == otherLines;
}

// The file

/** Removes a temporary file on the way out of a failure. */
void removeKeepingErrno(const std::string& temporary) {
    const int error = errno;
    (void)::unlink(temporary.c_str());
    errno = error;
}

/**
 * Puts a text in the place of the configuration, in one step, while the lock is held. A failure leaves errno
 * to tell why.
 */
bool replaceConfiguration(const std::string& text, const InterProcessMutex& lock) {
    char temporaryName[128];
    std::snprintf(temporaryName, sizeof temporaryName, "%s.%d", configurationPath,
                  static_cast<int>(::getpid()));
    const std::string temporary = utils::devicePath(temporaryName);
    const std::string target = utils::devicePath(configurationPath);
    utils::File file;
    if (!file.Initialize(temporary, utils::FILE_OPEN_MODE_TRUNCATE)) {
        KORVO_LOG_FROM("write", LevelError, 0, "Failed to open system.cfg");
        return false;
    }
    const bool written = file.WriteString(text) && file.CopyAccess(target) && file.Close();
    // Whoever holds the lock by now may have written since this manager loaded the file.
    const bool held = lock.held();
    if (!written || !held) {
        if (written) errno = ESTALE;
        removeKeepingErrno(temporary);
        KORVO_LOG_FROM("write", LevelError, 0, "Failed to write system.cfg");
        return false;
    }
    if (std::rename(temporary.c_str(), target.c_str()) != 0) {
        removeKeepingErrno(temporary);
        KORVO_LOG_FROM("write", LevelError, 0, "Failed to move %s to /tmp/system.cfg", temporaryName);
        return false;
    }
    return true;
}

/**
 * Takes the configuration's lock for a function of that name; false, with the error logged, when that fails.
 */
bool acquireLock(InterProcessMutex& lock, const char* function) {
    const int result = lock.acquire();
    if (result != 0)
        KORVO_LOG_FROM(function, LevelError, 0, "Failed to acquire system.cfg mutex, res=%d", result);
    return result == 0;
}

/** Reads the configuration for a function of that name; false, with the error logged, when that fails. */
bool readConfiguration(std::string& text, const char* function) {
    utils::File file;
    if (!file.Initialize(utils::devicePath(configurationPath), utils::FILE_OPEN_MODE_READ)) {
        KORVO_LOG_FROM(function, LevelError, 0, "Failed to open system.cfg file");
        return false;
    }
    if (!file.ReadStringAll(text)) {
        KORVO_LOG_FROM(function, LevelError, 0, "Failed to read system.cfg file");
        return false;
    }
    return true;
}

// Processes

/** So many forks lie between this process and the one that loaded the library. */
std::atomic<unsigned> generation{0};

[[maybe_unused]] const int forkHandlers = ::pthread_atfork(nullptr, nullptr, [] { ++generation; });

/**
 * Tells a process from its children, also from one that has the same process id in a pid namespace of its
 * own, and from one that was made without the C library's knowledge.
 */
std::pair<unsigned, int> thisProcess() { return {generation, ::getpid()}; }

}  // namespace

SystemCfgManager::SystemCfgManager() : SystemCfgManager(nullptr, false, true, true) {
    variant = new Variant;
    variantBorrowed = false;
}

SystemCfgManager::SystemCfgManager(Variant* tree, bool escape, bool asStrings, bool lastKvpFlag)
    : initialized(false),
      changed(false),
      variantBorrowed(true),
      escapeIndexKeys(escape),
      valuesAsStrings(asStrings),
      fromKvpFlag(lastKvpFlag),
      variant(tree),
      mutex(std::make_unique<InterProcessMutex>("system.cfg", true)),
      openedBy(thisProcess()),
      emptiedByRead(false) {}

SystemCfgManager::~SystemCfgManager() {
    try {
        if (isOpen()) (void)close(false, false);
    } catch (const std::bad_alloc&) {
        // The file stays as it was, which is all that can be done for it here.
    }
    if (!variantBorrowed) delete variant;
}

bool SystemCfgManager::isOpen() const { return initialized && openedBy == thisProcess(); }

bool SystemCfgManager::checkInitialized(const char* function) {
    if (isOpen()) return true;
    KORVO_LOG_FROM(function, LevelError, 0, "SystemCfgManager not initialized");
    return false;
}

bool SystemCfgManager::init() {
    if (isOpen()) {
        KORVO_LOG(LevelError, "SystemCfgManager already initialized");
        return false;
    }
    initialized = false;
    changed = false;
    if (!acquireLock(*mutex, __func__)) return false;
    // Also when memory runs out while reading.
    const auto giveBack = [](InterProcessMutex* held) { (void)held->release(); };
    std::unique_ptr<InterProcessMutex, decltype(giveBack)> lock(mutex.get(), giveBack);
    if (!read()) {
        lock.reset();
        KORVO_LOG(LevelError, "Failed to read system.cfg into variant");
        return false;
    }
    (void)lock.release();
    openedBy = thisProcess();
    initialized = true;
    return true;
}

bool SystemCfgManager::read() {
    std::string text;
    if (!readConfiguration(text, __func__)) return false;
    rewriteLoaded(text, escapeIndexKeys);
    emptiedByRead = true;  // also when memory runs out
    variant->Reset();
    if (!variant->FromKVP(text, true, valuesAsStrings, fromKvpFlag)) {
        KORVO_LOG(LevelError, "Failed to deserialize system.cfg file");
        return false;
    }
    emptiedByRead = false;
    return true;
}

bool SystemCfgManager::checkNotEmptied(const char* function) {
    if (!emptiedByRead) return true;
    KORVO_LOG_FROM(function, LevelError, 0, "Failed to serialize variant to key-value pairs");
    return false;
}

bool SystemCfgManager::write() {
    return checkInitialized(__func__) && checkNotEmptied(__func__) && writeTree(*variant);
}

bool SystemCfgManager::writeTree(const Variant& tree) {
    std::string text;
    if (!tree.ToKVP(text, "=", "\n") || (escapeIndexKeys && !rewriteForFile(text))) {
        KORVO_LOG_FROM("write", LevelError, 0, "Failed to serialize variant to key-value pairs");
        return false;
    }
    return replaceConfiguration(text, *mutex);
}

bool SystemCfgManager::getVariant(Variant& out) {
    if (!checkInitialized(__func__)) return false;
    out = *variant;
    return true;
}

void SystemCfgManager::markChanged() {
    if (!checkInitialized(__func__)) return;
    changed = true;
    if (variantBorrowed) emptiedByRead = false;  // the host has filled its tree again
}

void SystemCfgManager::getLastNode(const std::string& key, Variant*& node, std::string& lastKey) {
    node = findParent(*variant, escapeIndexKeys, key, lastKey);
}

bool SystemCfgManager::getSystemCfgValue(const std::string& key, VariantType type, Variant** value) {
    Variant* found = nullptr;
    const bool accepted = findValue(*variant, key, type, found);
    if (value != nullptr) *value = found;
    return accepted;
}

bool SystemCfgManager::get(const std::string& key, int* value, bool* notFound) {
    if (!checkInitialized(__func__)) return false;
    if (value != nullptr) *value = -1;
    Variant* node = nullptr;
    if (!getSystemCfgValue(key, valuesAsStrings ? TypeString : TypeNumeric, &node)) {
        KORVO_LOG(LevelError, "Failed to get system.cfg key %s", key.c_str());
        return false;
    }
    if (notFound != nullptr) *notFound = node == nullptr;
    if (value != nullptr && node != nullptr) *value = toInt(*node);
    return true;
}

bool SystemCfgManager::get(const std::string& key, std::string* value, bool* notFound) {
    if (!checkInitialized(__func__)) return false;
    Variant* node = nullptr;
    const bool accepted = getSystemCfgValue(key, TypeString, &node);
    if (!accepted) KORVO_LOG(LevelError, "Failed to get system.cfg key %s", key.c_str());
    // Only now, because the key may be the very text that receives the value.
    if (value != nullptr) *value = node != nullptr ? static_cast<const std::string&>(*node) : std::string();
    if (accepted && notFound != nullptr) *notFound = node == nullptr;
    return accepted;
}

bool SystemCfgManager::set(const std::string& key, int value, bool* valueChanged) {
    if (valuesAsStrings) return setValue(key, utils::format("%d", value), valueChanged);
    return setValue(key, value, valueChanged);
}

bool SystemCfgManager::set(const std::string& key, const std::string& value, bool* valueChanged) {
    return setValue(key, value, valueChanged);
}

template <class Value>
bool SystemCfgManager::setValue(const std::string& key, const Value& value, bool* valueChanged) {
    if (!checkInitialized("set") || !checkNotEmptied("set")) return false;
    Variant* parent = nullptr;
    std::string lastKey;
    if (canBeValue(value)) getLastNode(key, parent, lastKey);
    if (parent == nullptr) {
        KORVO_LOG_FROM("set", LevelError, 0, "Failed to set system.cfg key %s", key.c_str());
        return false;
    }
    const bool differs = store(*parent, lastKey, value);
    changed = changed || differs;
    if (valueChanged != nullptr) *valueChanged = differs;
    return write();
}

bool SystemCfgManager::apply(const std::vector<Change>& changes, bool* valuesChanged) {
    if (!checkInitialized(__func__) || !checkNotEmptied(__func__)) return false;
    // In a copy, which takes the tree's place once it is written.
    Variant edited = *variant;
    std::set<std::string_view> keys;
    for (const Change& change : changes) {
        if (keys.insert(change.key).second && makeChange(edited, escapeIndexKeys, change)) continue;
        KORVO_LOG(LevelError, "Failed to set system.cfg key %s", change.key.c_str());
        return false;
    }
    // By what they come to in the end: to remove a group and store it anew need not wear the flash.
    const bool differs = !sameLines(*variant, edited);
    if (!writeTree(edited)) return false;
    *variant = std::move(edited);
    changed = changed || differs;
    if (valuesChanged != nullptr) *valuesChanged = differs;
    return true;
}

bool SystemCfgManager::close(bool saveToFlash, bool forceSave) {
    if (!checkInitialized(__func__)) return false;
    if (forceSave || (changed && saveToFlash)) {
        if (!saveCounted()) return false;
    } else if (changed && !write()) {
        KORVO_LOG(LevelError, "Failed to write system.cfg from variant");
        return false;
    }
    initialized = false;
    const int result = mutex->release();
    if (result != 0) {
        KORVO_LOG(LevelError, "Failed to release system.cfg mutex, res=%d", result);
        return false;
    }
    return true;
}

/** The part of close() that saves to flash. */
bool SystemCfgManager::saveCounted() {
    Variant* stored = nullptr;
    const char* failure = nullptr;
    const bool known = getSystemCfgValue(flashCyclesKey, valuesAsStrings ? TypeString : TypeNumeric, &stored);
    const int cycles = stored != nullptr ? toCount(*stored) : 0;
    if (!known || !set(flashCyclesKey, std::min(cycles, INT_MAX - 1) + 1, nullptr)) {
        failure = "Failed to read flash write cycles";
    } else if (!write()) {
        failure = "Failed to write system.cfg from variant";
    } else if (!utils::saveToFlashRaw(false)) {
        failure = "Failed to save to flash";
    }
    if (failure != nullptr) KORVO_LOG_FROM("close", LevelError, 0, "%s", failure);
    return failure == nullptr;
}

const char* SystemCfgManager::keyFault(const std::string& key) {
    if (key.empty()) return "it is empty";
    if (key.front() == '.' || key.back() == '.' || key.find("..") != std::string::npos)
        return "it has an empty component";
    if (std::count(key.begin(), key.end(), '.') >= std::ptrdiff_t{maxKeyComponents})
        return "it has more than 64 components";
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
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t lineFeed = text.find('\n', begin);
            std::string_view line = text.substr(begin, lineFeed - begin);
            begin = std::min(lineFeed, text.size() - 1) + 1;
            if (lineFeed != std::string_view::npos && !line.empty() && line.back() == '\r')
                line.remove_suffix(1);
            ++number;
            if (!line.empty() && line.front() != '#') lookAt(line);
        }
        if (faults.empty()) faults.push_back({0, "it is no key=value text"});
    }

  private:
    void lookAt(std::string_view line) {
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos) {
            if (line.find_first_not_of(" \t\v\f\r") != std::string_view::npos) add("there is no \"=\"");
        } else if (line.back() == '\r') {
            add("the value ends with a carriage return");
        } else if (std::count(line.begin(), line.begin() + static_cast<std::ptrdiff_t>(equals), '.') >=
                   std::ptrdiff_t{maxKeyComponents}) {
            add("the key has more than 64 components");
        } else {
            place(line.substr(0, equals));
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
        for (std::size_t dot = key.find('.'); dot != std::string_view::npos; dot = key.find('.', dot + 1)) {
            const auto value = values.find(key.substr(0, dot));
            if (value != values.end()) {
                add("\"" + std::string(value->first) + "\" is a value since line " +
                    std::to_string(value->second) + ", so nothing can be below it");
                return;
            }
        }
        for (std::size_t dot = key.find('.'); dot != std::string_view::npos; dot = key.find('.', dot + 1))
            groups.emplace(key.substr(0, dot), number);
        values.emplace(key, number);
    }

    void add(std::string reason) { faults.push_back({number, std::move(reason)}); }

    std::vector<SystemCfgManager::Fault>& faults;
    std::map<std::string_view, std::size_t> values;  ///< the line of each value's key
    std::map<std::string_view, std::size_t> groups;  ///< the first line of each group
    std::size_t number = 0;
};

}  // namespace

bool SystemCfgManager::load(const std::string& text, Variant& tree, std::vector<Fault>* faults) {
    std::string rewritten = text;
    rewriteLoaded(rewritten, false);
    if (tree.FromKVP(rewritten, true, true, true)) return true;
    std::vector<Fault> found;
    if (faults != nullptr) FaultFinder(found).look(text);
    // Only now, because the text may be one inside of the tree or of the faults.
    tree.Reset();
    if (faults != nullptr) std::move(found.begin(), found.end(), std::back_inserter(*faults));
    return false;
}

bool SystemCfgManager::parse(const std::string& text, std::vector<Change>& changes,
                             std::vector<Fault>* faults) {
    Variant tree;
    if (!load(text, tree, faults)) return false;
    std::vector<Change> found;
    bool accepted = true;
    std::size_t line = 1;
    std::size_t counted = 0;
    forEachPair(text, [&](std::size_t begin, std::size_t equals, std::size_t end) {
        line += static_cast<std::size_t>(std::count(text.begin() + static_cast<std::ptrdiff_t>(counted),
                                                    text.begin() + static_cast<std::ptrdiff_t>(begin), '\n'));
        counted = begin;
        found.push_back({text.substr(begin, equals - begin), text.substr(equals + 1, end - equals - 1)});
        const char* const keyReason = keyFault(found.back().key);
        const char* const valueReason = valueFault(*found.back().value);
        if (keyReason == nullptr && valueReason == nullptr) return;
        accepted = false;
        if (faults != nullptr)
            faults->push_back({line, keyReason != nullptr
                                         ? std::string("the key is refused: ") + keyReason
                                         : std::string("the value is refused: ") + valueReason});
    });
    if (accepted) std::move(found.begin(), found.end(), std::back_inserter(changes));
    return accepted;
}

namespace {

/**
 * The largest count of flash writes that a line of the text tells, 0 when none does; the text may be damaged.
 */
int countedIn(const std::string& text) {
    int count = 0;
    forEachPair(text, [&](std::size_t begin, std::size_t equals, std::size_t end) {
        if (text.compare(begin, equals - begin, flashCyclesKey) == 0)
            count = std::max(count, clampedInt(text.substr(equals + 1, end - equals - 1).c_str()));
    });
    return count;
}

bool loads(const std::string& text) {
    Variant tree;
    return SystemCfgManager::load(text, tree, nullptr);
}

/** Whether any setting is told; a file that is cut short or emptied by a failing file system tells none. */
bool holdsSettings(const std::string& text) {
    bool any = false;
    forEachPair(text,
                [&](std::size_t /*begin*/, std::size_t /*equals*/, std::size_t /*end*/) { any = true; });
    return any;
}

/**
 * Raises the count of flash writes in a text that loads, and leaves the rest as it is; false, with the error
 * logged, when it cannot hold one.
 */
bool raiseCount(std::string& text, int count, const char* function) {
    std::size_t begin = std::string::npos;
    std::size_t length = 0;
    forEachPair(text, [&](std::size_t key, std::size_t equals, std::size_t end) {
        if (text.compare(key, equals - key, flashCyclesKey) != 0) return;
        begin = equals + 1;  // of a repeated line the last one counts
        length = end - begin;
    });
    const bool told = begin != std::string::npos;
    if (count <= (told ? clampedInt(text.substr(begin, length).c_str()) : 0)) return true;
    const std::string digits = utils::format("%d", count);
    if (told) {
        text.replace(begin, length, digits);
        return true;
    }
    Variant tree;
    std::string lastKey;
    (void)SystemCfgManager::load(text, tree, nullptr);
    if (findParent(tree, false, flashCyclesKey, lastKey) == nullptr) {
        KORVO_LOG_FROM(function, LevelError, 0, "Failed to set system.cfg key %s", flashCyclesKey);
        return false;
    }
    if (!text.empty() && text.back() != '\n') text += '\n';
    text.append(flashCyclesKey).append("=").append(digits).append("\n");
    return true;
}

/**
 * Puts a text that loads in the place of the configuration, with the largest count of flash writes that it or
 * one of the others tells.
 */
bool install(std::string text, const std::string& other, const std::string& another,
             const InterProcessMutex& lock, const char* function) {
    const int count = std::max({countedIn(text), countedIn(other), countedIn(another)});
    return raiseCount(text, count, function) && replaceConfiguration(text, lock);
}

}  // namespace

bool SystemCfgManager::restore(const std::string& defaults, bool replace) {
    InterProcessMutex lock("system.cfg", true);
    if (!acquireLock(lock, __func__)) return false;
    std::string working;
    const bool missing = ::access(utils::devicePath(configurationPath).c_str(), F_OK) != 0 && errno == ENOENT;
    if (!missing && !replace) {
        if (!readConfiguration(working, __func__)) return false;
        if (loads(working)) return true;
        KORVO_LOG(LevelError, "Failed to deserialize system.cfg file");
        return false;
    }
    (void)utils::File::ReadStringAll(utils::devicePath(configurationPath), working);
    std::string flash;
    std::string factory;
    const bool hasFlash = utils::loadFromFlashRaw(flash);
    const bool flashMissing = !hasFlash && errno == ENOENT;
    const bool hasFactory = !defaults.empty() && utils::File::ReadStringAll(defaults, factory);
    if (hasFlash && holdsSettings(flash) && loads(flash))
        return install(flash, working, factory, lock, __func__);
    if (!hasFactory || !loads(factory)) {
        KORVO_LOG(LevelError, "Failed to restore system.cfg from flash or from %s", defaults.c_str());
        return false;
    }
    if (!flashMissing)
        KORVO_LOG(LevelWarning, "damaged flash copy of system.cfg, taking %s", defaults.c_str());
    return install(factory, working, flash, lock, __func__);
}

bool SystemCfgManager::reset(const std::string& defaults) {
    InterProcessMutex lock("system.cfg", true);
    if (!acquireLock(lock, __func__)) return false;
    std::string factory;
    if (!utils::File::ReadStringAll(defaults, factory) || !loads(factory)) {
        KORVO_LOG(LevelError, "Failed to load the factory settings %s", defaults.c_str());
        return false;
    }
    std::string working;
    std::string flash;
    (void)utils::File::ReadStringAll(utils::devicePath(configurationPath), working);
    (void)utils::loadFromFlashRaw(flash);
    return install(factory, working, flash, lock, __func__);
}
