// SPDX-License-Identifier: Apache-2.0

/// @file
/// The journal: which requests were begun, and how they ended. What makes them exactly-once.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace jovu_bridge {

/// The journal cannot be opened, read or written. The text names its file and the reason.
class JournalError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Requests by device and id, in a database in the state folder. One process uses it at a time.
///
/// A thread of the journal makes all changes; those that several threads ask for at a time share
/// one transaction, and so one synchronisation of the disk.
///
/// Threads: any.
class Journal {
public:
    struct Limits {
        std::chrono::milliseconds max_age = std::chrono::hours(7 * 24);
        std::uint64_t max_entries = 100000;
    };

    enum class State { absent, started, done };

    struct Entry {
        State state = State::absent;
        std::string digest;
        std::string response;  ///< The final one, of a request that is done.
    };

    struct Size {
        std::uint64_t entries = 0;
        std::uint64_t bytes = 0;  ///< Of the database.
    };

    /// Opens the journal, and creates it if there is none.
    /// @param folder exists, and is writable.
    /// @throws JournalError when it is damaged, of a later version, in use or not writable.
    Journal(const std::string& folder, const Limits& limits);
    /// Waits for the changes in progress.
    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    void set_limits(const Limits& limits);

    /// @throws JournalError
    Entry find(const std::string& device, const std::string& id);

    /// Enters a request, before its first byte goes to the device. On disk when this returns.
    /// @throws JournalError, also when there is such an entry.
    void start(const std::string& device, const std::string& id, const std::string& digest);

    /// Enters the final response of a request. On disk when this returns.
    /// @throws JournalError
    void finish(const std::string& device, const std::string& id, const std::string& response);

    /// @throws JournalError
    Size size();

private:
    class Parts;
    std::unique_ptr<Parts> parts_;
};

}  // namespace jovu_bridge
