/**
 * @file
 * A named lock between the processes of the device and the threads in them.
 */
#pragma once

#include "korvo/utils/export.h"

/**
 * One claim on a named lock; all objects made with the same name, in whatever process, contend for it.
 *
 * The lock is a record lock on the file "/tmp/<name>.lock", which is made with mode 0600 when it is missing
 * and never removed: whoever removes it while it is in use breaks the exclusion. The kernel gives the lock
 * back when the process that holds it ends, however it ends. A child made by fork holds nothing, whatever its
 * parent held, and cannot give back what the parent holds; a program started with exec holds nothing.
 *
 * Threads: acquire() and release() may be called from any thread. A lock belongs to the object that acquired
 * it, not to the thread: another thread may release it. Threads that wait for one name get it in the order in
 * which they came. Objects of one name share one open file, which closes with the last of them.
 *
 * Results are 0 or an errno value.
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
     * Waits, through signals too, until the lock is held.
     * @return 0; EDEADLK when waiting could not end: the calling thread acquired this name before, through this
     *         or another object, and it is still held, or the kernel sees processes wait for one another; EINVAL
     *         for a refused name; EPERM when something other than a plain file has the lock file's name; else why
     *         the file cannot be opened (ELOOP for a link) or locked
     */
    int acquire();

    /**
     * Gives the lock back.
     * @return 0; EPERM when this object does not hold the lock in this process; EINVAL for a refused name;
     *         else why the kernel refused, and the lock is still held
     */
    int release();

  private:
    struct KORVO_UTILS_PRIVATE Shared;
    struct KORVO_UTILS_PRIVATE Table;

    Shared* shared;  ///< what all objects of the name have in common; null for a refused name
};
