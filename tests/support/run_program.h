/** @file Runs a program as a user would, and collects what it prints. */
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

namespace test {

struct ProgramResult {
    int exitStatus;      ///< -1 when a signal ended the program
    std::string output;  ///< standard output
};

/** @p arguments begin with the program's path. Standard error goes where this program's goes. */
inline ProgramResult runProgram(const std::vector<std::string>& arguments) {
    std::string command;
    for (const std::string& argument : arguments) {
        command += '\'';
        for (const char character : argument)
            command += character == '\'' ? std::string("'\\''") : std::string(1, character);
        command += "' ";
    }
    ProgramResult result{-1, ""};
    std::FILE* pipe = ::popen(command.c_str(), "r");  // NOLINT(cert-env33-c): every argument is quoted
    if (pipe == nullptr) return result;
    char buffer[4096];
    for (std::size_t got = 0; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        result.output.append(buffer, got);
    const int status = ::pclose(pipe);
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    return result;
}

}  // namespace test
