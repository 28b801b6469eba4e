// SPDX-License-Identifier: Apache-2.0

/// @file
/// Calls that can fail, how they are counted, and the one that fails in a run.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

#include "fake_usb/fake_libusb.h"

namespace sweep {

using fake_usb::Shield;

// clang-format off
/// The calls of the library that can fail. The first ones are those of fake_usb::Call.
enum class Kind { init, hotplug, list, descriptor, open, claim, release, alloc, submit, cancel,
                  events, bulk, completion,
                  memory, thread, file_open, file_stat, file_stream, file_seek, file_read };
// clang-format on
inline constexpr std::size_t kKinds = 20;

/// Which thread calls. Each thread's calls come in nearly the same order in every run, those of all
/// threads together do not.
enum class Role {
    app,           ///< The application's main thread.
    sender,        ///< The application's other threads.
    watcher,       ///< The library's watcher.
    notification,  ///< The library's notification threads.
};
inline constexpr std::size_t kRoles = 4;

/// What a call returns instead of its success.
struct Result {
    const char* name;
    int value;  ///< libusb's or errno's number, or one of the fake's; never 0.
};
/// @name Values of Kind::file_read
/// @{
inline constexpr int kEnded = 4;   ///< Half of the data, then the end of the file.
inline constexpr int kBroken = 5;  ///< Half of the data, then an error.
/// @}

/// The name of a kind, as it stands in positions and tables.
const char* name(Kind kind) noexcept;

/// Every result that a call of that kind is documented to return, except for success.
const std::vector<Result>& results(Kind kind);

/// One call of a scenario, by kind and thread, and what it returns.
struct Fault {
    Kind kind;
    Role role;
    unsigned position;  ///< Counted from 1.
    Result result;
    bool always;  ///< From there on every call of the kind fails, on whatever thread.

    /// "submit@watcher.2:no-device:once"
    std::string text() const;
};

/// How many calls there were, by slot().
using Counts = std::array<unsigned, kKinds * kRoles>;
constexpr std::size_t slot(Kind kind, Role role) {
    return static_cast<std::size_t>(kind) * kRoles + static_cast<std::size_t>(role);
}

/// Whether calls are counted, and one may fail.
inline std::atomic<bool> armed{false};
/// The run's fault, null for none. To be set before calls are counted.
inline const Fault* fault_of_run = nullptr;
/// Whether the fault's call has failed.
inline std::atomic<bool> fired{false};
/// Whether it failed on the watcher, or while received data was being handled.
inline std::atomic<bool> fired_in_receive{false};
/// @return whether every call of that kind fails now.
bool always_fails(Kind kind) noexcept;
Counts counts() noexcept;

/// Counts a call that is about to be made. Calls other than libusb's are not counted in a Shield.
/// @return the value of the Result that it returns, 0 if it does not fail.
int meet(Kind kind) noexcept;

/// @name The calling thread's role, and that of the threads that the library starts on it
/// @{
inline thread_local Role role = Role::app;
inline thread_local Role role_of_started = Role::notification;
/// @}

}  // namespace sweep
