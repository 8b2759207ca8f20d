#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

#include "configuration_file.h"
#include "configuration_text.h"
#include "korvo/utils/device_root.h"
#include "korvo/utils/flash.h"
#include "korvo/utils/text.h"
#include "korvo/variant_utils/system_cfg.h"

namespace configuration = korvo::configuration;
namespace utils = korvo::utils;
using configuration::Call;
using configuration::Components;
using korvo::fail;
using korvo::Failure;
using korvo::Step;
using korvo::variant::TypeAny;
using korvo::variant::TypeArray;
using korvo::variant::TypeMap;
using korvo::variant::TypeNull;
using korvo::variant::TypeNumeric;
using korvo::variant::TypeString;
using korvo::variant::Variant;
using korvo::variant::VariantType;

namespace {

bool refuse(const Call& call, Step step, const char* reason, const char* message) {
    return call.fail({step, 0, "", 0, reason}, message);
}

bool failToSerialize(const Call& call, const char* reason) {
    return refuse(call, Step::Serialize, reason, "Failed to serialize variant to key-value pairs");
}

// Keys

bool isContainer(const Variant& node) {
    const VariantType type = node;
    return type == TypeMap || type == TypeArray;
}

std::string bracketed(const std::string& component) { return utils::format("[%s]", component.c_str()); }

/** The member of a node that a component of a key names; null when there is none of the type. */
Variant* findMember(Variant& node, const std::string& component, VariantType type) {
    // In brackets a letter is a text key in every variant library; bare, it need not be.
    const bool letter = component.size() == 1 && std::isalpha(static_cast<unsigned char>(component[0])) != 0;
    return node.GetKeyChain(type, letter ? bracketed(component).c_str() : component.c_str(), true);
}

/** The value under a key; null when there is none. False when the key is refused. */
[[nodiscard]] bool findValue(Variant& root, const std::string& key, VariantType type, Variant*& value,
                             Failure& failure) {
    value = nullptr;
    if (const char* const fault = configuration::pathFault(key))
        return fail(&failure, {Step::Key, 0, key, 0, fault});
    Variant* node = &root;
    for (Components at{key}; node != nullptr && at.next();)
        node = findMember(*node, at.name, at.isLast() ? type : TypeAny);
    value = node;
    return true;
}

/** Why the tree could not be written if a node had a member of that name; null if it could. */
const char* obstacle(Variant& node, const std::string& name) {
    if (static_cast<VariantType>(node) == TypeNull) return nullptr;
    if (!isContainer(node)) return " has a value, so nothing can be below it";
    // In a tree that a host filled, an indexed member may have a line of that name already.
    const long long index = std::strtoll(name.c_str(), nullptr, 10);
    if (utils::format("%lld", index) != name) return nullptr;
    const Variant* indexed = node.GetKeyChain(TypeAny, bracketed(name).c_str(), true);
    if (indexed == nullptr || indexed == findMember(node, name, TypeAny)) return nullptr;
    return " has an indexed member of that name";
}

/**
 * Finds the map to store a value in, and the last component of the key. Makes the map and its parents where
 * they are missing. Null, with nothing made, when the key is refused.
 */
Variant* makeParent(Variant& root, bool escapeIndexKeys, const std::string& key, std::string& lastKey,
                    Failure& failure) {
    const char* fault = SystemCfgManager::keyFault(key);
    if (fault == nullptr && escapeIndexKeys && configuration::hasBareIndex(key))
        fault = "an index component of it has no underscore";
    if (fault != nullptr) {
        (void)fail(&failure, {Step::Key, 0, key, 0, fault});
        return nullptr;
    }
    Variant* node = &root;
    for (Components at{key}; at.next(); node = &(*node)[at.name]) {
        // An obstacle is an existing node, so nothing has been made yet.
        if (const char* const reason = obstacle(*node, at.name)) {
            const std::string path = key.substr(0, at.begin == 0 ? 0 : at.begin - 1);
            const char* const format = path.empty() ? "the tree%s%s" : "\"%s\"%s";
            (void)fail(&failure, {Step::Key, 0, key, 0, utils::format(format, path.c_str(), reason)});
            return nullptr;
        }
        if (!isContainer(*node)) node->IsArray(false);
        if (!at.isLast()) continue;
        lastKey = std::move(at.name);  // last: it may be the key itself
        break;
    }
    return node;
}

// Values

/** A text or an integer as the tree holds it. */
template <class Value>
Variant held(const Value& value) {
    Variant holder;
    holder = value;
    return holder;
}

/** The integer that get() returns for a value. */
int toInt(const Variant& value) {
    const VariantType type = value;
    return type == TypeString ? configuration::clampedInt(value) : static_cast<int>(value);
}

/** The count in a value: the nearest int, where get() loses the upper bits. */
int toCount(const Variant& value) {
    const VariantType type = value;
    const double number = type == TypeString ? 0 : static_cast<double>(value);
    return number >= INT_MAX ? INT_MAX : number <= INT_MIN ? INT_MIN : toInt(value);
}

/** Stores a text or an integer, unless the key holds an equal one. False when key or value is refused. */
[[nodiscard]] bool storeValue(Variant& root, bool escapeIndexKeys, const std::string& key, Variant value,
                              bool& differs, Failure& failure) {
    const bool isText = static_cast<VariantType>(value) == TypeString;
    const std::string& text = value;
    if (const char* const reason = isText ? SystemCfgManager::valueFault(text) : nullptr)
        return fail(&failure, {Step::Value, 0, key, 0, reason});
    std::string lastKey;
    Variant* const parent = makeParent(root, escapeIndexKeys, key, lastKey, failure);
    if (parent == nullptr) return false;
    const Variant* const stored = findMember(*parent, lastKey, isText ? TypeString : TypeNumeric);
    differs = stored == nullptr || (isText ? static_cast<const std::string&>(*stored) != text
                                           : static_cast<int>(*stored) != static_cast<int>(value));
    if (differs) (*parent)[lastKey] = std::move(value);
    return true;
}

/** Sets what is under a key to null, which has no line in the file. The key may break any rule. */
void remove(Variant& root, const std::string& key) {
    Variant* node = &root;
    for (Components at{key}; node != nullptr && at.next();) {
        if (configuration::pathFault(at.name) == nullptr)
            node = findMember(*node, at.name, TypeAny);
        else
            node = static_cast<VariantType>(*node) == TypeMap ? &(*node)[at.name] : nullptr;
    }
    if (node != nullptr) node->Reset();
}

/** Makes one change in a tree. False when it is refused. */
[[nodiscard]] bool makeChange(Variant& root, bool escapeIndexKeys, const SystemCfgManager::Change& change,
                              Failure& failure) {
    bool differs = false;
    if (change.value)
        return storeValue(root, escapeIndexKeys, change.key, held(*change.value), differs, failure);
    remove(root, change.key);
    return true;
}

// Trees

/** Makes the file's text of a tree. */
[[nodiscard]] bool makeText(const Variant& tree, bool escapeIndexKeys, std::string& text, Failure& failure) {
    return (tree.ToKVP(text, "=", "\n") && (!escapeIndexKeys || configuration::toFileText(text))) ||
           failToSerialize({"write", failure}, "the tree cannot be written as key=value text");
}

/** Puts a text in the place of the file, under the lock. */
[[nodiscard]] bool replaceFile(const std::string& text, const InterProcessMutex& lock, Failure& failure) {
    configuration::Replacement file(lock, failure);
    return file.write(text, nullptr) && file.commit();
}

}  // namespace

