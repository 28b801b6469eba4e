#include "core/send_locks.h"

#include <iterator>
#include <utility>

#include "base/never_destroyed.h"

namespace jovu {
namespace {

/// The send locks of the process, so that several transports use one for one device.
class AllLocks {
public:
    std::shared_ptr<SendLock> of(JovuUsb::connection_t connection) {
        const MutexLock guard(mutex_);
        for (auto entry = locks_.begin(); entry != locks_.end();) {
            entry = entry->second.expired() ? locks_.erase(entry) : std::next(entry);
        }
        std::weak_ptr<SendLock>& known = locks_[connection];
        std::shared_ptr<SendLock> lock = known.lock();
        if (lock == nullptr) known = lock = std::make_shared<SendLock>(connection);
        return lock;
    }

private:
    Mutex mutex_;
    std::unordered_map<JovuUsb::connection_t, std::weak_ptr<SendLock>> locks_
        JOVU_GUARDED_BY(mutex_);
};

AllLocks& all_locks() {
    static NeverDestroyed<AllLocks> all;
    return all.get();
}

}  // namespace

void SendLock::leave() {
    const MutexLock lock(mutex_);
    busy_ = false;
    changed_.notify_all();
}

void SendLock::wake() {
    const MutexLock lock(mutex_);
    changed_.notify_all();
}

void SendLock::wait_idle() {
    const MutexLock lock(mutex_);
    while (busy_)
        changed_.wait(mutex_);
}

std::shared_ptr<SendLock> SendLocks::connect(JovuDeviceAddress address,
                                             JovuUsb::connection_t connection) {
    std::shared_ptr<SendLock> lock = all_locks().of(connection);
    std::shared_ptr<SendLock> other = lock;
    {
        const MutexLock guard(mutex_);
        if (closed_) return lock;
        std::swap(locks_[address], other);
    }
    if (other != nullptr) other->wake();
    return lock;
}

std::shared_ptr<SendLock> SendLocks::disconnect(JovuDeviceAddress address) {
    Map::node_type taken_out;
    {
        const MutexLock guard(mutex_);
        taken_out = locks_.extract(address);
    }
    if (taken_out.empty()) return nullptr;
    taken_out.mapped()->wake();
    return taken_out.mapped();
}

void SendLocks::close() {
    Map taken_out;
    {
        const MutexLock guard(mutex_);
        closed_ = true;
        taken_out.swap(locks_);
    }
    for (const auto& entry : taken_out)
        entry.second->wake();
}

std::shared_ptr<SendLock> SendLocks::find(JovuDeviceAddress address) {
    const MutexLock guard(mutex_);
    const auto found = locks_.find(address);
    return found == locks_.end() ? nullptr : found->second;
}

}  // namespace jovu
