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
 * A service that reads, and reads again after each change, starts a SystemCfgWatch before initReadOnly(), so
 * that it misses none (an example is in docs/hosts.md).
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

/**
 * Access to the configuration file: exclusive between init() and close(), or read-only.
 *
 * The file has one `key=value` line per value; each dot in a key opens a nested map. Loading turns a value of
 * exactly enabled, enable or on into 1, and of disabled, disable or off into 0. Every other pair is written
 * back as it was loaded, in the order of the tree's keys; comments and blank lines are dropped.
 *
 * Escaped index components: in the tree, a component after a dot that begins with a digit 1 to 4 has an
 * underscore before it: `a.1.b` is member b of member `_1` of a. One that begins with underscores and such a
 * digit gets one underscore more, so the file's `a.1` and `a._1` stay two keys. get() and set() take the
 * tree's keys.
 *
 * get() and set() refuse a key, and log that, when it is empty or has an empty component, more than 64
 * components, or a component that begins with "#" or holds "/", "[", "]", "=" or a control character. set()
 * also refuses
 * - typing slips: a component that begins or ends with a blank, a byte order mark at the beginning;
 * - what would not load again: a value with a line feed or a zero byte in it or a carriage return at its end,
 *   a key below a key that has a value, a key that looks like an indexed member of a tree that the host
 *   filled, and, with escaped index components, one that lacks its underscore.
 *
 * A refusal changes nothing. Loading accepts any key, and apply() can remove it.
 *
 * Writing replaces the file in one step: every reader sees the whole old text or the whole new one, even if
 * the process is killed. It is not durable; the flash copy that close() makes is. Keep "/tmp" on a tmpfs,
 * since every set() wears flash. The new file keeps the old one's permission bits, and its group and owner
 * where the process may set them; where the group cannot be kept, the new group gets no access that others
 * lacked. A failed write leaves no temporary file. A killed process may leave one; its name holds the process
 * id, and the next process of that id replaces it. Any user who may write to "/tmp" can make writing fail,
 * with directories of such names. While the file is missing, whoever creates it first is trusted: call
 * restore() before anything untrusted runs.
 *
 * Processes: the lock is the InterProcessMutex "system.cfg", which is free again when its holder dies. After
 * fork, a manager that init() opened is open in the parent only, one that initReadOnly() opened in both. When
 * the lock is lost, because its file was removed or the host has closed all its descriptors, nothing is
 * written any more: another process may have changed the configuration meanwhile.
 *
 * Threads: one thread at a time may use an object. Two objects of one process exclude one another: init()
 * waits for another thread's object, and fails where the same thread has the store open. Cancelling a thread
 * inside a call leaves nothing half done.
 *
 * Signals: a configuration that outgrows RLIMIT_FSIZE raises SIGXFSZ; a message to a standard error that is a
 * broken pipe raises SIGPIPE. Either ends a host that does not ignore it.
 *
 * Errors are logged and returned as false; failure() holds the reason as a value. Out-parameters may be null;
 * text arguments may alias the tree or the failure. Nothing is thrown but std::bad_alloc.
 */
class KORVO_VARIANT_UTILS_EXPORT SystemCfgManager {
  public:
    /** One change for apply(). */
    struct Change {
        std::string key;                   ///< dotted
        std::optional<std::string> value;  ///< none removes the key and all below it; always a text
    };

    /** What stands in the place of the configuration after restore(). */
    enum class Restored {
        Kept,     ///< the working copy that was there
        Flash,    ///< the text of the flash copy
        Defaults  ///< the text of the factory settings
    };

    /** Why a text does not load. */
    struct Fault {
        std::size_t line;    ///< counted from 1
        std::string reason;  ///< in English, without the line, such as `there is no "="`
    };

    /** With a tree of its own, every value held as a string, index components not escaped. */
    SystemCfgManager();

    /**
     * With the caller's tree, which must outlive the manager. init() replaces its content. Between init() and
     * close() the caller may read and change it; call markChanged() after a change.
     *
     * @param variant          not null
     * @param escapeIndexKeys  whether index components are escaped
     * @param valuesAsStrings  true holds every value as a string, false holds numbers as numbers
     * @param fromKvpFlag      the last argument for Variant::FromKVP()
     */
    SystemCfgManager(korvo::variant::Variant* variant, bool escapeIndexKeys, bool valuesAsStrings,
                     bool fromKvpFlag);
    SystemCfgManager(const SystemCfgManager&) = delete;
    SystemCfgManager& operator=(const SystemCfgManager&) = delete;