SystemCfgManager::SystemCfgManager() : SystemCfgManager(&ownTree, false, true, true) {}

SystemCfgManager::SystemCfgManager(Variant* tree, bool escape, bool asStrings, bool lastKvpFlag)
    : escapeIndexKeys(escape),
      valuesAsStrings(asStrings),
      fromKvpFlag(lastKvpFlag),
      variant(tree),
      mutex(std::make_unique<InterProcessMutex>(utils::configurationLock, true)) {}

SystemCfgManager::~SystemCfgManager() {
    try {
        if (isOpen()) (void)close(false, false);
    } catch (const std::bad_alloc&) {
        // The file stays as it was.
    }
}

// A forked child has inherited the object but not the lock, which a reader does not need.
bool SystemCfgManager::isOpen() const { return readOnly || (initialized && mutex->acquired()); }

bool SystemCfgManager::check(Need need, const char* function) {
    const Call call{function, lastFailure};
    if (need == Need::Closed)
        return !isOpen() || refuse(call, Step::State, "the configuration is open already",
                                   "SystemCfgManager already initialized");
    const bool forReading = readOnly && need != Need::Open;
    if (forReading || !isOpen())
        return refuse(
            call, Step::State,
            forReading ? "the configuration is open for reading only" : "the configuration is not open",
            "SystemCfgManager not initialized");
    return need != Need::Tree || !emptiedByRead ||
           failToSerialize(call, "a failed read has emptied the tree");
}

