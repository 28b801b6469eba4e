// SPDX-License-Identifier: Apache-2.0

/// @file
/// Reads trace events with bare yajl: the floor of an event.
#pragma once

#include <yajl/yajl_tree.h>

#include <array>
#include <atomic>
#include <cstdint>

namespace bench {

/// Which trace events have arrived. One thread adds, any thread reads.
class EventCount {
public:
    /// The next event may have any counter. To be called while none arrives.
    void begin_series() { first_ = true; }
    void add(std::uint32_t counter) {
        if (!first_.exchange(false)) lost_ += counter - last_ - 1;
        last_ = counter;
        ++count_;
    }
    std::uint64_t count() const { return count_; }
    /// @return how many counters were left out.
    std::uint64_t lost() const { return lost_; }

private:
    std::atomic<std::uint64_t> count_{0};
    std::atomic<std::uint64_t> lost_{0};
    std::atomic<bool> first_{true};
    std::uint32_t last_ = 0;
};

/// Parses an event and reads its members, as the library does. A FrameSink.
/// @param user the EventCount.
inline void read_event(void* user, const char* payload, std::size_t /*size*/) {
    const yajl_val tree = yajl_tree_parse(payload, nullptr, 0);
    if (tree == nullptr) return;
    const char* path[] = {"data", "event", "args", nullptr};
    const yajl_val args = yajl_tree_get(tree, path, yajl_t_object);
    if (args != nullptr && args->u.object.len > 0) {
        constexpr std::array<const char*, 7> kMembers{"servo_name", "servo_state", "pos_cmd", "pos",
                                                      "pwm",        "padout_dist", "int_cnt"};
        long long value = 0;
        bool complete = true;
        for (const char* const name : kMembers) {
            const char* member[] = {name, nullptr};
            const yajl_val found = yajl_tree_get(args->u.object.values[0], member, yajl_t_number);
            complete = complete && YAJL_IS_INTEGER(found);
            if (complete) value = YAJL_GET_INTEGER(found);
        }
        if (complete) static_cast<EventCount*>(user)->add(static_cast<std::uint32_t>(value));
    }
    yajl_tree_free(tree);
}

}  // namespace bench
