#include "firmware/machine.h"

namespace jovusim {

namespace {
// The job can end between two calls; the heater then follows its new target from the next step on.
constexpr double kStepSeconds = 0.1;
constexpr double kLongestWait = 3600.0;
}  // namespace

double Machine::target() const {
    const double wanted = job_.temperature_wanted();
    return wanted > 0 ? wanted : manual_target_;
}

void Machine::advance(Millis now) {
    if (!now_) now_ = now;
    double left = static_cast<double>(now - *now_) / 1000.0 * pace_;
    now_ = now;
    seconds_ += left;
    // Everything has settled long before: the loop below stays short after a long silence.
    if (left > kLongestWait) left = kLongestWait;
    while (left > 0) {
        const double step = left < kStepSeconds ? left : kStepSeconds;
        extruder_.set_target(target());
        extruder_.advance(step);
        job_.advance(step);
        left -= step;
    }
    extruder_.set_target(target());
    if (job_.running()) note_activity();
}

}  // namespace jovusim
