/** @file Tells the user for which process a command waits. */
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "korvo/utils/device_root.h"

namespace korvoctl {

/** While one lives, a lock may be waited for; after a second the user is told who holds it. */
class WaitNotice {
  public:
    /**
     * @param name   the lock
     * @param holds  what whoever holds it does, as in "waiting for process 7, which ..."
     */
    explicit WaitNotice(const char* name = korvo::utils::configurationLock,
                        const char* holds = "has the configuration open");
    WaitNotice(const WaitNotice&) = delete;
    WaitNotice& operator=(const WaitNotice&) = delete;
    ~WaitNotice();

  private:
    void watch();
    bool tellHolder() const;

    const char* const lock;
    const char* const deed;
    std::mutex mutex;
    std::condition_variable ended;
    bool over = false;
    std::thread watcher;
};

}  // namespace korvoctl
