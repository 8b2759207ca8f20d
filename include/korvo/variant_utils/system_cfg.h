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
 *
 * A service that only reads, and reads again after each change:
 * @code
 * SystemCfgWatch watch;
 * SystemCfgManager store;
 * if (!watch.start() || !store.initReadOnly()) return false;  // in this order, so that no change is missed
 * use(store);
 * while (watch.descriptor() >= 0) {
 *     pollfd changes = {watch.descriptor(), POLLIN, 0};
 *     (void)poll(&changes, 1, -1);
 *     if (watch.takeChange() && store.read()) use(store);
 * }
 * @endcode
 */
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korvo/variant/variant.h"
#include "korvo/variant_utils/export.h"
#include "korvo/variant_utils/failure.h"

class InterProcessMutex;
namespace korvo::configuration {
struct Call;
}

/**
 * One use of the configuration file, exclusive between init() and close(), or a reader of it.
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
 * also refuses what only a slip of the hand makes, a component that begins or ends with a blank and a byte
 * order mark at the beginning; and what could not be written or loaded again: a value with a line feed or a
 * zero byte in it or a carriage return at its end, a key below a key that has a value, a key that looks like
 * an indexed member of a tree that the host filled, and, when index components are escaped, one that lacks
 * its underscore. What is refused leaves no trace. Loading takes every key, and apply() can remove it.
 *
 * Writing replaces the file in one step: every reader sees the old text or the new one, whole, also when the
 * process is killed. That is not durable; the flash copy that close() makes is. So "/tmp" is best a tmpfs: on
 * flash every set() would wear it. The new file keeps the permission bits of the old one, its group where the
 * process may, and its owner where the process may; where the group cannot be kept, the new one gets no
 * access that others did not have. A failed write leaves no temporary file; the process id is part of its
 * name, so a killed process may leave one, which the next process of that id replaces. Whoever may write to
 * "/tmp" can make writing fail, by directories of such names. While the file is missing, whoever makes it first
 * is believed: restore() before anything untrusted runs.
 *
 * Processes: the lock is the InterProcessMutex "system.cfg". It is free again when its holder dies. In a
 * child made by fork an open manager is not initialized, and the parent's stays open; one that initReadOnly()
 * opened is open in both. Where the lock is lost in spite of that, because its file was removed or the host
 * has closed all its descriptors, nothing is written any more: somebody else may have changed the
 * configuration meanwhile.
 *
 * Threads: an object must not be used by two threads at once. Two objects of one process exclude one another:
 * init() waits for another thread's object, and fails where the object is the same thread's. A thread that is
 * cancelled inside of a call leaves nothing half done.
 *
 * Signals are the host's business: a configuration that outgrows RLIMIT_FSIZE raises SIGXFSZ, and a message
 * on a standard error that is a broken pipe SIGPIPE; both end a process that does not ignore them.
 *
 * Errors are logged and returned as false; failure() holds the reason as a value. Out-parameters may be null,
 * and texts may be texts inside of the tree or of the failure. Nothing is thrown but std::bad_alloc.
 */
class KORVO_VARIANT_UTILS_EXPORT SystemCfgManager {
  public:
    /** One change for apply(). */
    struct Change {
        std::string key;                   ///< dotted
        std::optional<std::string> value;  ///< none removes the key and all below it
    };

    /** What restore() has left in the place of the configuration. */
    enum class Restored {
        Kept,     ///< the working copy that was there
        Flash,    ///< the text of the flash copy
        Defaults  ///< the text of the factory settings
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
     * Why the last call failed; Step::None after one that succeeded. The static functions are no calls of a
     * manager; they have overloads that deliver their failure. Step::Write has ESTALE when the lock was lost.
     *
     * @return valid as long as the manager; the next call replaces its content
     */
    const korvo::Failure& failure() const;

    /**
     * Waits for the lock, without a time limit, and loads the file. After a failure the lock is not held,
     * except where the manager is open already: then it stays open. What is no plain file is refused.
     */
    [[nodiscard]] bool init();

    /**
     * Loads the file and opens the manager for reading: get(), getVariant() and getSystemCfgValue() work, and
     * read() loads the file again. set(), apply(), write() and markChanged() fail as if it were not open. It
     * takes no lock and writes nothing, so readers work beside a writer, on a read-only device, and for every
     * user who may read the file. After a failure the manager is not open, unless it was before.
     */
    [[nodiscard]] bool initReadOnly();

