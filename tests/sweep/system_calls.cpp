// SPDX-License-Identifier: Apache-2.0
#include "sweep/system_calls.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <stdexcept>

#include "sweep/device_model.h"
#include "sweep/faults.h"

using sweep::ahead;
using sweep::Kind;
using sweep::meet;
using sweep::Role;

namespace {

constexpr std::int64_t kMillisecond = 1000000;  // ns
constexpr std::int64_t kSecond = 1000 * kMillisecond;

/// Waits that are longer are those for a device's response,
constexpr std::int64_t kLongWait = 10 * kSecond;
/// and are cut short when none can come, after that many looks,
constexpr int kLooks = 5;
/// one in so many ns.
constexpr std::int64_t kLook = 10 * kMillisecond;

std::int64_t nanoseconds(const timespec& time) {
    return time.tv_sec * kSecond + time.tv_nsec;
}

timespec time_of(std::int64_t time) {
    return {time / kSecond, time % kSecond};
}

}  // namespace

namespace sweep {

File make_file() {
    File file(std::tmpfile(), std::fclose);
    if (file == nullptr) throw std::runtime_error("no file can be made");
    return file;
}

std::string read_from(int descriptor, off_t offset) {
    std::string all;
    std::array<char, 4096> buffer{};
    for (;;) {
        const off_t at = offset + static_cast<off_t>(all.size());
        const ssize_t count = ::pread(descriptor, buffer.data(), buffer.size(), at);
        if (count <= 0) return all;
        all.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

}  // namespace sweep

/// @name Memory. The other forms of new come down to these.
/// @{
void* operator new(std::size_t size) {
    void* const memory =
        meet(Kind::memory) != 0 ? nullptr : std::malloc(std::max<std::size_t>(size, 1));
    if (memory == nullptr) throw std::bad_alloc();
    ++sweep::live_blocks;
    return memory;
}

void operator delete(void* memory) noexcept {
    if (memory != nullptr) --sweep::live_blocks;
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}
/// @}

/// @name Threads
/// @{
namespace {

struct Start {
    void* (*function)(void*);
    void* argument;
    Role role;
    bool shielded;
};

void* run(void* argument) {
    const Start start = *static_cast<const Start*>(argument);
    std::free(argument);
    sweep::role = start.role;
    fake_usb::shielded = start.shielded;
    return start.function(start.argument);
}

}  // namespace

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
/// AddressSanitizer's own, which has to see every thread; null without it.
__attribute__((weak)) int __interceptor_pthread_create(pthread_t* thread,
                                                       const pthread_attr_t* attributes,
                                                       void* (*function)(void*), void* argument);

/// Stands before the C library's: the C++ library's std::thread finds this one.
__attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                          const pthread_attr_t* attributes,
                                                          void* (*function)(void*),
                                                          void* argument) {
    using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const Create create = __interceptor_pthread_create != nullptr
                                     ? __interceptor_pthread_create
                                     : reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (const int fault = meet(Kind::thread)) return fault;
    auto* const start = static_cast<Start*>(std::malloc(sizeof(Start)));
    *start = {function, argument, sweep::role_of_started, fake_usb::shielded};
    const int result = create(thread, attributes, run, start);
    if (result != 0) std::free(start);
    return result;
}

/// @}
/// @name Files. These and the following are names of the linker's --wrap.
/// @{
int __real_open(const char* path, int flags, ...);
int __real_fstat(int descriptor, struct stat* info);
std::FILE* __real_fdopen(int descriptor, const char* mode);
int __real_fseek(std::FILE* file, long offset, int whence);
std::size_t __real_fread(void* data, std::size_t size, std::size_t count, std::FILE* file);
}

namespace {

/// @return whether the call fails, with errno set.
bool fails(Kind kind) {
    const int fault = meet(kind);
    if (fault != 0) errno = fault;
    return fault != 0;
}

}  // namespace

extern "C" {

/// The library creates no files, so that there is no mode.
int __wrap_open(const char* path, int flags, ...) {
    return fails(Kind::file_open) ? -1 : __real_open(path, flags);
}

int __wrap_fstat(int descriptor, struct stat* info) {
    return fails(Kind::file_stat) ? -1 : __real_fstat(descriptor, info);
}

std::FILE* __wrap_fdopen(int descriptor, const char* mode) {
    return fails(Kind::file_stream) ? nullptr : __real_fdopen(descriptor, mode);
}

int __wrap_fseek(std::FILE* file, long offset, int whence) {
    return fails(Kind::file_seek) ? -1 : __real_fseek(file, offset, whence);
}

std::size_t __wrap_fread(void* data, std::size_t size, std::size_t count, std::FILE* file) {
    const int fault = meet(Kind::file_read);
    if (fault == 0) return __real_fread(data, size, count, file);
    const std::size_t half = __real_fread(data, size, count / 2, file);
    if (fault == sweep::kEnded) {
        __real_fseek(file, 0, SEEK_END);
        std::fgetc(file);  // Sets the end-of-file indicator.
    } else {
        std::fputc(0, file);  // Sets the error indicator, as the stream is for reading.
    }
    return half;
}

/// @}
/// @name Time. A time point is a number of nanoseconds in a register, as C has it.
/// @{
std::int64_t __real__ZNSt6chrono3_V212steady_clock3nowEv();
int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* end);
int __real_nanosleep(const timespec* time, timespec* left);

std::int64_t __wrap__ZNSt6chrono3_V212steady_clock3nowEv() {
    return __real__ZNSt6chrono3_V212steady_clock3nowEv() + ahead;
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  clockid_t clock, const timespec* end) {
    const std::int64_t wanted = nanoseconds(*end) - ahead;
    const auto now = __real__ZNSt6chrono3_V212steady_clock3nowEv;
    const auto wait_until = [&](std::int64_t time) {
        const timespec until = time_of(time);
        return __real_pthread_cond_clockwait(condition, mutex, clock, &until);
    };
    if (fake_usb::shielded || wanted - now() < kLongWait) return wait_until(wanted);
    for (int looks = 0; looks < kLooks && now() < wanted;) {
        const int result = wait_until(now() + kLook);
        if (result != ETIMEDOUT) return result;
        looks = sweep::response_can_come() ? 0 : looks + 1;
    }
    ahead += std::max<std::int64_t>(0, wanted - now());
    return ETIMEDOUT;
}

/// The library's pauses, a tenth as long.
int __wrap_nanosleep(const timespec* time, timespec* left) {
    if (fake_usb::shielded) return __real_nanosleep(time, left);
    const std::int64_t whole = nanoseconds(*time);
    const timespec shorter = time_of(whole / 10);
    ahead += whole - whole / 10;
    return __real_nanosleep(&shorter, left);
}
// NOLINTEND(bugprone-reserved-identifier)
/// @}
}
