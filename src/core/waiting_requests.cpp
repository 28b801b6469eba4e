#include "core/waiting_requests.h"

#include "core/message.h"

namespace jovu {

void ResponseSignal::post() {
    const MutexLock lock(mutex_);
    ++count_;
    condition_.notify_one();
}

bool ResponseSignal::wait(std::chrono::milliseconds limit) {
    const MutexLock lock(mutex_);
    while (count_ == 0) {
        if (!condition_.wait_for(mutex_, limit) && count_ == 0) return false;
    }
    --count_;
    return true;
}

WaitingRequests::Entry::Entry(WaitingRequests& table, JovuMessage& request, ResponseSignal& signal,
                              JovuDeviceAddress address)
    : table_(table), id_(request.id()), signal_(&signal) {
    const MutexLock lock(table_.mutex_);
    table_.waiting_[id_] = {&request, &signal, address};
}

WaitingRequests::Entry::~Entry() {
    const MutexLock lock(table_.mutex_);
    const auto found = table_.waiting_.find(id_);
    // Ids wrap: the entry may be another request's by now.
    if (found != table_.waiting_.end() && found->second.signal == signal_) {
        table_.waiting_.erase(found);
    }
}

void WaitingRequests::respond(std::shared_ptr<JovuMessage>& response) {
    const MutexLock lock(mutex_);
    const auto found = waiting_.find(response->id());
    if (found == waiting_.end()) return;
    found->second.request->set_response(response);
    // The tree ends with this dispatch, the response may live on with the woken sender.
    response->forget_data();
    found->second.signal->post();
}

void WaitingRequests::wake(JovuDeviceAddress address) {
    const MutexLock lock(mutex_);
    for (const auto& [id, waiting] : waiting_) {
        if (waiting.address == address) waiting.signal->post();
    }
}

void WaitingRequests::wake_all() {
    const MutexLock lock(mutex_);
    for (const auto& [id, waiting] : waiting_)
        waiting.signal->post();
}

}  // namespace jovu
