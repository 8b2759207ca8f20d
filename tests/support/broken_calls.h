/**
 * @file
 * Functions in front of the C library's own. While a process is watched, its calls on files of the device are
 * recorded, and one of them can be made to fail, or to be the last thing that the process does.
 *
 * Only one source file of a program may include it, since it defines those functions.
 */
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>

#include "korvo/utils/device_root.h"

namespace test {

/** What happens to a call. A positive number is the errno value that it fails with. */
enum Fault : int { NoFault = 0, CutShort = -1, KilledAfter = -2 };

/** A call on a file of the device. */
struct Call {
    char name[16];   ///< one for all functions that do the same
    char path[200];  ///< on the device
    char data[200];  ///< what is written, or the new name of what is renamed
    bool failed;
};

/** What a watched process and its parent tell each other. */
struct Watch {
    int fault;
    std::size_t brokenCall;  ///< counted from 0
    bool lasting;            ///< all later calls of that kind on that file are broken too
    std::size_t count;
    std::array<Call, 300> calls;
    std::array<int, 8> messages;  ///< so many were logged, by level
};

/** In memory that forked processes share. */
inline Watch& watch = *static_cast<Watch*>(
    ::mmap(nullptr, sizeof(Watch), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
inline bool isWatched = false;  ///< this process

/** The path on the device of an open file, or of what is below it; empty for what is not on the device. */
inline std::string onDevice(int file, const char* below) {
    std::error_code ignored;
    std::filesystem::path path = below;
    if (file != AT_FDCWD)
        path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file), ignored) / path;
    const std::string root = korvo::utils::devicePath("/"), name = path.lexically_normal() / "";
    if (name.compare(0, root.size(), root) != 0) return "";
    return std::filesystem::path(name.substr(root.size() - 1)).parent_path();
}

/** The parameters of a function, each of which is as wide as a register. */
using Parameters = std::array<long, 4>;
using Function = long (*)(long, long, long, long);

// NOLINTNEXTLINE(performance-no-int-to-ptr): what a register holds
inline const char* textAt(long parameter) { return reinterpret_cast<const char*>(parameter); }

/** Makes a call. A watched process records it, and breaks it when its turn has come. */
inline int pass(std::string name, Function next, Parameters given, bool hasFile, bool hasPath) {
    const auto make = [&] { return static_cast<int>(next(given[0], given[1], given[2], given[3])); };
    if (!isWatched) return make();
    if (name == "wait") return 0;  // here nothing changes meanwhile
    const int file = hasFile ? static_cast<int>(given[0]) : AT_FDCWD, option = static_cast<int>(given[1]);
    if (name == "openat") name = (static_cast<int>(given[2]) & O_CREAT) != 0 ? "create" : "open";
    if (name == "fcntl" && option == F_SETLKW) name = "fcntl, waiting";
    if (name == "fcntl" && option != F_SETLK) return make();  // of its commands those for locks are broken
    const std::string path =
        name == "sync" ? "/" : onDevice(file, hasPath ? textAt(given[hasFile ? 1 : 0]) : "");
    if (path.empty()) return make();
    Call& call = watch.calls.at(watch.count++) = Call{};
    name.copy(call.name, sizeof call.name - 1);
    path.copy(call.path, sizeof call.path - 1);
    const Call& broken = watch.calls.at(watch.brokenCall);
    const bool isAnother =
        watch.lasting && watch.count > watch.brokenCall && name == broken.name && path == broken.path;
    const int fault = &call == &broken || isAnother ? watch.fault : NoFault;
    if (fault == CutShort) given[2] = (given[2] + 1) / 2;
    std::string data = name == "rename" ? onDevice(AT_FDCWD, textAt(given[1])) : "";
    if (name == "write") data.assign(textAt(given[1]), static_cast<std::size_t>(given[2]));
    data.copy(call.data, sizeof call.data - 1);
    // What was written and is only now found to be lost; and the descriptor is gone even if close() fails.
    if (name == "close" && fault == EIO) (void)!::ftruncate(file, 0);
    const bool isSync = name == "fsync" || name == "sync";  // nothing on a test's device has to last
    const int result = isSync || (fault > 0 && name != "close") ? 0 : make();
    call.failed = fault > 0 || result < 0;
    if (fault == KilledAfter) (void)::raise(SIGKILL);
    if (fault <= 0) return result;
    errno = fault;
    return -1;
}

}  // namespace test

/**
 * Defines the C library's function of that name anew. A name that the library at hand lacks is never called. All
 * functions get four words, and give one: the processors of cameras and of their developers pass them alike,
 * whatever their types.
 */
#define FRONT(function, name, hasFile, hasPath)                                                       \
    extern "C" __attribute__((visibility("default"))) long front_##function(long, long, long,         \
                                                                            long) __asm__(#function); \
    long front_##function(long a, long b, long c, long d) {                                           \
        static const auto next = reinterpret_cast<test::Function>(::dlsym(RTLD_NEXT, #function));     \
        return test::pass(name, next, {a, b, c, d}, hasFile, hasPath);                                \
    }
#define ON_PATH(function, name) FRONT(function, name, false, true)
#define ON_FILE(function, name) FRONT(function, name, true, false)
#define BELOW(function, name) FRONT(function, name, true, true)

// clang-format off
BELOW(openat, "openat") BELOW(openat64, "openat") BELOW(__openat_2, "openat") BELOW(__openat64_2, "openat")
ON_PATH(stat, "stat") ON_PATH(stat64, "stat") ON_PATH(__stat64_time64, "stat")
ON_PATH(lstat, "stat") ON_PATH(lstat64, "stat") ON_PATH(__lstat64_time64, "stat")
ON_FILE(fstat, "fstat") ON_FILE(fstat64, "fstat") ON_FILE(__fstat64_time64, "fstat")
ON_FILE(fcntl, "fcntl") ON_FILE(fcntl64, "fcntl") ON_FILE(__fcntl_time64, "fcntl")
ON_FILE(read, "read") ON_FILE(__read_chk, "read") ON_FILE(write, "write")
ON_FILE(close, "close") ON_FILE(fsync, "fsync")
ON_PATH(rename, "rename") ON_PATH(unlink, "unlink") ON_PATH(mkdir, "mkdir") ON_PATH(rmdir, "rmdir")
ON_PATH(chmod, "chmod") ON_FILE(fchmod, "chmod") ON_FILE(fchown, "chown")
ON_PATH(sync, "sync") ON_PATH(nanosleep, "wait") ON_PATH(__nanosleep64, "wait")
    // clang-format on
