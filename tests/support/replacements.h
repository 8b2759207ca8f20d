/** @file Counts how often the configuration is replaced by a rename. */
#pragma once

#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace test {

class ReplacementCount {
  public:
    /** @param directory  that of the configuration, where nothing else is renamed meanwhile */
    explicit ReplacementCount(const std::filesystem::path& directory)
        : queue(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        // The temporary name too: equal events in a row become one.
        (void)::inotify_add_watch(queue, directory.c_str(), IN_MOVED_TO | IN_MOVED_FROM);
    }
    ReplacementCount(const ReplacementCount&) = delete;
    ~ReplacementCount() { ::close(queue); }

    /** The number since the last call. */
    int take() const {
        int count = 0;
        inotify_event event{};
        char events[4096];
        for (ssize_t length = 0; (length = ::read(queue, events, sizeof events)) > 0;) {
            for (const char* at = events; at < events + length; at += sizeof event + event.len) {
                std::memcpy(&event, at, sizeof event);
                if ((event.mask & IN_MOVED_TO) != 0) ++count;
            }
        }
        return count;
    }

  private:
    const int queue;
};

}  // namespace test
