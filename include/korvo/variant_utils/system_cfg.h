/**
 * @file
 * The device's working configuration, "/tmp/system.cfg": locked, typed access by dotted key.
 *
 * @code
 * SystemCfgManager store;
 * return store.init() &&                                       // takes the lock, loads the file
 *        store.set("network.http.port", 8080, nullptr) &&      // changes it, writes the file
 *        store.close(true, false);                             // saves to flash if it changed, unlocks
 * @endcode
 */
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"

class InterProcessMutex;

/**
 * One use of the configuration file, exclusive between init() and close().
 *
 * The file has one `key=value` line per value; the components of the key between dots name nested maps.
 * Loading takes a value that is as a whole enabled, enable or on for 1, and disabled, disable or off for 0;
 * these words are not written back. Every other pair is written as it was loaded, in the order of the tree's
 * keys; comments and blank lines are dropped.
 *
 * Index components, when they are escaped: a component after a dot that begins with a digit 1 to 4 has an
 * underscore before it in the tree, `a.1.b` being member b of member `_1` of a. One that begins with
 * underscores and such a digit has one underscore more, so that the file's `a.1` and `a._1` stay two keys.
 * Keys given to get() and set() are those of the tree.
 *
 * Keys are refused, with an error logged, when they are empty or have an empty component, more than 64
 * components, or a component that begins with "#" or holds "/", "[", "]", "=" or a control character. set()
 * also refuses what could not be written or loaded again: a value with a line feed or a zero byte in it or a
 * carriage return at its end, a key below a key that has a value, a key that looks like an indexed member of
 * a tree that the host filled, and, when index components are escaped, one that lacks its underscore. What is
 * refused leaves no trace.
 *
 * Writing replaces the file in one step: every reader sees the old text or the new one, whole, also when the
 * process is killed. That is not durable; the flash copy that close() makes is. So "/tmp" is best a tmpfs: on
 * flash every set() would wear it. The new file keeps the permission bits of the old one, its group where the
 * process may, and its owner where the process may; where the group cannot be kept, the new one gets no
 * access that others did not have. A failed write leaves no temporary file; the process id is part of its
 * name, so a killed process may leave one, which the next process of that id replaces.
 *
 * Processes: the lock is the InterProcessMutex "system.cfg". It is free again when its holder dies. In a
 * child made by fork an open manager is not initialized, and the parent's stays open. Where the lock is lost
 * in spite of that, because its file was removed or the host has closed all its descriptors, nothing is
 * written any more: somebody else may have changed the configuration meanwhile.
 *
 * Threads: an object must not be used by two threads at once. Two objects of one process exclude one another:
 * init() waits for another thread's object, and fails where the object is the same thread's. A thread that is
 * cancelled inside of a call leaves nothing half done.
 *
 * Signals are the host's business: a configuration that outgrows RLIMIT_FSIZE raises SIGXFSZ, and a message
 * on a standard error that is a broken pipe SIGPIPE; both end a process that does not ignore them.
 *
 * Errors are logged and returned as false. Out-parameters may be null, and texts may be texts inside of the
 * tree. Nothing is thrown but std::bad_alloc.
 */
class KORVO_VARIANT_UTILS_EXPORT SystemCfgManager {
  public:
    /** One change for apply(). */
    struct Change {
        std::string key;                   ///< dotted
        std::optional<std::string> value;  ///< none removes the key and all below it
    };

    /** Why a text does not load. */
    struct Fault {
        std::size_t line;    ///< counted from 1; 0 when it is the text as a whole
        std::string reason;  ///< in English, without the line, such as `there is no "="`
    };

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

    /**
     * Waits for the lock, without a time limit, and loads the file. After a failure the lock is not held,
     * except where the manager is open already: then it stays open. What is no plain file is refused.
     */
    [[nodiscard]] bool init();

    /**
     * Loads the file; changes to the tree that were not written are lost. Neither takes the lock nor needs
     * it. When the text is no key=value text the tree is empty afterwards; otherwise a failure leaves it as
     * it was. An emptied tree is not written, neither by write() nor by set() or close(), until a read() or
     * init() succeeds or the host, having filled a tree of its own again, calls markChanged().
     */
    [[nodiscard]] bool read();

    /** Writes the tree to the file, whether or not it changed. */
    [[nodiscard]] bool write();

    /** Copies the tree as it is held, with 1 and 0 for the boolean words and index components escaped. */
    [[nodiscard]] bool getVariant(korvo::variant::Variant& out);

    /** Makes close() save a tree that the host changed itself. */
    void markChanged();

    /**
     * Reads an integer.
     *
     * Held as strings, the value is that of the text's leading decimal digits, after white space and a sign;
     * 0 when there are none; texts outside of int give the nearest int. Held as numbers, it is the number as
     * int, which loses the upper bits of one that is wider.
     *
     * @param key       dotted
     * @param value     receives the integer; -1 when there is none
     * @param notFound  receives whether the key is missing or its value is of another type
     * @return true also when the key is missing; false when the manager is not open, which leaves the
     *         out-parameters alone, or the key is refused, which leaves only @p notFound alone
     */
    [[nodiscard]] bool get(const std::string& key, int* value, bool* notFound);

    /** Reads a string, likewise; @p value receives the empty text when there is none. */
    [[nodiscard]] bool get(const std::string& key, std::string* value, bool* notFound);

