/**
 * @file
 * A named lock between the processes of the device and the threads in them.
 */
#pragma once

#include <sys/types.h>

#include "korvo/utils/export.h"

namespace korvo::utils {
struct NamedLock;
}

/**
 * One claim on a named lock. All objects of one name contend for it, in whatever process they are.
 *
 * The lock is a record lock on the file "/tmp/<name>.lock", which is created with mode 0600 and never
 * removed. The kernel releases it when the process that holds it ends, however it ends. A forked child and a
 * program started with exec hold nothing, and cannot release what the parent holds.
 *
 * Root and the store's owner (storeOwner() of flash.h) exclude one another, whoever comes first; all other
 * users of one lock must run as one user. A lock file is a regular file with one name, without access for
 * group and others, and owned by root, by the caller or, for root, by the store's owner, so nobody else can
 * hold it. Root gives its own empty lock file to the store's owner. An owner who comes before that retries
 * for a second; if root cannot give it, or was killed just then, the owner fails until root's next use. Root
 * replaces any other file, its own with content, and an empty directory; for everyone else acquire() fails.
 *
 * The lock is lost when somebody removes, moves or replaces the lock file, or when the host closes the
 * library's descriptor for it, as daemons do. held() reports this; a waiter or the next acquire() opens the
 * file anew, and the number of the closed descriptor is left alone.
 *
 * Two gaps remain. A host that opens and closes the lock file itself releases the lock, unnoticed:
 * such are the rules of record locks. And where fs.protected_hardlinks is 0, whoever may write to "/tmp" can
 * give the lock file a second name, and have root replace it.
 *
 * Threads: any thread may call any operation. The lock belongs to the object that acquired it, not to the
 * thread, so another thread may release it. Threads waiting for one name get it in order of arrival. Objects
 * of one name share one open file, closed with the last of them if not before. No operation is a cancellation
 * point: a thread cancelled while it waits ends once it has the lock. A signal handler must not call fork():
 * it may wait forever for the thread that it interrupted.
 *
 * Results are 0 or an errno value. The constructor and, for root, acquire() and holder() may throw
 * std::bad_alloc; nothing else is thrown.
 */
class KORVO_UTILS_EXPORT InterProcessMutex {
  public:
    /**
     * Neither takes the lock nor touches the file.
     * @param name      not empty, without "/"; acquire() refuses anything else with EINVAL
     * @param reserved  not used
     */
    InterProcessMutex(const char* name, bool reserved);
    InterProcessMutex(const InterProcessMutex&) = delete;
    InterProcessMutex& operator=(const InterProcessMutex&) = delete;

    /** Releases the lock if this object holds it. No thread may be inside a call on this object. */
    ~InterProcessMutex();

    /**
     * Waits for the lock, through signals and without a time limit. Two threads or processes that take two
     * names in opposite order wait for one another forever, as with any lock.
     * @return 0; EDEADLK if the calling thread has acquired this name, through this or another object, and it
     *         has not been released; EINVAL for a refused name; EPERM if something other than a lock file has
     *         its name; EACCES if root has kept it; for root, why the store's owner is unknown; else why the
     *         file cannot be opened or locked
     */
    [[nodiscard]] int acquire();

    /**
     * Releases the lock.
     * @return 0, even if the lock file has been removed; EPERM if this object does not hold the lock in this
     *         process, held() has reported the loss, or the host has closed the descriptor; EINVAL for a
     *         refused name; else why the kernel refused, and the lock is still held
     */
    [[nodiscard]] int release();

    /**
     * Whether this object has acquired the lock in this process, and not released it; false in a forked
     * child. Cheap: it does not look at the file, so it does not notice a lost lock.
     */
    [[nodiscard]] bool acquired() const;

    /**
     * Whether this object still holds the lock in this process, and the file still has its name. Ask right
     * before anything that must not happen without the lock; it takes two system calls. A lost lock stays
     * lost.
     */
    [[nodiscard]] bool held() const;

    /**
     * The other process that holds the lock, for messages to an operator, even while a thread waits in
     * acquire(). 0 if there is none, it is in another pid namespace, or the file cannot be opened; -1 for an
     * open file description lock of another program, which has no process id.
     */
    pid_t holder() const;

  private:
    korvo::utils::NamedLock* lock;  ///< shared by all objects of the name; null for a refused name
};
