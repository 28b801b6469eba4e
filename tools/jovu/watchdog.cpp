#include "watchdog.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace jovu_cli {
namespace {

using Clock = std::chrono::steady_clock;

/// Waits until one of the descriptors is ready, or until then.
void poll_until(pollfd* watched, nfds_t count, Clock::time_point end) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        const int ready = poll(watched, count, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0 || (ready == 0 && Clock::now() >= end)) {
            return;
        }
    }
}

}  // namespace

Watchdog::Watchdog(const StopSource& stop, Limits limits, std::function<bool()> alive,
                   std::function<void()> bite)
    : alive_(std::move(alive)),
      bite_(std::move(bite)),
      done_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!done_.valid()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    thread_ = std::thread([this, &stop, limits] { watch(stop, limits); });
}

Watchdog::~Watchdog() {
    const std::uint64_t one = 1;
    (void)!write(done_.get(), &one, sizeof one);
    thread_.join();
}

void Watchdog::watch(const StopSource& stop, Limits limits) const {
    const auto last_end = Clock::now() + limits.at_most;
    bool stopped = false;
    pollfd watched[] = {{done_.get(), POLLIN, 0}, {stop.fd(), POLLIN, 0}};
    for (;;) {
        const auto limit = stopped ? limits.after_stop : limits.quiet;
        poll_until(watched, stopped ? 1 : 2, std::min(last_end, Clock::now() + limit));
        if (watched[0].revents != 0) {
            return;
        }
        const bool stopped_now = !stopped && watched[1].revents != 0;
        stopped = stopped || stopped_now;
        const bool alive = alive_();
        if (Clock::now() >= last_end || (!stopped_now && !alive)) {
            bite_();
            return;
        }
    }
}

}  // namespace jovu_cli
