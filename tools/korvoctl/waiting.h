/** @file Tells the user of a command that waits for whom it waits. */
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

namespace korvoctl {

/** While an object lives, the configuration's lock is waited for; after a second the user learns so. */
class WaitNotice {
  public:
    WaitNotice();
    WaitNotice(const WaitNotice&) = delete;
    WaitNotice& operator=(const WaitNotice&) = delete;
    ~WaitNotice();

  private:
    void watch();

    std::mutex mutex;
    std::condition_variable ended;
    bool over = false;
    std::thread watcher;
};

}  // namespace korvoctl
