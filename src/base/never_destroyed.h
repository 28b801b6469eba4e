// SPDX-License-Identifier: Apache-2.0

/// @file
/// Storage for state that outlives static destruction.
#pragma once

#include <atomic>
#include <memory>
#include <new>
#include <type_traits>

namespace jovu {

/// Holds a T that is constructed but never destroyed. A process may exit with a client alive and
/// the watcher running: what they use has to be there until the very end.
template <class T>
class NeverDestroyed {
public:
    NeverDestroyed() { ::new (&storage_) T(); }
    ~NeverDestroyed() = default;
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T& get() noexcept { return *std::launder(reinterpret_cast<T*>(&storage_)); }

private:
    std::aligned_storage_t<sizeof(T), alignof(T)> storage_;
};

/// Keeps an object that other threads may still use when its owner is destroyed. Needs no memory:
/// the objects own themselves by their member `kept_by`, and form a list through `kept_before`, a
/// T* that is null at first, so that a leak checker reaches them. Calls for one object do not
/// overlap.
template <class T>
void keep_until_exit(const std::shared_ptr<T>& object) noexcept {
    static std::atomic<T*> last{nullptr};
    T* const kept = object.get();
    if (kept->kept_by != nullptr) return;
    kept->kept_by = object;
    kept->kept_before = last.exchange(kept);
}

}  // namespace jovu
