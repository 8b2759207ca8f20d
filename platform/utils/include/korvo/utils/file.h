/**
 * @file
 * Whole-file reading and writing.
 */
#pragma once

#include <string>

#include "korvo/utils/export.h"

namespace korvo::utils {

/** What a file is opened for. */
enum FILE_OPEN_MODE {
    FILE_OPEN_MODE_READ = 0,     ///< an existing file, for reading
    FILE_OPEN_MODE_TRUNCATE = 2  ///< for writing from empty; made with mode 0600 when it is missing
};

/**
 * One open file.
 *
 * An object owns its descriptor, which no program started later inherits, and closes it when destroyed. Reads
 * and writes that are interrupted or come short are carried on. Failures are reported as false, with errno
 * set. An object must not be used by two threads at once.
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
     * For writing, the last component of the path must be missing or a plain file that belongs to this user
     * and has no other name: a link or a file that somebody else planted there is refused and left alone, so
     * that a name that can be guessed in a folder open to all is safe to write. Nothing that is open is
     * truncated when refused.
     */
    bool Initialize(const std::string& path, FILE_OPEN_MODE mode);

    /**
     * Replaces @p text by everything from the current position to the end of the file, whatever size the file
     * claims to have: kernel files claim 0. On failure @p text is left as it was.
     */
    bool ReadStringAll(std::string& text);

    /** Reads the whole file at @p path into @p text. On failure @p text is left as it was. */
    static bool ReadStringAll(const std::string& path, std::string& text);

    /** Writes all of @p text at the current position. After a failure part of it may have been written. */
    bool WriteString(const std::string& text);

    /**
     * Gives the open file the permission bits of the file at @p path, and its owner where the process may; does
     * nothing when there is no such file. Works on the open file, so that no link planted at its name is followed.
     */
    bool CopyAccess(const std::string& path);

    /** Waits until everything written has reached the storage device. The file's name is not part of that. */
    bool Sync();

    /** Closes the file. False when the system reports only now that something written was lost. */
    bool Close();

  private:
    int descriptor = -1;
};

}  // namespace korvo::utils
