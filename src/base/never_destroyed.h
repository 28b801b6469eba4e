/// @file
/// Storage for process-wide state that outlives static destruction.
#pragma once

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

}  // namespace jovu
