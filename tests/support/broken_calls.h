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

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <new>
#include <string>

#include "korvo/utils/device_root.h"

namespace test {

/** What happens to a call. A positive number is the errno value that it fails with. */
enum Fault : int { NoFault = 0, CutShort = -1, KilledAfter = -2 };

/** A call on a file of the device. */
struct Call {
    const char* name;       ///< one for all functions that do the same
    int flags;              ///< of open
    char data[200];         ///< what is written, or the new name of what is renamed
    char path[200];         ///< on the device
    std::ptrdiff_t result;  ///< -1 when the call failed
};

/** What a watched process and its parent tell each other. */
struct Watch {
    std::size_t brokenCall;  ///< counted from 0
    int fault;
    bool lasting;  ///< all later calls of that kind on that file are broken too
    std::size_t count;
    std::array<Call, 300> calls;
    std::array<int, 8> messages;  ///< so many were logged, by level

    /** In memory that forked processes share, until the program ends. */
    static Watch& shared() {
        const int access = PROT_READ | PROT_WRITE;
        void* memory = ::mmap(nullptr, sizeof(Watch), access, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        return *::new (memory) Watch{};
    }
};

inline Watch* watch = nullptr;  ///< while this process is watched

/** The path on the device of an open file, or of what is below it; empty for what is not on the device. */
inline std::string onDevice(int file, const char* below) {
    std::string path = below;
    if (file != AT_FDCWD && path[0] != '/') {
        char opened[256];
        const ssize_t length =
            ::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), opened, sizeof opened);
        path = std::string(opened, length > 0 ? static_cast<std::size_t>(length) : 0) + '/' + path;
    }
    if (path.find("..") != std::string::npos) path = std::filesystem::path(path).lexically_normal();
    if (!path.empty() && path.back() == '/') path.pop_back();
    const std::string root = korvo::utils::devicePath("");
    if (path == root) return "/";
    return path.compare(0, root.size() + 1, root + "/") == 0 ? path.substr(root.size()) : "";
}

/** Makes a call. A watched process records it, and breaks it when its turn has come. */
template <class MakeCall>
auto pass(Call call, int file, const char* below, MakeCall makeCall) {
    const std::string path = watch != nullptr ? onDevice(file, below) : std::string();
    if (path.empty()) return makeCall(false);
    path.copy(call.path, sizeof call.path - 1);
    call.result = -1;
    Call& recorded = watch->calls.at(watch->count++) = call;
    const Call& first = watch->calls.at(watch->brokenCall);
    const bool isAnother = watch->lasting && watch->count > watch->brokenCall &&
                           std::string(first.name) == call.name && path == first.path;
    const int fault = &recorded == &first || isAnother ? watch->fault : NoFault;
    decltype(makeCall(false)) result = -1;
    const bool isClose = std::string("close") == call.name;
    // What was written and is only now found to be lost; and the descriptor is gone also when close() fails.
    if (isClose && fault == EIO) (void)!::ftruncate(file, 0);
    if (isClose || fault <= 0) result = makeCall(fault == CutShort);
    if (fault > 0) {
        errno = fault;
        return decltype(result){-1};
    }
    recorded.result = result;
    if (fault == KilledAfter) (void)::raise(SIGKILL);
    return result;
}

inline Call writing(const void* data, std::size_t size) {
    Call call{"write", 0, "", "", 0};
    std::copy_n(static_cast<const char*>(data), std::min(size, sizeof call.data), call.data);
    return call;
}

inline Call renaming(const char* to) {
    const std::string target = watch != nullptr ? onDevice(AT_FDCWD, to) : "";
    Call call = writing(target.c_str(), target.size());
    call.name = "rename";
    return call;
}

inline std::size_t part(std::size_t size, bool cutShort) { return cutShort ? (size + 1) / 2 : size; }

}  // namespace test

/**
 * Defines the C library's function of that name anew; CALL reaches the library's own as `next`. A name that
 * the library at hand lacks is never called. Variadic functions have all their parameters: the processors of
 * cameras and of their developers pass them alike.
 */
#define FRONT(type, name, parameters, call, file, below, ...)                                            \
    extern "C" __attribute__((visibility("default"))) type front_##name parameters __asm__(#name);       \
    type front_##name parameters {                                                                       \
        using Function = type(*) parameters;                                                             \
        [[maybe_unused]] static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, #name)); \
        const auto makeCall = [&]([[maybe_unused]] bool cutShort) { return __VA_ARGS__; };               \
        return test::pass(call, file, below, makeCall);                                                  \
    }