    /**
     * Stores an integer, as decimal text when values are held as strings, and writes the file also when
     * nothing changed. What the key held before, a map included, is replaced. When writing fails the tree
     * keeps the new value, for a later write() or close().
     *
     * @param key           dotted
     * @param value         the integer
     * @param valueChanged  receives whether the value differed; left alone when the key is refused
     * @return whether the file was written; false also when the key or the value is refused
     */
    [[nodiscard]] bool set(const std::string& key, int value, bool* valueChanged);

    /** Stores a string, likewise. */
    [[nodiscard]] bool set(const std::string& key, const std::string& value, bool* valueChanged);

    /**
     * Makes many changes, in their order, and writes the file once, also when nothing changed. A change
     * without a value removes a key and all below it, where there is something; one with a value does what
     * set() does. Until it is loaded again the tree keeps null under a removed key, for which get() tells
     * that there is none.
     *
     * All or nothing: when a key or a value is refused, a key is given twice, or writing fails, the tree, the
     * file and @p valuesChanged stay as they were. In the end the tree is another one, so that references
     * into a borrowed one are no longer valid.
     *
     * Like every function here that writes the file, it leaves in errno why the file could not be opened,
     * written or moved; ESTALE when the lock was lost.
     *
     * @param changes        the changes; texts, whatever the manager holds values as
     * @param valuesChanged  receives whether the file has other pairs than before
     */
    [[nodiscard]] bool apply(const std::vector<Change>& changes, bool* valuesChanged);

    /**
     * Ends the use of the store.
     *
     * A tree that changed is written; with @p saveToFlash it is also copied to flash. @p forceSave does both
     * in any case. Each copy is counted first, in the key "system.flash.cycles", up to the largest int.
     *
     * @return false when something failed. The manager is then still open and holds the lock, unless it was
     *         releasing the lock that failed
     */
    [[nodiscard]] bool close(bool saveToFlash, bool forceSave);

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
    [[nodiscard]] bool getSystemCfgValue(const std::string& key, korvo::variant::VariantType type,
                                         korvo::variant::Variant** value);

    /** @name The life of a configuration
     * For what happens before there is a configuration to open, and after. Both wait for the lock, and fail
     * where this thread has the store open. When they fail the file is as it was, with the reason logged.
     * @{ */

    /**
     * The way back after a power-up: where "/tmp/system.cfg" is missing, puts the flash copy in its place,
     * or, when that is missing too, does not load or holds nothing, the file @p defaults. To be called before
     * the services start.
     *
     * The text comes as it is, whole, in one step; the file has mode 0600 unless it replaces one, whose
     * access it then keeps. Only "system.flash.cycles" may be set: to the largest count that is told by the
     * working copy, the flash copy or @p defaults, also by one that is damaged.
     *
     * @param defaults  path of the factory settings, as it is, not below the device root; may be empty
     * @param replace   whether a working copy that is there is replaced
     * @return true also when there was a working copy that loads and nothing was done; false when there is
     *         one that does not load, or nothing to put in its place
     */
    [[nodiscard]] static bool restore(const std::string& defaults, bool replace);

    /**
     * Factory settings: puts the file @p defaults in the place of "/tmp/system.cfg", whatever state that is
     * in. Of what was set before, only the count of flash writes stays, as with restore(). The flash copy
     * stays as it is until the configuration is saved.
     *
     * @param defaults  path of the factory settings, as it is, not below the device root
     */
    [[nodiscard]] static bool reset(const std::string& defaults);
    /** @} */

    /** @name Texts, keys and values
     * For programs that look at a configuration without using the store. They take no lock and touch no file.
     * @{ */

    /**
     * Loads a text as read() loads the file, with every value held as a string.
     *
     * @param text    the text of a configuration
     * @param tree    receives the tree; null when the text does not load
     * @param faults  what keeps the text from loading is added to it, in the order of the lines
     */
    [[nodiscard]] static bool load(const std::string& text, korvo::variant::Variant& tree,
                                   std::vector<Fault>* faults);

    /**
     * The pairs of a text as changes, in the order of the lines and with the values as they are written,
     * boolean words too. A text is refused when it does not load, or has a key or a value that set() refuses.
     *
     * @param text     the text of a configuration or a part of one
     * @param changes  the changes are added to it, when the text is accepted; of a repeated key there are two
     * @param faults   why the text is refused is added to it, in the order of the lines
     */
    [[nodiscard]] static bool parse(const std::string& text, std::vector<Change>& changes,
                                    std::vector<Fault>* faults);

    /** Which rule a key breaks, such as "it is empty"; null for a key that is well-formed. */
    [[nodiscard]] static const char* keyFault(const std::string& key);

    /** Which rule a value breaks, such as "it holds a line break"; null for one that may be stored. */
    [[nodiscard]] static const char* valueFault(const std::string& value);
    /** @} */

  private:
    KORVO_VARIANT_UTILS_PRIVATE bool isOpen() const;
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool checkOpen(const char* function) const;
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool checkWritable(const char* function) const;
    template <class Value>
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool setValue(const std::string& key, const Value& value,
                                                            bool* valueChanged);
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool countFlashWrite();

    bool initialized;
    bool changed;
    bool escapeIndexKeys;
    bool valuesAsStrings;
    bool fromKvpFlag;
    korvo::variant::Variant ownTree;   ///< null when the tree is the caller's
    korvo::variant::Variant* variant;  ///< the tree: that one or the caller's
    std::unique_ptr<InterProcessMutex> mutex;
    std::pair<unsigned, int> openedBy;  ///< the process; a forked child inherits the object but not the lock
    bool emptiedByRead;                 ///< the tree is not the file's content but what a failed read() left
};