    /** Does close(false, false) if the manager is open, and releases the lock in any case. */
    ~SystemCfgManager();

    /**
     * Why the last call failed; Step::None after success. Static functions do not set it; they have overloads
     * with a Failure. Step::Write with ESTALE: the lock was lost.
     * @return lives as long as the manager; the next call replaces its content
     */
    const korvo::Failure& failure() const;

    /**
     * Waits for the lock, without a time limit, and loads the file, which must be a regular file. A failure
     * releases the lock; a manager that was open already stays open.
     */
    [[nodiscard]] bool init();

    /**
     * Loads the file and opens the manager for reading: get(), getVariant() and getSystemCfgValue() work, and
     * read() loads the file again; set(), apply(), write() and markChanged() fail as if it were not open.
     * Takes no lock and writes nothing, so readers work beside a writer, on a read-only device, and as any
     * user who may read the file. After a failure the manager is open only if it was before.
     */
    [[nodiscard]] bool initReadOnly();

    /**
     * Loads the file, losing unwritten changes to the tree. Neither takes nor needs the lock. A text that
     * does not load empties the tree, except after initReadOnly(); any other failure leaves it as it was. An
     * emptied tree is never written until a read() or init() succeeds or the host, having filled its own tree
     * again, calls markChanged().
     */
    [[nodiscard]] bool read();

    /** Writes the tree to the file, whether or not it changed. */
    [[nodiscard]] bool write();

    /** Copies the tree as it is held: 1 and 0 for the boolean words, index components escaped. */
    [[nodiscard]] bool getVariant(korvo::variant::Variant& out);

    /** Makes close() save a tree that the host changed itself. */
    void markChanged();

    /**
     * Reads an integer, -1 when there is none. @p notFound receives whether the key is missing or its value
     * is of another type.
     *
     * From a value held as a string: its leading decimal digits, after white space and a sign, as the nearest
     * int; 0 without any. From a number: the number as int, losing the upper bits of a wider one.
     *
     * @return true even if the key is missing; false when the manager is not open (out-parameters left alone)
     *         or the key is refused (only @p notFound left alone)
     */
    [[nodiscard]] bool get(const std::string& key, int* value, bool* notFound);

    /** Reads a string, likewise; the empty text when there is none. */
    [[nodiscard]] bool get(const std::string& key, std::string* value, bool* notFound);

    /**
     * Stores an integer, as decimal text when values are held as strings, in place of whatever the key held,
     * a map included, and writes the file even if nothing changed. If writing fails the tree keeps the new
     * value, for a later write() or close(). @p valueChanged receives whether the value differed, and is left
     * alone when key or value is refused.
     * @return whether the file was written
     */
    [[nodiscard]] bool set(const std::string& key, int value, bool* valueChanged);

    /** Stores a string, likewise. */
    [[nodiscard]] bool set(const std::string& key, const std::string& value, bool* valueChanged);

    /**
     * Makes many changes, in their order, and writes the file once, even if nothing changed. A change with a
     * value does what set() does. One without removes the key and all below it, if there, even a key that
     * get() refuses; until the next load the tree keeps null there, which get() reports as missing.
     *
     * All or nothing: when a key or a value is refused, a key is given twice, or writing fails, the tree, the
     * file and @p valuesChanged stay as they were. Otherwise @p valuesChanged receives whether the file has
     * other pairs than before, and references into a borrowed tree are no longer valid.
     */
    [[nodiscard]] bool apply(const std::vector<Change>& changes, bool* valuesChanged);

    /**
     * Ends the use of the store. Writes a tree that changed; with @p saveToFlash also copies it to flash.
     * @p forceSave does both in any case. Each copy is counted first, in the key "system.flash.cycles", up to
     * the largest int. apply() has written its changes: after it alone, only the count is left to write.
     *
     * After initReadOnly() it writes nothing, always ends the reading, and fails only with @p forceSave.
     *
     * @return false when something failed: the manager stays open and keeps the lock, unless only releasing
     *         that failed
     */
    [[nodiscard]] bool close(bool saveToFlash, bool forceSave);

