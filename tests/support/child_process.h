/** @file A forked process that runs a piece of the test, and is killed at the latest with the object. */
#pragma once

#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

namespace test {

/** A user and a group that own nothing on the machine. */
constexpr uid_t otherUser = 54321;

/** Makes this process one of the other user; only root can. */
inline void becomeOtherUser() {
    if (::setgroups(0, nullptr) != 0 || ::setgid(otherUser) != 0 || ::setuid(otherUser) != 0)
        throw std::runtime_error("only root can become another user");
}

class ChildProcess {
  public:
    /** Runs `int body(const ChildProcess& self)`, whose result is the exit status, for a minute at most. */
    template <class Body>
    explicit ChildProcess(Body body) {
        if (::pipe(channel) != 0 || (process = ::fork()) < 0) throw std::runtime_error("fork failed");
        if (process == 0) {
            ::alarm(60);
            ::_exit(body(*this));
        }
        ::close(channel[1]);
    }
    ChildProcess(const ChildProcess&) = delete;
    ~ChildProcess() {
        if (process > 0 && ::kill(process, SIGKILL) == 0) (void)exitStatus();
        ::close(channel[0]);
    }

    pid_t id() const { return process; }

    /** Sends a number to the parent. */
    void tell(int number) const { (void)!::write(channel[1], &number, sizeof number); }

    /** Waits for the child's next number; -1 if it ends without one. */
    int hear() const {
        int number = -1;
        return ::read(channel[0], &number, sizeof number) == ssize_t{sizeof number} ? number : -1;
    }

    /** Waits for the end, once; the exit status, or minus the signal that ended it. */
    int exitStatus() {
        int ended = 0;
        if (::waitpid(std::exchange(process, 0), &ended, 0) < 0) return -1;
        return WIFEXITED(ended) ? WEXITSTATUS(ended) : -WTERMSIG(ended);
    }

  private:
    int channel[2] = {-1, -1};
    pid_t process = -1;
};

}  // namespace test
