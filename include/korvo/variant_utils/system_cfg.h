/**
 * @file
 * The device's working configuration, "/tmp/system.cfg": locked, typed access by dotted key.
 *
 * @code
 * SystemCfgManager store;
 * if (!store.init()) return false;                       // takes the lock, loads the file
 * store.set("network.http.port", 8080, nullptr);         // changes it, writes the file
 * return store.close(true, false);                       // saves to flash when something changed, unlocks
 * @endcode
 */
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"

class InterProcessMutex;

/**
 * One use of the configuration file, exclusive between init() and close().
 *
 * The file has one `key=value` line per value; the components of the key between dots name nested maps.
 * Loading takes a value that is as a whole enabled, enable or on for 1, and disabled, disable or off for 0;
 * these words are not written back. Every other pair is written as it was loaded, in the order of the keys;
 * comments and blank lines are dropped.
 *
 * Index components, when they are escaped: a component behind a dot that begins with a digit 1 to 4 has an
 * underscore before it in the tree, `a.1.b` being member b of member `_1` of a. One that begins with
 * underscores and such a digit has one underscore more, so that the file's `a.1` and `a._1` stay two keys.
 * Keys given to get() and set() are those of the tree.
 *
 * Keys are refused, with an error logged, when they are empty or have an empty component, more than 64
 * components, or a component that begins with "#" or holds "/", "[", "]", "=" or a control character. set()
 * also refuses what could not be written or loaded again: a value with a line break or a zero byte, a key
 * below a key that has a value, a key that looks like an indexed member of a tree that the host filled, and,
 * when index components are escaped, one that lacks its underscore. What is refused leaves no trace.
 *
 * Writing replaces the file in one step: every reader sees the old text or the new one, whole, also when the
 * process is killed. That is not durable; the flash copy that close() makes is. The new file keeps the
 * permission bits of the old one, and its owner where the process may. A failed write leaves no temporary
 * file; the process id is part of its name, so a killed process may leave one.
 *
 * Processes: the lock is the InterProcessMutex "system.cfg". It is free again when its holder dies. In a
 * child made by fork an open manager is not initialized, and the parent's stays open.
 *
 * Threads: an object must not be used by two threads at once. Two objects of one process exclude one another:
 * init() waits for another thread's object, and fails where the object is the same thread's.
 *
 * Errors are logged and returned as false. Out-parameters may be null. Nothing is thrown but std::bad_alloc.
 */
class KORVO_VARIANT_UTILS_EXPORT SystemCfgManager {
  public:
    /** With a tree of its own, every value held as a string, and index components as they are. */
    SystemCfgManager();

    /**
     * With the caller's tree, which must outlive the manager. init() replaces its content; between init() and
     * close() the caller may read and change it, and calls markChanged() after a change.
     *
     * @param variant          not null
     * @param escapeIndexKeys  whether index components are escaped (see above)
     * @param valuesAsStrings  true holds every value as a string, false holds numbers as numbers
     * @param fromKvpFlag      passed to Variant::FromKVP() as its last argument
     */
    SystemCfgManager(korvo::variant::Variant* variant, bool escapeIndexKeys, bool valuesAsStrings,
                     bool fromKvpFlag);
    SystemCfgManager(const SystemCfgManager&) = delete;
    SystemCfgManager& operator=(const SystemCfgManager&) = delete;

    /** Does what close(false, false) does when the manager is open, and gives the lock back in any case. */
    ~SystemCfgManager();

    /** Waits for the lock and loads the file. After a failure the lock is not held. */
    bool init();

    /**
     * Loads the file; changes to the tree that were not written are lost. Neither takes the lock nor needs
     * it. When the text is no key=value text the tree is empty afterwards; otherwise a failure leaves it as
     * it was.
     */
    bool read();

    /** Writes the tree to the file, whether or not it changed. */
    bool write();

    /** Copies the tree as it is held, with 1 and 0 for the boolean words and index components escaped. */
    bool getVariant(korvo::variant::Variant& out);

    /** Makes close() save a tree that the host changed itself. */
    void markChanged();

    /**
     * Reads an integer.
     *
     * Held as strings, the value is that of the text's leading decimal digits, behind white space and a sign;
     * 0 when there are none; texts outside of int give the nearest int. Held as numbers, it is the number as int.
     *
     * @param key       dotted
     * @param value     receives the integer; -1 when there is none
     * @param notFound  receives whether the key is missing or its value is of another type
     * @return true also when the key is missing; false when the manager is not open, which leaves the
     *         out-parameters alone, or the key is refused
     */
    bool get(const std::string& key, int* value, bool* notFound);

    /** Reads a string, likewise; @p value receives the empty text when there is none. */
    bool get(const std::string& key, std::string* value, bool* notFound);

    /**
     * Stores an integer, as decimal text when values are held as strings, and writes the file also when
     * nothing changed. What the key held before, a map included, is replaced. When writing fails the tree
     * keeps the new value, for a later write() or close().
     *
     * @param key           dotted
     * @param value         the integer
     * @param valueChanged  receives whether the value differed; left alone when the key is refused
     */
    bool set(const std::string& key, int value, bool* valueChanged);

    /** Stores a string, likewise. */
    bool set(const std::string& key, const std::string& value, bool* valueChanged);

    /**
     * Ends the use of the store.
     *
     * A tree that changed is written; with @p saveToFlash it is also copied to flash. @p forceSave does both
     * in any case. Each copy is counted first, in the key "system.flash.cycles", up to the largest int.
     *
     * @return false when something failed. The manager is then still open and holds the lock, unless it was
     *         releasing the lock that failed
     */
    bool close(bool saveToFlash, bool forceSave);

    /**
     * Finds the map for the last component of @p key, making it and its parents when they are missing.
     * @param key      dotted
     * @param node     receives the map; null when set() would refuse the key, and nothing is made then
     * @param lastKey  receives the last component; empty when the key is refused
     */
    void getLastNode(const std::string& key, korvo::variant::Variant*& node, std::string& lastKey);

    /**
     * Finds a value.
     * @param key    dotted
     * @param type   what it must be, as for Variant::GetKeyChain()
     * @param value  receives the value; null when there is none. May itself be null
     * @return false when the key is refused
     */
    bool getSystemCfgValue(const std::string& key, korvo::variant::VariantType type,
                           korvo::variant::Variant** value);

  private:
    KORVO_VARIANT_UTILS_PRIVATE bool isOpen() const;
    KORVO_VARIANT_UTILS_PRIVATE bool checkInitialized(const char* function);
    KORVO_VARIANT_UTILS_PRIVATE bool checkNotEmptied(const char* function);
    template <class Value>
    KORVO_VARIANT_UTILS_PRIVATE bool setValue(const std::string& key, const Value& value, bool* valueChanged);
    KORVO_VARIANT_UTILS_PRIVATE bool saveCounted();

    bool initialized;
    bool changed;
    bool variantBorrowed;
    bool escapeIndexKeys;
    bool valuesAsStrings;
    bool fromKvpFlag;
    korvo::variant::Variant* variant;
    std::unique_ptr<InterProcessMutex> mutex;
    std::pair<unsigned, int> openedBy;  ///< the process; a forked child inherits the object but not the lock
    bool emptiedByRead;                 ///< the tree is not the file's content but what a failed read() left
};
