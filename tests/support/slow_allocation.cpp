#include "support/slow_allocation.h"

#include <cstdlib>
#include <new>
#include <thread>

namespace test {

thread_local std::chrono::milliseconds allocation_delay{0};
std::atomic<bool> new_threads_are_slow{false};

namespace {

thread_local bool has_allocated = false;

void perhaps_wait() {
    if (!has_allocated) {
        has_allocated = true;
        if (new_threads_are_slow) allocation_delay = std::chrono::milliseconds(1500);
    }
    if (allocation_delay.count() > 0) std::this_thread::sleep_for(allocation_delay);
}

}  // namespace
}  // namespace test

void* operator new(std::size_t size) {
    test::perhaps_wait();
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
