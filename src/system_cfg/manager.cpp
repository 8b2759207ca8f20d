#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <new>
#include <set>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "../log.h"
#include "configuration_file.h"
#include "configuration_text.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/flash.h"
#include "korvo/utils/inter_process_mutex.h"
#include "korvo/utils/text.h"
#include "korvo/variant_utils/system_cfg.h"

namespace configuration = korvo::configuration;
namespace utils = korvo::utils;
using korvo::variant::TypeAny;
using korvo::variant::TypeArray;
using korvo::variant::TypeMap;
using korvo::variant::TypeNull;
using korvo::variant::TypeNumeric;
using korvo::variant::TypeString;
using korvo::variant::Variant;
using korvo::variant::VariantType;

namespace {

// Keys

/** The components of a key; none when the key is refused. */
std::vector<std::string> componentsOf(const std::string& key) {
    std::vector<std::string> components;
    if (SystemCfgManager::keyFault(key) == nullptr) utils::split(key, ".", components);
    return components;
}

bool isContainer(const Variant& node) {
    const VariantType type = node;
    return type == TypeMap || type == TypeArray;
}

/** The member of a node that a component of a key names; null when there is none of the type. */
Variant* findMember(Variant& node, const std::string& component, VariantType type) {
    // In brackets a letter is a text key in every variant library; bare, it need not be.
    const bool letter = component.size() == 1 && std::isalpha(static_cast<unsigned char>(component[0])) != 0;
    return node.GetKeyChain(type, (letter ? "[" + component + "]" : component).c_str(), true);
}

/** Whether a node can have a member of that name and still be written. */
bool canHold(Variant& node, const std::string& name) {
    if (!isContainer(node)) return static_cast<VariantType>(node) == TypeNull;
    // In a tree that a host filled, an indexed member may have a line of that name already.
    const long long index = std::strtoll(name.c_str(), nullptr, 10);
    if (std::to_string(index) != name) return true;
    const Variant* indexed = node.GetKeyChain(TypeAny, ("[" + name + "]").c_str(), true);
    return indexed == nullptr || indexed == findMember(node, name, TypeAny);
}

enum class Missing { Stays, IsMade };

/**
 * The node in which the last of a key's components names a member; null when the key is refused, when the
 * node stays missing, or when it is to be made and no value could be stored there.
 */
Variant* findParent(Variant& root, const std::vector<std::string>& components, Missing missing) {
    Variant* node = components.empty() ? nullptr : &root;
    for (std::size_t i = 0; node != nullptr; ++i) {
        if (missing == Missing::IsMade) {
            // What cannot hold it stands before the first missing node, so nothing has been made then.
            if (!canHold(*node, components[i])) return nullptr;
            if (!isContainer(*node)) node->IsArray(false);
        }
        if (i + 1 == components.size()) return node;
        node =
            missing == Missing::IsMade ? &(*node)[components[i]] : findMember(*node, components[i], TypeAny);
    }
    return nullptr;
}

/** The value under a key; null when there is none. False when the key is refused. */
[[nodiscard]] bool findValue(Variant& root, const std::string& key, VariantType type, Variant*& value) {
    const std::vector<std::string> components = componentsOf(key);
    Variant* const parent = findParent(root, components, Missing::Stays);
    value = parent != nullptr ? findMember(*parent, components.back(), type) : nullptr;
    return !components.empty();
}

/** The node to store a value in, and the last component of its key; null when the key is refused. */
Variant* makeParent(Variant& root, bool escapeIndexKeys, const std::string& key, std::string& lastKey) {
    std::vector<std::string> components;
    if (!escapeIndexKeys || !configuration::hasBareIndex(key)) components = componentsOf(key);
    Variant* const parent = findParent(root, components, Missing::IsMade);
    // Only now, because it may be the key itself.
    lastKey = parent != nullptr ? std::move(components.back()) : std::string();
    return parent;
}

// Values

/** What an integer is held as. */
VariantType integerType(bool valuesAsStrings) { return valuesAsStrings ? TypeString : TypeNumeric; }

/** What the integer get() tells of a value. */
int toInt(const Variant& value) {
    const VariantType type = value;
    return type == TypeString ? configuration::clampedInt(value) : static_cast<int>(value);
}

/** The count that a value stands for; the nearest int. */
int toCount(const Variant& value) {
    const VariantType type = value;
    if (type == TypeString) return configuration::clampedInt(value);
    const double count = value;  // exact for all that is not clamped
    return count >= INT_MAX ? INT_MAX : count <= INT_MIN ? INT_MIN : static_cast<int>(value);
}

bool canBeStored(int) { return true; }
bool canBeStored(const std::string& value) { return SystemCfgManager::valueFault(value) == nullptr; }

/** Stores a value under a key, and tells whether it differed. False when the key or the value is refused. */
template <class Value>
[[nodiscard]] bool storeValue(Variant& root, bool escapeIndexKeys, const std::string& key, const Value& value,
                              bool& differs) {
    std::string lastKey;
    Variant* const parent = canBeStored(value) ? makeParent(root, escapeIndexKeys, key, lastKey) : nullptr;
    if (parent == nullptr) return false;
    constexpr VariantType category = std::is_same<Value, int>::value ? TypeNumeric : TypeString;
    const Variant* const stored = findMember(*parent, lastKey, category);
    differs = stored == nullptr || static_cast<const Value&>(*stored) != value;
    if (differs) (*parent)[lastKey] = value;
    return true;
}

/** Makes one change in a tree. False when it is refused. */
[[nodiscard]] bool makeChange(Variant& root, bool escapeIndexKeys, const SystemCfgManager::Change& change) {
    bool differs = false;
    if (change.value) return storeValue(root, escapeIndexKeys, change.key, *change.value, differs);
    Variant* node = nullptr;
    if (!findValue(root, change.key, TypeAny, node)) return false;
    // A null member has no line in the file.
    if (node != nullptr) node->Reset();
    return true;
}

// Trees

/** Whether two trees have the same lines in the file. */
bool sameLines(const Variant& one, const Variant& other) {
    std::string lines;
    std::string otherLines;
    return one.ToKVP(lines, "=", "\n") && other.ToKVP(otherLines, "=", "\n") && lines == otherLines;
}

/** Writes a tree to the file, under the lock. */
[[nodiscard]] bool writeTree(const Variant& tree, bool escapeIndexKeys, const InterProcessMutex& lock) {
    std::string text;
    if (!tree.ToKVP(text, "=", "\n") || (escapeIndexKeys && !configuration::toFileText(text)))
        return KORVO_FAIL("write", "Failed to serialize variant to key-value pairs");
    return configuration::replaceFile(text, lock);
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

SystemCfgManager::SystemCfgManager() : SystemCfgManager(&ownTree, false, true, true) {}

SystemCfgManager::SystemCfgManager(Variant* tree, bool escape, bool asStrings, bool lastKvpFlag)
    : initialized(false),
      changed(false),
      escapeIndexKeys(escape),
      valuesAsStrings(asStrings),
      fromKvpFlag(lastKvpFlag),
      variant(tree),
      mutex(std::make_unique<InterProcessMutex>(utils::configurationLock, true)),
      openedBy(thisProcess()),
      emptiedByRead(false) {}

SystemCfgManager::~SystemCfgManager() {
    try {
        if (isOpen()) (void)close(false, false);
    } catch (const std::bad_alloc&) {
        // The file stays as it was, which is all that can be done for it here.
    }
}

bool SystemCfgManager::isOpen() const { return initialized && openedBy == thisProcess(); }

bool SystemCfgManager::checkOpen(const char* function) const {
    return isOpen() || KORVO_FAIL(function, "SystemCfgManager not initialized");
}

bool SystemCfgManager::checkWritable(const char* function) const {
    if (!checkOpen(function)) return false;
    return !emptiedByRead || KORVO_FAIL(function, "Failed to serialize variant to key-value pairs");
}

bool SystemCfgManager::init() {
    if (isOpen()) return KORVO_FAIL(__func__, "SystemCfgManager already initialized");
    initialized = false;
    changed = false;
    if (!configuration::acquireLock(*mutex, __func__)) return false;
    // Also when memory runs out while reading.
    const auto giveBack = [](InterProcessMutex* held) { (void)held->release(); };
    std::unique_ptr<InterProcessMutex, decltype(giveBack)> lock(mutex.get(), giveBack);
    if (!read()) {
        lock.reset();
        return KORVO_FAIL(__func__, "Failed to read system.cfg into variant");
    }
    (void)lock.release();
    openedBy = thisProcess();
    initialized = true;
    return true;
}

bool SystemCfgManager::read() {
    std::string text;
    if (!configuration::readFile(text, __func__)) return false;
    configuration::toTreeText(text, escapeIndexKeys);
    emptiedByRead = true;  // also when memory runs out
    variant->Reset();
    if (!variant->FromKVP(text, true, valuesAsStrings, fromKvpFlag))
        return KORVO_FAIL(__func__, "Failed to deserialize system.cfg file");
    emptiedByRead = false;
    return true;
}

bool SystemCfgManager::write() {
    return checkWritable(__func__) && writeTree(*variant, escapeIndexKeys, *mutex);
}

bool SystemCfgManager::getVariant(Variant& out) {
    if (!checkOpen(__func__)) return false;
    out = *variant;
    return true;
}

void SystemCfgManager::markChanged() {
    if (!checkOpen(__func__)) return;
    changed = true;
    if (variant != &ownTree) emptiedByRead = false;  // the host has filled its tree again
}

void SystemCfgManager::getLastNode(const std::string& key, Variant*& node, std::string& lastKey) {
    node = makeParent(*variant, escapeIndexKeys, key, lastKey);
}

bool SystemCfgManager::getSystemCfgValue(const std::string& key, VariantType type, Variant** value) {
    Variant* found = nullptr;
    const bool accepted = findValue(*variant, key, type, found);
    if (value != nullptr) *value = found;
    return accepted;
}

bool SystemCfgManager::get(const std::string& key, int* value, bool* notFound) {
    if (!checkOpen(__func__)) return false;
    if (value != nullptr) *value = -1;
    Variant* node = nullptr;
    if (!findValue(*variant, key, integerType(valuesAsStrings), node))
        return KORVO_FAIL(__func__, "Failed to get system.cfg key %s", key.c_str());
    if (notFound != nullptr) *notFound = node == nullptr;
    if (value != nullptr && node != nullptr) *value = toInt(*node);
    return true;
}

bool SystemCfgManager::get(const std::string& key, std::string* value, bool* notFound) {
    if (!checkOpen(__func__)) return false;
    Variant* node = nullptr;
    const bool accepted = findValue(*variant, key, TypeString, node) ||
                          KORVO_FAIL(__func__, "Failed to get system.cfg key %s", key.c_str());
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
    if (!checkWritable("set")) return false;
    bool differs = false;
    if (!storeValue(*variant, escapeIndexKeys, key, value, differs))
        return KORVO_FAIL("set", "Failed to set system.cfg key %s", key.c_str());
    changed = changed || differs;
    if (valueChanged != nullptr) *valueChanged = differs;
    return write();
}

bool SystemCfgManager::apply(const std::vector<Change>& changes, bool* valuesChanged) {
    if (!checkWritable(__func__)) return false;
    // In a copy, which takes the tree's place once it is written.
    Variant edited = *variant;
    std::set<std::string_view> keys;
    for (const Change& change : changes) {
        if (!keys.insert(change.key).second || !makeChange(edited, escapeIndexKeys, change))
            return KORVO_FAIL(__func__, "Failed to set system.cfg key %s", change.key.c_str());
    }
    // By what they come to in the end: to remove a group and store it anew need not wear the flash.
    const bool differs = !sameLines(*variant, edited);
    if (!writeTree(edited, escapeIndexKeys, *mutex)) return false;
    *variant = std::move(edited);
    changed = changed || differs;
    if (valuesChanged != nullptr) *valuesChanged = differs;
    return true;
}

bool SystemCfgManager::close(bool saveToFlash, bool forceSave) {
    if (!checkOpen(__func__)) return false;
    const bool save = forceSave || (changed && saveToFlash);
    if (save && !countFlashWrite()) return KORVO_FAIL(__func__, "Failed to read flash write cycles");
    if ((save || changed) && !write()) return KORVO_FAIL(__func__, "Failed to write system.cfg from variant");
    if (save && !utils::saveToFlashRaw(false)) return KORVO_FAIL(__func__, "Failed to save to flash");
    initialized = false;
    const int result = mutex->release();
    return result == 0 || KORVO_FAIL(__func__, "Failed to release system.cfg mutex, res=%d", result);
}

bool SystemCfgManager::countFlashWrite() {
    Variant* stored = nullptr;
    (void)findValue(*variant, configuration::flashCyclesKey, integerType(valuesAsStrings),
                    stored);  // the key is well-formed
    const int count = stored != nullptr ? toCount(*stored) : 0;
    return set(configuration::flashCyclesKey, std::min(count, INT_MAX - 1) + 1, nullptr);
}