    /**
     * Finds the map for the last component of a key, which @p lastKey receives; makes it and its parents if
     * missing. For a key that set() refuses it makes nothing: null and the empty text.
     */
    void getLastNode(const std::string& key, korvo::variant::Variant*& node, std::string& lastKey);

    /**
     * Finds a value that passes the filter @p type of Variant::GetKeyChain(); null when there is none.
     * @return false when the key is refused
     */
    [[nodiscard]] bool getSystemCfgValue(const std::string& key, korvo::variant::VariantType type,
                                         korvo::variant::Variant** value);

    /** @name The life of a configuration
     * Power-up and factory settings. Both wait for the lock, and fail where this thread has the store open. A
     * failure is logged and leaves the file as it was.
     * @{ */

    /**
     * For power-up: if "/tmp/system.cfg" is missing, or a regular file without any pair, puts the flash copy
     * in its place, or else the file @p defaults. Call it before the services start and before anything
     * untrusted runs.
     *
     * The text replaces the file in one step, unchanged but for "system.flash.cycles": it becomes the largest
     * count in the working copy, the flash copy, a damaged one and @p defaults. A text without any other pair
     * holds no settings.
     *
     * @p defaults are taken when the flash copy
     * - is missing, as on a first start;
     * - holds no settings;
     * - does not load, has no place for the count, cannot be read, is no regular file with one name, or
     *   belongs to neither root nor the owner of its directory. It is kept as "system.cfg.damaged" in its
     *   directory, in place of an older one; on a read-only file system it stays. If it cannot be kept,
     *   restore() fails and changes nothing.
     *
     * A flash copy that cannot be read is tried again for a second. If the error is EACCES, EPERM, EMFILE,
     * ENFILE or ENOMEM even then, restore() fails and changes nothing.
     *
     * Taking @p defaults logs a warning if there is a flash copy or a damaged one.
     *
     * Access: text from the flash copy gets that file's owner, group and permission bits, but the directory's
     * owner if root owns the file. Text from @p defaults keeps the access of a working copy that root or that
     * owner owns; otherwise it gets owner and group of the directory, and the bits of the file @p defaults
     * without those for others. Each as far as the process may, see File::SetAccess().
     *
     * @param defaults  path of the factory settings, not below the device root; may be empty
     * @param replace   replaces the working copy, whatever that is, except a directory
     * @return whether a configuration that loads is in place, an untouched working copy included; false when
     *         the working copy does not load, cannot be read, is a link or has a second name, or when nothing
     *         can be put in its place
     */
    [[nodiscard]] static bool restore(const std::string& defaults, bool replace);

    /**
     * The same, with the details.
     * @param defaults   as above
     * @param replace    as above
     * @param restored   receives what stands in the place of the configuration; left alone on failure
     * @param flashCopy  receives why the flash copy was not taken: Step::Read, with ENOENT if there is none,
     *                   or Step::Load. The reason also says what became of it; ENOENT without a reason means
     *                   that there never was one. Step::None when it was taken or not needed
     * @param failure    receives why nothing was put in place, which may be a flash copy that cannot be read;
     *                   Step::None on success
     */
    [[nodiscard]] static bool restore(const std::string& defaults, bool replace, Restored* restored,
                                      korvo::Failure* flashCopy, korvo::Failure* failure);

    /**
     * Factory settings: puts the file @p defaults in the place of "/tmp/system.cfg", whatever that is, except
     * a directory. Keeps only the count of flash writes and the access, as restore() does. The flash copy stays
     * as it is until the configuration is saved.
     */
    [[nodiscard]] static bool reset(const std::string& defaults);

    /** The same. @p failure receives why nothing was put in place. */
    [[nodiscard]] static bool reset(const std::string& defaults, korvo::Failure* failure);
    /** @} */

    /** @name Texts, keys and values
     * For programs that examine a configuration without using the store. No lock, no file.
     * @{ */

    /**
     * Loads a text as read() loads the file, with every value held as a string. If it does not load, the tree
     * becomes null, and all reasons are added to @p faults, in the order of the lines.
     */
    [[nodiscard]] static bool load(const std::string& text, korvo::variant::Variant& tree,
                                   std::vector<Fault>* faults);