const Failure& SystemCfgManager::failure() const { return lastFailure; }

/** Call it last: a key may be a text of the previous failure. */
bool SystemCfgManager::succeed() { return !fail(&lastFailure, {Step::None}); }

bool SystemCfgManager::init() {
    const Call call{__func__, lastFailure};
    if (!check(Need::Closed, __func__)) return false;
    initialized = changed = notSaved = false;
    if (!configuration::acquireLock(*mutex, call)) return false;
    // Releases the lock if reading throws.
    const auto giveBack = [](InterProcessMutex* held) { (void)held->release(); };
    std::unique_ptr<InterProcessMutex, decltype(giveBack)> lock(mutex.get(), giveBack);
    if (!read()) {
        lock.reset();
        return call.logFailure("Failed to read system.cfg into variant");
    }
    (void)lock.release();
    initialized = true;
    return succeed();
}

bool SystemCfgManager::initReadOnly() {
    if (!check(Need::Closed, __func__)) return false;
    readOnly = read();
    return readOnly || Call{__func__, lastFailure}.logFailure("Failed to read system.cfg into variant");
}

bool SystemCfgManager::read() {
    const Call call{__func__, lastFailure};
    std::string text;
    if (!configuration::readFile(text, call)) return false;
    const std::string treeText = configuration::treeText(text, escapeIndexKeys);
    // A reader keeps what it has until the new text is loaded.
    Variant loaded;
    Variant& tree = readOnly ? loaded : *variant;
    emptiedByRead = !readOnly;  // even if memory runs out
    tree.Reset();
    if (!tree.FromKVP(treeText, true, valuesAsStrings, fromKvpFlag)) {
        // Another variant library's FromKVP() may refuse what load() accepts.
        const std::string path = configuration::path();
        if (configuration::loads(text, path, &lastFailure))
            (void)fail(&lastFailure, {Step::Load, 0, path, 0, "it is no key=value text"});
        return call.logFailure("Failed to deserialize system.cfg file");
    }
    if (readOnly) *variant = std::move(loaded);
    emptiedByRead = false;
    return succeed();
}

bool SystemCfgManager::write() {
    std::string text;
    return check(Need::Tree, __func__) && makeText(*variant, escapeIndexKeys, text, lastFailure) &&
           replaceFile(text, *mutex, lastFailure) && succeed();
}

bool SystemCfgManager::getVariant(Variant& out) {
    if (!check(Need::Open, __func__)) return false;
    out = *variant;
    return succeed();
}

void SystemCfgManager::markChanged() {
    if (!check(Need::Lock, __func__)) return;
    changed = true;
    if (variant != &ownTree) emptiedByRead = false;  // the host has filled its tree again
    (void)succeed();
}

void SystemCfgManager::getLastNode(const std::string& key, Variant*& node, std::string& lastKey) {
    node = makeParent(*variant, escapeIndexKeys, key, lastKey, lastFailure);
    if (node == nullptr) lastKey.clear();
    if (node != nullptr) (void)succeed();
}

bool SystemCfgManager::getSystemCfgValue(const std::string& key, VariantType type, Variant** value) {
    Variant* found = nullptr;
    const bool accepted = findValue(*variant, key, type, found, lastFailure);
    if (value != nullptr) *value = found;
    return accepted && succeed();
}

bool SystemCfgManager::find(const std::string& key, VariantType type, Variant*& node, bool* notFound) {
    if (!findValue(*variant, key, type, node, lastFailure))
        return Call{"get", lastFailure}.logFailure("Failed to get system.cfg key %s", key.c_str());
    if (notFound != nullptr) *notFound = node == nullptr;
    return true;
}

bool SystemCfgManager::get(const std::string& key, int* value, bool* notFound) {
    if (!check(Need::Open, __func__)) return false;
    Variant* node = nullptr;
    const bool accepted = find(key, valuesAsStrings ? TypeString : TypeNumeric, node, notFound);
    if (value != nullptr) *value = node != nullptr ? toInt(*node) : -1;
    return accepted && succeed();
}

