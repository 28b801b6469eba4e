// SPDX-License-Identifier: Apache-2.0
#include "firmware/usb/transmit_queue.h"

#include <algorithm>
#include <utility>

namespace jovusim {

namespace {
constexpr std::size_t kWaitingLimit = 1U << 20U;
}

void TransmitQueue::push(std::string run, Millis not_before, std::size_t packet_size) {
    // A single run of any length fits: only a host that does not read loses output.
    if (!runs_.empty() && waiting_ + run.size() > kWaitingLimit) {
        ++dropped_;
        return;
    }
    waiting_ += run.size();
    Run entry;
    entry.bytes = std::move(run);
    entry.not_before = not_before;
    entry.packet_size = std::clamp<std::size_t>(packet_size, 1, kMaxPacket);
    runs_.push_back(std::move(entry));
}

void TransmitQueue::push_minor(std::string run, Millis not_before) {
    if (waiting_ + run.size() > kWaitingLimit / 2) {
        ++dropped_;
        return;
    }
    push(std::move(run), not_before);
    runs_.back().minor = true;
    ++minor_;
}

void TransmitQueue::drop_minor() {
    if (runs_.empty()) return;
    const auto end = std::remove_if(runs_.begin() + (offset_ > 0 ? 1 : 0), runs_.end(),
                                    [](const Run& run) { return run.minor; });
    runs_.erase(end, runs_.end());
    waiting_ = minor_ = 0;
    for (const Run& run : runs_) {
        waiting_ += run.bytes.size();
        if (run.minor) ++minor_;
    }
}

void TransmitQueue::push_burst(std::uint64_t count,
                               std::function<std::string(std::uint64_t)> make) {
    if (count == 0) return;
    Run entry;
    entry.bytes = make(0);
    entry.more = count - 1;
    entry.make = std::move(make);
    waiting_ += entry.bytes.size();
    runs_.push_back(std::move(entry));
}

std::optional<std::string> TransmitQueue::next_packet(Millis now) {
    if (runs_.empty() || runs_.front().not_before > now) return std::nullopt;
    last_read_ = now;
    const Run& run = runs_.front();
    std::string packet = run.bytes.substr(offset_, run.packet_size);
    offset_ += packet.size();
    // After a full last packet an empty one ends the transfer of the host.
    if (packet.size() < kMaxPacket && offset_ == run.bytes.size()) finish_run();
    return packet;
}

void TransmitQueue::finish_run() {
    Run& run = runs_.front();
    waiting_ -= run.bytes.size();
    offset_ = 0;
    if (run.more > 0) {
        --run.more;
        run.bytes = run.make(++run.made);
        waiting_ += run.bytes.size();
    } else {
        if (run.minor) --minor_;
        runs_.pop_front();
    }
}

std::optional<Millis> TransmitQueue::next_due() const {
    if (runs_.empty()) return std::nullopt;
    return runs_.front().not_before;
}

void TransmitQueue::clear() {
    runs_.clear();
    offset_ = 0;
    waiting_ = minor_ = 0;
}

std::optional<Corruption> corruption_from_name(std::string_view name) {
    constexpr std::array<std::string_view, kCorruptionCount> kNames = {
        "check", "terminator", "json", "attrs", "id", "truncate"};
    const auto* const found = std::find(kNames.begin(), kNames.end(), name);
    if (found == kNames.end()) return std::nullopt;
    return static_cast<Corruption>(found - kNames.begin());
}

}  // namespace jovusim