    /**
     * Adds the pairs of a text to @p changes, for apply(), in the order of the lines, with the values as
     * written, boolean words too. The last line of a repeated key counts. Refuses a text that does not load,
     * or has a key or a value that set() refuses: then all reasons are added to @p faults, in the order of
     * the lines.
     */
    [[nodiscard]] static bool parse(const std::string& text, std::vector<Change>& changes,
                                    std::vector<Fault>* faults);

    /** Which rule of set() a key breaks, such as "it is empty"; null for a key that is well-formed. */
    [[nodiscard]] static const char* keyFault(const std::string& key);

    /** Which rule a value breaks, such as "it holds a line break"; null for one that may be stored. */
    [[nodiscard]] static const char* valueFault(const std::string& value);
    /** @} */

  private:
    enum class Need { Closed, Open, Lock, Tree };

    KORVO_VARIANT_UTILS_PRIVATE bool isOpen() const;
    KORVO_VARIANT_UTILS_PRIVATE bool check(Need need, const char* function);
    KORVO_VARIANT_UTILS_PRIVATE bool find(const std::string& key, korvo::variant::VariantType type,
                                          korvo::variant::Variant*& node, bool* notFound);
    KORVO_VARIANT_UTILS_PRIVATE bool store(const std::string& key, korvo::variant::Variant value,
                                           bool* valueChanged);
    KORVO_VARIANT_UTILS_PRIVATE bool countFlashWrite();
    KORVO_VARIANT_UTILS_PRIVATE bool succeed();

    bool initialized = false;
    bool changed = false;
    bool notSaved = false;       ///< apply() has changed the file, which flash may not hold yet
    bool readOnly = false;       ///< opened by initReadOnly()
    bool emptiedByRead = false;  ///< the tree is not the file's content but what a failed read() left
    const bool escapeIndexKeys, valuesAsStrings, fromKvpFlag;
    korvo::variant::Variant ownTree;         ///< null when the tree is the caller's
    korvo::variant::Variant* const variant;  ///< the tree: that one or the caller's
    const std::unique_ptr<InterProcessMutex> mutex;
    korvo::Failure lastFailure;
};

/**
 * Reports changes of "/tmp/system.cfg", whoever makes them: korvoctl, a service, or an editor.
 *
 * The configuration may have changed when its file is replaced or removed, or when whoever wrote it in place
 * closes it. Started before the first read, a watch misses no change; it reports several changes between two
 * calls of takeChange() as one. It may report a file created in place twice, first before its writer closes
 * it. So rename whole files.
 *
 * Takes no lock; needs read access to "/tmp" only. If the directory itself is removed, moved or unmounted,
 * that is a change too: the watch moves on to the directory that then has the name, or ends if there is none.
 * It does not see what is mounted over the directory.
 *
 * Processes: a child made by fork shares the queue of events, and would take changes from its parent. It may
 * destroy the object and start a watch of its own. Threads: one at a time may use an object. No operation is
 * a cancellation point. The host must not close the descriptor: a daemon that closes all of them does so
 * before start(). Nothing is thrown but std::bad_alloc, which loses no change.
 */
class KORVO_VARIANT_UTILS_EXPORT SystemCfgWatch {
  public:
    SystemCfgWatch() = default;
    SystemCfgWatch(const SystemCfgWatch&) = delete;
    SystemCfgWatch& operator=(const SystemCfgWatch&) = delete;
    ~SystemCfgWatch();

    /**
     * Begins to watch; does nothing while the watch lasts.
     * @return false with errno set: ENOENT without the directory, EMFILE when the user has too many watches
     *         or the process too many files
     */
    [[nodiscard]] bool start();

    /**
     * For poll() with POLLIN: readable when takeChange() has something to look at, which need not be a
     * change. Non-blocking, close-on-exec, never the number of a standard stream.
     * @return the same number from start() to the end of the watch; otherwise -1
     */
    int descriptor() const;

    /**
     * Takes what has happened, without waiting.
     * @return whether the configuration may have changed since the last call; true also when the watch ends,
     *         which descriptor() shows
     */
    [[nodiscard]] bool takeChange();

  private:
    KORVO_VARIANT_UTILS_PRIVATE bool follow(const std::string& directory);
    KORVO_VARIANT_UTILS_PRIVATE void end();

    int queue = -1;    ///< inotify's descriptor
    int watched = -1;  ///< inotify's number for the directory
};
