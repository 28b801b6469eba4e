// SPDX-License-Identifier: Apache-2.0

/// @file
/// Requests that wait for a response.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string_view>

#include "base/mutex.h"
#include "core/cancellable_exchanges.h"
#include "jovu/device_address.h"
#include "usb/connection.h"

class JovuMessage;

namespace jovu {

/// Wakes one sender; lives on its stack for one exchange. Counts, so that a wake-up that comes
/// before the wait is not lost.
class ResponseSignal {
public:
    void post();

    /// Waits for one post. A wake-up without one starts a fresh wait.
    /// @return false when @p limit passed without a wake-up.
    bool wait(std::chrono::milliseconds limit);

private:
    Mutex mutex_;
    ConditionVariable condition_;
    unsigned count_ JOVU_GUARDED_BY(mutex_) = 0;
};

/// The requests of one transport that wait, by message id.
class WaitingRequests {
public:
    /// Keeps a request in the table for a scope. Request and signal must outlive it.
    class Entry {
    public:
        /// An entry that already holds the id is overwritten.
        /// @param connection what the request is sent to; must outlive the entry.
        /// @param ticket the exchange's; must outlive the entry, and is finished by a response.
        Entry(WaitingRequests& table, JovuMessage& request, ResponseSignal& signal,
              const Connection& connection, CancellableExchanges::Ticket& ticket);
        ~Entry();
        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

    private:
        WaitingRequests& table_;
        const unsigned id_;
        ResponseSignal* const signal_;
    };

    /// What a response came from.
    struct Sender {
        JovuDeviceAddress address;
        const Connection* connection;  ///< Null when the device is not connected any more.
        std::string_view command;      ///< The command that the response names; empty for none.
    };

    /// Hands a response to the request with its id and wakes the sender of the request. A response
    /// that no request waits for, or whose exchange has been cancelled, is dropped.
    /// @param strict also drops, with one line on standard output per request, a response that
    ///     came over another connection than the request went to, or that names another command.
    ///     Otherwise the id alone decides, whichever device sent the response.
    void respond(std::shared_ptr<JovuMessage>& response, const Sender& sender, bool strict);

    /// Wakes, without a response, the senders that wait for a device.
    void wake(JovuDeviceAddress address);

    /// Wakes, without a response, the senders whose exchange has been cancelled.
    void wake_cancelled();

    /// Wakes every sender, without a response.
    void wake_all();

private:
    struct Waiting {
        JovuMessage* request;
        ResponseSignal* signal;
        const Connection* connection;
        CancellableExchanges::Ticket* ticket;
        bool mismatch_printed = false;
    };

    /// @return why a response is not the one to a request; null when it is.
    static const char* mismatch(const Waiting& waiting, const Sender& sender);

    /// Taken before a signal's mutex. Held while a request reads its response, so that the entry's
    /// owner cannot leave meanwhile.
    Mutex mutex_;
    std::map<unsigned, Waiting> waiting_ JOVU_GUARDED_BY(mutex_);
};

}  // namespace jovu