    /**
     * Loads the file; changes to the tree that were not written are lost. Neither takes the lock nor needs
     * it. After initReadOnly() a failure leaves the tree as it was. Otherwise, when the text is no key=value
     * text, the tree is empty afterwards; any other failure leaves it as it was. An emptied tree is not
     * written, neither by write() nor by set() or close(), until a read() or init() succeeds or the host,
     * having filled a tree of its own again, calls markChanged().
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
     * without a value removes a key and all below it, where there is something, also a key that get()
     * refuses; one with a value does what set() does. Until it is loaded again the tree keeps null under a removed key, for which get() tells
     * that there is none.
     *
     * All or nothing: when a key or a value is refused, a key is given twice, or writing fails, the tree, the
     * file and @p valuesChanged stay as they were. In the end the tree is another one, so that references
     * into a borrowed one are no longer valid.
     *
     * @param changes        the changes; texts, whatever the manager holds values as
     * @param valuesChanged  receives whether the file has other pairs than before
     */
    [[nodiscard]] bool apply(const std::vector<Change>& changes, bool* valuesChanged);

    /**
     * Ends the use of the store.
     *
     * A tree that changed is written; with @p saveToFlash it is also copied to flash. @p forceSave does both
     * in any case. Each copy is counted first, in the key "system.flash.cycles", up to the largest int. What
     * apply() changed is in the file already: with it alone nothing is written but the count.
     *
     * After initReadOnly() this writes nothing, always ends the reading, and is false only with @p forceSave.
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
     * The way back after a power-up: where "/tmp/system.cfg" is missing, or a regular file without any pair,
     * puts the flash copy in its place, or else the file @p defaults. Call it before the services start, and
     * before anything untrusted runs: while the file is missing, whoever makes it first is believed.
     *
     * The text comes as it is, whole, in one step. Only "system.flash.cycles" may be set: to the largest count
     * that the working copy, the flash copy, a damaged one or @p defaults tells. A text without any other pair
     * holds no settings.
     *
     * The flash copy:
     * - missing: @p defaults, on a first start.
     * - that cannot be read: tried again for a second. After that EACCES, EPERM, EMFILE, ENFILE and ENOMEM are
     *   a failure that changes nothing.
     * - that does not load, has no place for the count, cannot be read for another reason, is no regular file
     *   with one name, or belongs to neither root nor the owner of its directory: @p defaults. It is kept as
     *   "system.cfg.damaged" in its directory, in place of an older one; where its file system is read-only,
     *   it stays. If it cannot be kept, restore() fails and changes nothing.
     * - without settings: @p defaults.
     *
     * Whenever there was a flash copy once and @p defaults are taken, a warning is logged, also as long as
     * there is a damaged copy but no flash copy.
     *
     * Access: text from the flash copy comes with the owner, group and permission bits of that; if root owns
     * it, with the owner of its directory. Text from @p defaults keeps the access of a working copy of root's
     * or of that owner; otherwise it comes with owner and group of the directory, and the bits of the file
     * @p defaults without those for others. Each as far as the process may, see File::SetAccess().
     *
     * @param defaults  path of the factory settings, as it is, not below the device root; may be empty
     * @param replace   whether a working copy that is there is replaced, whatever it is but a directory
     * @return true also when there was a working copy that loads and nothing was done; false when there is
     *         one that does not load, cannot be read, is a link or has a second name, or when there is nothing
     *         to put in its place
     */
    [[nodiscard]] static bool restore(const std::string& defaults, bool replace);

    /**
     * The same, with the details.
     *
     * @param defaults   as above
     * @param replace    as above
     * @param restored   receives what stands in the place of the configuration; left alone on failure
     * @param flashCopy  receives why the flash copy was not taken: Step::Read, with ENOENT when there is none,
     *                   or Step::Load. The reason tells also what became of it; with ENOENT and no reason there
     *                   never was one. Step::None when it was taken or not needed
     * @param failure    receives why nothing was put in place, which may be a flash copy that cannot be read;
     *                   Step::None on success
     */
    [[nodiscard]] static bool restore(const std::string& defaults, bool replace, Restored* restored,
                                      korvo::Failure* flashCopy, korvo::Failure* failure);

    /**
     * Factory settings: puts the file @p defaults in the place of "/tmp/system.cfg", whatever that is but a
     * directory. Of what was set before, only the count of flash writes and the access stay, as with restore().
     * The flash copy stays as it is until the configuration is saved.
     *
     * @param defaults  path of the factory settings, as it is, not below the device root
     */
    [[nodiscard]] static bool reset(const std::string& defaults);