#define CALL(name) (test::Call{name, 0, "", "", 0})
#define ON_PATH(name, called, type) \
    FRONT(int, name, (const char* path, type more), CALL(called), AT_FDCWD, path, next(path, more))
#define ON_FILE(name, called, type) \
    FRONT(int, name, (int file, type more), CALL(called), file, "", next(file, more))
#define OPEN(name)                                                                                       \
    FRONT(int, name, (const char* path, int flags, mode_t mode), (test::Call{"open", flags, "", "", 0}), \
          AT_FDCWD, path, next(path, flags, mode))
#define OPENAT(name)                                                         \
    FRONT(int, name, (int folder, const char* path, int flags, mode_t mode), \
          (test::Call{"open", flags, "", "", 0}), folder, path, next(folder, path, flags, mode))
#define STATAT(name)                                                                                      \
    FRONT(int, name, (int folder, const char* path, void* status, int flags), CALL("stat"), folder, path, \
          next(folder, path, status, flags))
#define READ(name)                                                                                 \
    FRONT(ssize_t, name, (int file, void* data, size_t size, size_t most), CALL("read"), file, "", \
          next(file, data, test::part(size, cutShort), most))
// Of its commands those for locks are broken.
#define FCNTL(name)                                               \
    FRONT(int, name, (int file, int command, void* more),         \
          CALL(command == F_SETLKW ? "fcntl, waiting" : "fcntl"), \
          command == F_SETLK || command == F_SETLKW ? file : AT_FDCWD, "", next(file, command, more))

// What is watched need not wait until something changes.
#define NAP(name)                                                                                        \
    extern "C" __attribute__((visibility("default"))) int nap_##name(const void*, void*) __asm__(#name); \
    int nap_##name(const void* time, void* rest) {                                                       \
        using Function = int (*)(const void*, void*);                                                    \
        static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, #name));                  \
        return test::watch != nullptr ? 0 : next(time, rest);                                            \
    }

// clang-format off
NAP(nanosleep) NAP(__nanosleep64)
OPEN(open) OPEN(open64) OPEN(__open_2) OPEN(__open64_2)
OPENAT(openat) OPENAT(openat64) OPENAT(__openat_2) OPENAT(__openat64_2)
ON_PATH(stat, "stat", void*) ON_PATH(stat64, "stat", void*) ON_PATH(__stat64_time64, "stat", void*)
ON_PATH(lstat, "stat", void*) ON_PATH(lstat64, "stat", void*) ON_PATH(__lstat64_time64, "stat", void*)
ON_FILE(fstat, "fstat", void*) ON_FILE(fstat64, "fstat", void*) ON_FILE(__fstat64_time64, "fstat", void*)
STATAT(fstatat) STATAT(fstatat64) STATAT(__fstatat64_time64)
FCNTL(fcntl) FCNTL(fcntl64) FCNTL(__fcntl_time64)
READ(read) READ(__read_chk)
ON_PATH(access, "access", int)
ON_PATH(mkdir, "mkdir", mode_t)
ON_PATH(chmod, "chmod", mode_t)
ON_FILE(fchmod, "fchmod", mode_t)
FRONT(int, fchown, (int file, uid_t owner, gid_t group), CALL("fchown"), file, "", next(file, owner, group))
FRONT(int, close, (int file), CALL("close"), file, "", next(file))
FRONT(int, unlink, (const char* path), CALL("unlink"), AT_FDCWD, path, next(path))
FRONT(int, rmdir, (const char* path), CALL("rmdir"), AT_FDCWD, path, next(path))
FRONT(int, rename, (const char* path, const char* to), test::renaming(to), AT_FDCWD, path, next(path, to))
FRONT(ssize_t, write, (int file, const void* data, size_t size), test::writing(data, size), file, "",
      next(file, data, test::part(size, cutShort)))
// Nothing on a test's device has to last.
FRONT(int, fsync, (int file), CALL("fsync"), file, "", 0)
FRONT(int, sync, (), CALL("sync"), AT_FDCWD, korvo::utils::devicePath("/").c_str(), 0)
    // clang-format on
