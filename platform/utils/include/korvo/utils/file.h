/**
 * @file
 * Whole-file reading and writing.
 */
#pragma once

#include <sys/types.h>

#include <string>

#include "korvo/utils/export.h"

namespace korvo::utils {

/** What a file is opened for. */
enum FILE_OPEN_MODE {
    /** An existing file, for reading. */
    FILE_OPEN_MODE_READ = 0,
    /** The same, but refuses a symbolic link (ELOOP) and a file with a second name (EMLINK). */
    FILE_OPEN_MODE_READ_NOFOLLOW = 1,
    /** A new, empty file of mode 0600, for writing; replaces whatever has the name. */
    FILE_OPEN_MODE_TRUNCATE = 2
};

/** Who may access a file. */
struct FileAccess {
    uid_t owner = 0;
    gid_t group = 0;
    mode_t bits = 0;  ///< the nine permission bits
};

/**
 * One open file, for one thread at a time.
 *
 * An object owns its descriptor, which is close-on-exec, and closes it when destroyed. The descriptor never
 * keeps the number of a standard stream, even if the host has closed some, so nothing the host prints gets
 * into the file; only a child forked while the file is being opened may print there. Interrupted and short
 * reads and writes continue. No operation is a cancellation point. A failure is false, with errno set.
 *
 * Signals are the host's affair: a file that outgrows RLIMIT_FSIZE raises SIGXFSZ, which ends the process
 * unless it is ignored; then the write fails.
 */
class KORVO_UTILS_EXPORT File {
  public:
    File() = default;
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File();

    /**
     * Opens @p path, after closing what was open.
     *
     * For reading it must be a regular file; anything else is refused at once, a directory with EISDIR, the
     * rest (pipes, devices) with ENOTSUP.
     *
     * For writing, removes whatever has the name and creates a new file, of mode 0600 whatever the umask. So
     * a guessable name in a world-writable directory is safe: a planted link is not followed, and a file that
     * somebody has open is not written to. What cannot be removed (a directory, or another user's file in a
     * sticky directory) is refused and left alone.
     */
    [[nodiscard]] bool Initialize(const std::string& path, FILE_OPEN_MODE openMode);

    /**
     * Replaces @p text by everything from the current position to the end of the file, whatever size the file
     * claims to have: kernel files claim 0. On failure @p text is left as it was.
     */
    [[nodiscard]] bool ReadStringAll(std::string& text);

    /**
     * Reads a whole file.
     * @param path      its path
     * @param text      receives the content; unchanged on failure
     * @param openMode  one of the two for reading
     * @param access    if not null, receives the access of the very file that was read; unchanged on failure
     */
    [[nodiscard]] static bool ReadStringAll(const std::string& path, std::string& text,
                                            FILE_OPEN_MODE openMode = FILE_OPEN_MODE_READ,
                                            FileAccess* access = nullptr);

    /** Writes all of @p text at the current position. A failure may leave part of it written. */
    [[nodiscard]] bool WriteString(const std::string& text);

    /** Who may access the file opened last: as of then, or as SetAccess() left it. */
    FileAccess Access() const { return access; }

    /**
     * Gives a file open for writing the permission bits of @p wanted, and its owner and group where the
     * process may. Where the group is refused, the file's group gets no more access than @p wanted gives to
     * everybody.
     * @return false if the permission bits cannot be set
     */
    [[nodiscard]] bool SetAccess(const FileAccess& wanted);

    /**
     * SetAccess() with the access of the file at @p path. Does nothing if that is missing or anything but a
     * regular file with one name: a link could lend the access of any file.
     */
    [[nodiscard]] bool CopyAccess(const std::string& path);

    /** Waits until everything written has reached the storage device, the file's name excepted. */
    [[nodiscard]] bool Sync();

    /** Closes the file. False if the system reports only now that written data was lost. */
    [[nodiscard]] bool Close();

  private:
    int descriptor = -1;
    FileAccess access;
};

}  // namespace korvo::utils
