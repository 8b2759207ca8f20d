/** @file Runs a command of the shell as a user would, and collects what it prints. */
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

namespace test {

struct CommandResult {
    int exitStatus = -1;  ///< -1 when a signal ended the shell
    std::string output;   ///< standard output
};

inline CommandResult runCommand(const std::string& command) {
    CommandResult result;
    std::FILE* pipe = ::popen(command.c_str(), "r");  // NOLINT(cert-env33-c): the tests' own commands
    if (pipe == nullptr) return result;
    char buffer[4096];
    for (std::size_t got = 0; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        result.output.append(buffer, got);
    const int status = ::pclose(pipe);
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    return result;
}

}  // namespace test
