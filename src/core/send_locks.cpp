#include "core/send_locks.h"

#include <utility>

namespace jovu {

void SendLocks::connect(JovuDeviceAddress address, JovuUsb::connection_t connection) {
    auto lock = std::make_shared<SendLock>(connection);
    const MutexLock guard(mutex_);
    if (closed_) return;
    std::shared_ptr<SendLock>& entry = locks_[address];
    if (entry != nullptr) entry->retired = true;
    entry = std::move(lock);
}

std::shared_ptr<SendLock> SendLocks::disconnect(JovuDeviceAddress address) {
    const MutexLock guard(mutex_);
    const auto found = locks_.find(address);
    if (found == locks_.end()) return nullptr;
    std::shared_ptr<SendLock> lock = std::move(found->second);
    locks_.erase(found);
    lock->retired = true;
    return lock;
}

void SendLocks::close() {
    const MutexLock guard(mutex_);
    closed_ = true;
    for (const auto& entry : locks_)
        entry.second->retired = true;
    locks_.clear();
}

std::shared_ptr<SendLock> SendLocks::find(JovuDeviceAddress address) {
    const MutexLock guard(mutex_);
    const auto found = locks_.find(address);
    return found == locks_.end() ? nullptr : found->second;
}

}  // namespace jovu