bool SystemCfgManager::get(const std::string& key, std::string* value, bool* notFound) {
    if (!check(Need::Open, __func__)) return false;
    Variant* node = nullptr;
    const bool accepted = find(key, TypeString, node, notFound);
    // Last: `key` may be `*value`.
    if (value != nullptr) *value = node != nullptr ? static_cast<const std::string&>(*node) : std::string();
    return accepted && succeed();
}

bool SystemCfgManager::set(const std::string& key, int value, bool* valueChanged) {
    return valuesAsStrings ? set(key, utils::format("%d", value), valueChanged)
                           : store(key, held(value), valueChanged);
}

bool SystemCfgManager::set(const std::string& key, const std::string& value, bool* valueChanged) {
    return store(key, held(value), valueChanged);
}

bool SystemCfgManager::store(const std::string& key, Variant value, bool* valueChanged) {
    if (!check(Need::Tree, "set")) return false;
    bool differs = false;
    if (!storeValue(*variant, escapeIndexKeys, key, std::move(value), differs, lastFailure))
        return Call{"set", lastFailure}.logFailure("Failed to set system.cfg key %s", key.c_str());
    changed = changed || differs;
    if (valueChanged != nullptr) *valueChanged = differs;
    return write();
}

bool SystemCfgManager::apply(const std::vector<Change>& changes, bool* valuesChanged) {
    if (!check(Need::Tree, __func__)) return false;
    // In a copy, which takes the tree's place once it is written.
    Variant edited = *variant;
    Variant given;
    for (const Change& change : changes) {
        Variant& mark = given[change.key];
        const bool isTwice = static_cast<VariantType>(mark) != TypeNull;
        mark = true;
        if (isTwice) (void)fail(&lastFailure, {Step::Key, 0, change.key, 0, "it is given twice"});
        if (isTwice || !makeChange(edited, escapeIndexKeys, change, lastFailure))
            return Call{__func__, lastFailure}.logFailure("Failed to set system.cfg key %s",
                                                          change.key.c_str());
    }
    // Compare the results: removing a group and storing it again need not wear flash.
    std::string text;
    std::string before;
    if (!makeText(edited, escapeIndexKeys, text, lastFailure)) return false;
    const bool differs = !(variant->ToKVP(before, "=", "\n") &&
                           (!escapeIndexKeys || configuration::toFileText(before)) && before == text);
    if (!replaceFile(text, *mutex, lastFailure)) return false;
    *variant = std::move(edited);
    notSaved = notSaved || differs;
    if (valuesChanged != nullptr) *valuesChanged = differs;
    return succeed();
}

bool SystemCfgManager::close(bool saveToFlash, bool forceSave) {
    if (!check(Need::Open, __func__)) return false;
    if (readOnly) {
        const bool done = !forceSave || check(Need::Lock, __func__);
        readOnly = false;
        return done && succeed();
    }
    const Call call{__func__, lastFailure};
    // What apply() changed is in the file already; storing the count writes it again.
    const bool toWrite = forceSave || changed;
    const bool save = forceSave || (saveToFlash && (changed || notSaved));
    if (save && !countFlashWrite()) return call.logFailure("Failed to read flash write cycles");
    if (toWrite && !write()) return call.logFailure("Failed to write system.cfg from variant");
    if (save && !utils::saveToFlashRaw(false))
        return call.fail({Step::Save, errno, utils::flashCopyPath()}, "Failed to save to flash");
    initialized = false;
    const int result = mutex->release();
    if (result == 0) return succeed();
    return call.fail({Step::Unlock, result, configuration::lockPath()},
                     "Failed to release system.cfg mutex, res=%s", utils::format("%d", result).c_str());
}

bool SystemCfgManager::countFlashWrite() {
    Variant* stored = nullptr;
    (void)findValue(*variant, configuration::flashCyclesKey, valuesAsStrings ? TypeString : TypeNumeric,
                    stored,
                    lastFailure);  // the key is well-formed
    const int count = stored != nullptr ? toCount(*stored) : 0;
    return set(configuration::flashCyclesKey, std::min(count, INT_MAX - 1) + 1, nullptr);
}
