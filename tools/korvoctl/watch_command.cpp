#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "arguments.h"
#include "commands.h"
#include "configuration.h"
#include "output.h"

namespace korvoctl {
namespace {

/** Waits for the next change. False, with errno set, when watching has ended. */
[[nodiscard]] bool wait(SystemCfgWatch& changes) {
    do {
        pollfd events{changes.descriptor(), POLLIN, 0};
        if (::poll(&events, 1, -1) < 0 && errno != EINTR) return false;
    } while (!changes.takeChange());
    return changes.start();  // does nothing unless the directory is gone
}

}  // namespace

ExitStatus watch(const Arguments& arguments) {
    const std::string key = arguments.operand();
    const std::string refusal = arguments.operands().empty() ? "" : keyRefusal(key);
    if (!refusal.empty()) return failed(refusal);
    const std::string path = workingCopyPath();
    SystemCfgWatch changes;
    if (!changes.start()) return failed("cannot watch " + path + ": " + systemError(errno));
    Values known;
    if (!loadFile(path, known)) return Failed;
    known = part(known, key);
    while (wait(changes)) {
        Values now;
        // loadFile() has printed why; the next change may fix it.
        if (!loadFile(path, now)) continue;
        now = part(now, key);
        Values before = std::move(known);
        known = now;
        subtractCommon(before, now);
        printLines(differenceLines(before, now));
        // main() prints why, as for every command.
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) return Failed;
    }
    return failed("stopped watching " + path + ": " + systemError(errno));
}

}  // namespace korvoctl
