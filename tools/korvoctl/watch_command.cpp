#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "output.h"

namespace korvoctl {
namespace {

/** What happens to one file, however it is written: in place, by a rename, or removed. */
class FileWatch {
  public:
    explicit FileWatch(const std::string& path) : name(path.substr(path.rfind('/') + 1)) {
        descriptor = ::inotify_init1(IN_CLOEXEC);
        // The folder, because the file is another one after each write.
        const std::string folder = path.substr(0, path.rfind('/') + 1);
        const std::uint32_t events = IN_MOVED_TO | IN_MOVED_FROM | IN_CLOSE_WRITE | IN_DELETE |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
        watching = descriptor >= 0 && ::inotify_add_watch(descriptor, folder.c_str(), events) >= 0;
    }
    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;
    ~FileWatch() {
        if (descriptor >= 0) (void)::close(descriptor);
    }

    [[nodiscard]] bool ok() const { return watching; }

    /** Waits until something happened to the file. False, with errno set, when nothing more can be seen. */
    [[nodiscard]] bool wait() {
        alignas(inotify_event) char events[4096];
        for (;;) {
            const ssize_t length = ::read(descriptor, events, sizeof events);
            if (length < 0 && errno == EINTR) continue;
            if (length <= 0) return false;
            bool concerned = false;
            for (const char* at = events; at < events + length;) {
                inotify_event event{};
                std::memcpy(&event, at, sizeof event);
                if ((event.mask & (IN_IGNORED | IN_UNMOUNT | IN_MOVE_SELF)) != 0) {
                    errno = ENOENT;
                    return false;
                }
                // Where events were lost, any file may have been concerned.
                concerned = concerned || (event.mask & IN_Q_OVERFLOW) != 0 ||
                            (event.len > 0 && name == at + sizeof event);
                at += sizeof event + event.len;
            }
            if (concerned) return true;
        }
    }

  private:
    const std::string name;
    int descriptor = -1;
    bool watching = false;
};

}  // namespace

ExitStatus watch(const Arguments& arguments) {
    const std::string key = arguments.operand();
    const char* const fault = key.empty() ? nullptr : SystemCfgManager::keyFault(key);
    if (fault != nullptr) return failed("the key '" + key + "' is refused: " + fault);
    const std::string path = workingCopyPath();
    FileWatch file(path);
    if (!file.ok()) return failed("cannot watch " + path + ": " + systemError(errno));
    Values known;
    if (!loadFile(path, known)) return Failed;
    known = part(known, key);
    while (file.wait()) {
        Values now;
        // What does not load has been told; the next write may mend it.
        if (!loadFile(path, now)) continue;
        now = part(now, key);
        Values before = std::move(known);
        known = now;
        subtractCommon(before, now);
        printLines(differenceLines(before, now));
        // Why it failed is told at the end, as for every command.
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) return Failed;
    }
    return failed("cannot watch " + path + " any longer: " + systemError(errno));
}

}  // namespace korvoctl