    /** The same; @p failure receives why nothing was put in place. */
    [[nodiscard]] static bool reset(const std::string& defaults, korvo::Failure* failure);
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
     * The pairs of a text as changes for apply(), in the order of the lines and with the values as they are
     * written, boolean words too. Of a repeated key the last line counts. A text is refused when it does not
     * load, or has a key or a value that set() refuses.
     *
     * @param text     the text of a configuration or a part of one
     * @param changes  the changes are added to it, when the text is accepted
     * @param faults   why the text is refused is added to it, in the order of the lines
     */
    [[nodiscard]] static bool parse(const std::string& text, std::vector<Change>& changes,
                                    std::vector<Fault>* faults);

    /** Which rule of set() a key breaks, such as "it is empty"; null for a key that is well-formed. */
    [[nodiscard]] static const char* keyFault(const std::string& key);

    /** Which rule a value breaks, such as "it holds a line break"; null for one that may be stored. */
    [[nodiscard]] static const char* valueFault(const std::string& value);
    /** @} */

  private:
    KORVO_VARIANT_UTILS_PRIVATE bool isOpen() const;
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool begin(const korvo::configuration::Call& call);
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool checkOpen(const char* function);
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool checkLocked(const char* function);
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool checkWritable(const char* function);
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool find(const std::string& key,
                                                        korvo::variant::VariantType type,
                                                        korvo::variant::Variant*& node, bool* notFound);
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool store(const std::string& key,
                                                         korvo::variant::Variant& value, bool* valueChanged);
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool countFlashWrite();
    [[nodiscard]] KORVO_VARIANT_UTILS_PRIVATE bool succeed();

    bool initialized;
    bool changed;
    bool notSaved;  ///< apply() has changed the file, which flash may not hold yet
    bool readOnly;  ///< opened by initReadOnly()
    bool escapeIndexKeys;
    bool valuesAsStrings;
    bool fromKvpFlag;
    korvo::variant::Variant ownTree;   ///< null when the tree is the caller's
    korvo::variant::Variant* variant;  ///< the tree: that one or the caller's
    std::unique_ptr<InterProcessMutex> mutex;
    bool emptiedByRead;          ///< the tree is not the file's content but what a failed read() left
    korvo::Failure lastFailure;  ///< of the last call
};

/**
 * Reports changes of "/tmp/system.cfg", whoever makes them: korvoctl, a service, or an editor.
 *
 * The configuration may be another one when its file is replaced, removed, or written in place, once the
 * writer closes it. Started before the first read, a watch misses no change; several changes between two calls
 * of takeChange() are reported as one. A file that is made in place where there was none may be reported
 * before its writer closes it as well; writers do better to rename a whole file.
 *
 * Takes no lock and needs read access to "/tmp" only. The directory itself may be removed, moved or unmounted:
 * that is a change too, and the watch moves on to the directory that has the name then, or ends where there is
 * none. What is mounted over the directory stays unseen.
 *
 * Processes: a child made by fork shares the queue of events, and would take changes from its parent. It may
 * destroy the object, and starts a watch of its own. Threads: an object must not be used by two threads at
 * once. No operation is a cancellation point. The host must not close the descriptor: a daemon that closes all
 * of them does so before start(). Nothing is thrown but std::bad_alloc, which takes no change away.
 */
class KORVO_VARIANT_UTILS_EXPORT SystemCfgWatch {
  public:
    SystemCfgWatch() = default;
    SystemCfgWatch(const SystemCfgWatch&) = delete;
    SystemCfgWatch& operator=(const SystemCfgWatch&) = delete;
    ~SystemCfgWatch();

    /**
     * Begins to watch; does nothing while the watch lasts.
     * @return false, with errno set, when that is not possible: ENOENT without the directory, EMFILE when the
     *         user has too many watches or the process too many files
     */
    [[nodiscard]] bool start();

    /**
     * For poll(), as POLLIN: readable when takeChange() has something to look at, which need not be a change.
     * Non-blocking, close-on-exec, and never the number of a standard stream.
     * @return -1 before start() and when the watch has ended; the same number in between
     */
    int descriptor() const;

    /**
     * Takes what has happened, without waiting.
     * @return whether the configuration may be another one than at the last call; true also when the watch
     *         ends, which descriptor() tells
     */
    [[nodiscard]] bool takeChange();

  private:
    KORVO_VARIANT_UTILS_PRIVATE bool follow(const std::string& directory);
    KORVO_VARIANT_UTILS_PRIVATE void end();

    int queue = -1;   ///< inotify's descriptor
    int folder = -1;  ///< inotify's number for the directory
};
