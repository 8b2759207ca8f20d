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
 * One claim on a named lock; all objects made with the same name, in whatever process, contend for it.
 *
 * The lock is a record lock on the file "/tmp/<name>.lock", which is made with mode 0600 when it is missing
 * and never removed. The kernel gives the lock back when the process that holds it ends, however it ends. A
 * child made by fork holds nothing, whatever its parent held, and cannot give back what the parent holds; a
 * program started with exec holds nothing.
 *
 * Root and the store's owner (storeOwner() of flash.h) exclude one another, whoever comes first. The lock file
 * must be a regular file with one name, without access for group and others, and owned by root, by the caller
 * or, for root, by the store's owner, so that nobody else can hold it. Root gives an empty lock file of its own
 * to the store's owner, who tries again for a second where he meets one that root has not given yet; he is
 * locked out where root cannot give it, or was killed in that moment, until root's next use. Root replaces what
 * is no such file, its own that is not empty, and a directory only when it is empty; for everyone else
 * acquire() fails. All other users of one lock run as one user.
 *
 * Not defended: where fs.protected_hardlinks is 0, whoever may write to "/tmp" can give the lock file a second
 * name, and so end the holder's exclusion, which held() then tells.
 *
 * The lock is lost when somebody removes the lock file, or when the host closes the library's descriptor of
 * it, as daemons do that close all they have. held() tells; a waiter or a later acquire() opens the file
 * anew, and a descriptor that is no longer the library's is left alone. One thing nobody can notice: when the
 * host opens and closes the lock file by itself, the rules of record locks give the lock back.
 *
 * Threads: all operations may be called from any thread. A lock belongs to the object that acquired it, not
 * to the thread: another thread may release it. Threads that wait for one name get it in the order in which
 * they came. Objects of one name share one open file, which closes with the last of them. No operation is a
 * cancellation point: a thread that is cancelled while it waits ends once it has the lock, at the next
 * cancellation point of the host. A signal handler must not call fork(): it waits forever for what the thread
 * that it interrupted holds here.
 *
 * Results are 0 or an errno value. Nothing is thrown but std::bad_alloc, by the constructor and, for root, by
 * acquire() and holder().
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

    /** Gives the lock back when this object holds it. No thread may be inside a call on this object. */
    ~InterProcessMutex();

    /**
     * Waits, through signals too and without a time limit, until the lock is held. Two names that two threads
     * or processes take in opposite order make them wait for one another forever, as with any lock.
     * @return 0; EDEADLK when waiting could not end because the calling thread acquired this name before,
     *         through this or another object, and has not released it; EINVAL for a refused name; EPERM when
     *         something other than a lock file as described above has its name; EACCES when root has kept it;
     *         for root, why the store's owner cannot be told; else why the file cannot be opened or locked
     */
    [[nodiscard]] int acquire();

    /**
     * Gives the lock back.
     * @return 0, also for a lock on a file that has been removed meanwhile; EPERM when this object does not
     *         hold the lock in this process, when held() has told that it is lost, or when the host has
     *         closed the descriptor; EINVAL for a refused name; else why the kernel refused, and the lock is
     *         still held
     */
    [[nodiscard]] int release();

    /**
     * Whether this object has acquired the lock in this process and not released it; false in a child made by
     * fork. Does not look at the file, so that it is cheap and does not notice that the lock is lost.
     */
    [[nodiscard]] bool acquired() const;

    /**
     * Whether this object still holds the lock in this process, and nobody has removed, moved or replaced the
     * file. Ask it right before anything that must not happen without the lock; it takes two system calls. A
     * lock that is lost stays lost.
     */
    [[nodiscard]] bool held() const;

    /**
     * The process that holds the lock, when it is another one; -1 when the holder has no process id, because
     * another program holds it by an open file description lock; 0 when there is none, when it is in another
     * pid namespace, or when the file cannot be opened. May be asked while another thread waits in acquire(),
     * to tell an operator what he waits for.
     */
    pid_t holder() const;

  private:
    korvo::utils::NamedLock* lock;  ///< what all objects of the name have in common; null for a refused name
};
