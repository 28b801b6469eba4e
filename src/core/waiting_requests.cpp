// SPDX-License-Identifier: Apache-2.0
#include "core/waiting_requests.h"

#include <utility>

#include "base/log.h"
#include "core/message.h"

namespace jovu {

void ResponseSignal::post() {
    const MutexLock lock(mutex_);
    ++count_;
    condition_.notify_one();
}

bool ResponseSignal::wait(std::chrono::milliseconds limit) {
    const MutexLock lock(mutex_);
    bool in_time = true;
    while (count_ == 0 && in_time)
        in_time = condition_.wait_for(mutex_, limit);
    if (count_ == 0) return false;
    --count_;
    return true;
}

WaitingRequests::Entry::Entry(WaitingRequests& table, JovuMessage& request, ResponseSignal& signal,
                              const Connection& connection, CancellableExchanges::Ticket& ticket)
    : table_(table), id_(request.id()), signal_(&signal) {
    const MutexLock lock(table_.mutex_);
    table_.waiting_[id_] = {&request, &signal, &connection, &ticket};
}

WaitingRequests::Entry::~Entry() {
    const MutexLock lock(table_.mutex_);
    const auto found = table_.waiting_.find(id_);
    // Ids wrap: the entry may be another request's by now.
    if (found != table_.waiting_.end() && found->second.signal == signal_) {
        table_.waiting_.erase(found);
    }
}

const char* WaitingRequests::mismatch(const Waiting& waiting, const Sender& sender) {
    if (sender.connection != waiting.connection) return "came over another connection";
    if (!sender.command.empty() && sender.command != waiting.request->command_name())
        return "names another command";
    return nullptr;
}

void WaitingRequests::respond(std::shared_ptr<JovuMessage>& response, const Sender& sender,
                              bool strict) {
    const char* reason = nullptr;
    {
        const MutexLock lock(mutex_);
        const auto found = waiting_.find(response->id());
        if (found == waiting_.end()) return;
        Waiting& waiting = found->second;
        if (strict) reason = mismatch(waiting, sender);
        if (reason == nullptr) {
            if (!waiting.ticket->finish()) return;
            waiting.request->set_response(response);
            // The tree ends with this dispatch, the response may live on with the woken sender.
            response->forget_data();
            waiting.signal->post();
            return;
        }
        // Once per request: a device that sends many must not fill the application's output.
        if (std::exchange(waiting.mismatch_printed, true)) return;
    }
    log(JovuLogLevel::warning, sender.address,
        "JovuMessage: %u -- Response of %u:%u dropped - it %s.", response->id(),
        static_cast<unsigned>(sender.address.bus), static_cast<unsigned>(sender.address.address),
        reason);
}

void WaitingRequests::wake(JovuDeviceAddress address) {
    const MutexLock lock(mutex_);
    for (const auto& [id, waiting] : waiting_) {
        if (waiting.connection->address() == address) waiting.signal->post();
    }
}

void WaitingRequests::wake_cancelled() {
    const MutexLock lock(mutex_);
    for (const auto& [id, waiting] : waiting_) {
        if (waiting.ticket->cancelled()) waiting.signal->post();
    }
}

void WaitingRequests::wake_all() {
    const MutexLock lock(mutex_);
    for (const auto& [id, waiting] : waiting_)
        waiting.signal->post();
}

}  // namespace jovu
