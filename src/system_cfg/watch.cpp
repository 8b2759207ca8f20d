#include <fcntl.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "configuration_file.h"
#include "korvo/variant_utils/system_cfg.h"

namespace configuration = korvo::configuration;

namespace {

/** Events of the directory, since renaming replaces the file. The kernel reports its end unasked. */
constexpr std::uint32_t eventsToSee =
    IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_CLOSE_WRITE | IN_DELETE | IN_MOVE_SELF | IN_ONLYDIR;

/** While one exists, its thread cannot be cancelled and lose a descriptor or events. */
class CancellationShield {
  public:
    CancellationShield() { (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    CancellationShield(const CancellationShield&) = delete;
    CancellationShield& operator=(const CancellationShield&) = delete;
    ~CancellationShield() { (void)::pthread_setcancelstate(before, nullptr); }

  private:
    int before = PTHREAD_CANCEL_ENABLE;
};

/** An inotify queue whose number is not that of a standard stream; -1 with errno set. */
int openQueue() {
    const int opened = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (opened < 0 || opened > STDERR_FILENO) return opened;
    const int moved = ::fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    (void)::close(opened);
    errno = error;
    return moved;
}

/**
 * Whether a file that just appeared is a whole configuration: a hard link to one. A file that is made in
 * place is empty at first, and reported when its writer closes it.
 */
bool isWhole(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           (status.st_size > 0 || status.st_nlink > 1);
}

/** The directory of a path, with its slash. */
std::string directoryOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

}  // namespace

SystemCfgWatch::~SystemCfgWatch() { end(); }

bool SystemCfgWatch::start() {
    if (watched >= 0) return true;
    const CancellationShield shield;
    if (queue < 0) queue = openQueue();
    return queue >= 0 && follow(directoryOf(configuration::path()));
}

/** Watches only the directory that has the name now; ends if there is none. */
bool SystemCfgWatch::follow(const std::string& directory) {
    const int found = ::inotify_add_watch(queue, directory.c_str(), eventsToSee);
    if (found < 0) {
        end();
        return false;
    }
    // Fails if the old directory is gone.
    if (watched >= 0 && watched != found) (void)::inotify_rm_watch(queue, watched);
    watched = found;
    return true;
}

void SystemCfgWatch::end() {
    const CancellationShield shield;
    const int error = errno;
    if (queue >= 0) (void)::close(queue);
    queue = watched = -1;
    errno = error;
}

int SystemCfgWatch::descriptor() const { return queue; }

bool SystemCfgWatch::takeChange() {
    if (watched < 0) return false;
    const CancellationShield shield;
    // Before taking events, since memory may run out.
    const std::string path = configuration::path();
    const std::string directory = directoryOf(path);
    const char* const name = path.c_str() + directory.size();
    bool changed = false;
    bool lost = false;  // the directory, or events that may have reported its end
    alignas(inotify_event) char events[1024];
    ssize_t length = 0;
    while ((length = ::read(queue, events, sizeof events)) > 0) {
        for (const char* at = events; at < events + length;) {
            inotify_event event{};
            std::memcpy(&event, at, sizeof event);
            const char* const concerned = event.len > 0 ? at + sizeof event : "";
            at += sizeof event + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) lost = true;
            if (event.wd != watched) continue;
            if ((event.mask & (IN_IGNORED | IN_MOVE_SELF)) != 0) lost = true;
            if (std::strcmp(concerned, name) == 0 && ((event.mask & IN_CREATE) == 0 || isWhole(path)))
                changed = true;
        }
    }
    if (lost) (void)follow(directory);
    return changed || lost;
}
