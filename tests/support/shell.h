/** @file Runs commands of the shell in a copy of the sample device. */
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <initializer_list>
#include <string>

#include "support/device.h"

namespace test {

class ShellDevice : public Device {
  public:
    /** @param programs  paths of programs, which the commands find by their names */
    explicit ShellDevice(std::initializer_list<const char*> programs) : Device(SAMPLE_DEVICE) {
        for (const std::filesystem::path program : programs) {
            std::filesystem::create_directories(path() / "bin");
            std::filesystem::create_symlink(program, path() / "bin" / program.filename());
        }
    }

    /**
     * Runs a command, with its output in the files "output" and "errors", and the flash directory in $flash.
     * @return its exit status, or -1 when a signal ended it
     */
    int run(const std::string& command) const {
        const std::string setUp = "cd '" + path().string() +
                                  "' && exec 2>errors >output && export DEVICE_ROOT=. && " +
                                  "PATH=$PWD/bin:$PATH && flash=." KORVO_FLASH_DIR "\n";
        const int status = std::system((setUp + command).c_str());  // NOLINT(concurrency-mt-unsafe)
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /** What a command gives, as tables write it: `exit status|standard output`. */
    std::string outcome(const std::string& command) const {
        const int status = run(command);
        return std::to_string(status) + '|' + read("output");
    }
};

}  // namespace test
