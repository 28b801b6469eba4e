#include "sweep/rules.h"

#include <algorithm>

namespace sweep {
// clang-format off
const std::vector<Rule>& rules() {
    using K = Kind;
    using R = Remedy;
    static const std::vector<Rule> all{
        // A device that answers its probe and cannot be opened right after ends the watcher, unless
        // it is gone.
        {K::list, {}, Sign::last_words, R::restart, "Failed to get libusb device list."},
        {K::descriptor, {}, Sign::last_words, R::restart,
         "Failed to get libusb device descriptor."},
        {K::open, {"no-memory", "access", "io", "busy", "other"}, Sign::last_words, R::restart,
         "Failed to open libusb device."},
        {K::claim, {"not-found", "busy", "io", "other"}, Sign::last_words, R::restart,
         "Failed to claim libusb device."},
        {K::alloc, {}, Sign::last_words, R::restart, "Failed to allocate rx transfer."},
        // An error on the watcher or in a callback that is not a device's own ends the watcher.
        {K::memory, {}, Sign::last_words, R::restart, "std::bad_alloc"},
        // A device that a scan cannot look at counts as gone; the next scan opens it anew, and a
        // frame that was cut off continues with the next bytes from that address.
        {K::descriptor, {}, Sign::frame_lost, R::repeat},
        // Receiving that cannot be started or continued stays ended until the device is plugged in
        // anew, since only the failure of both channels removes it.
        {K::submit, {}, Sign::reception_ended, R::replug_and_repeat},
        {K::completion, {"stall", "no-device"}, Sign::reception_ended, R::replug_and_repeat},
        // A frame with a gap is dropped, with the beginning of the next one, in either direction.
        {K::completion, {"error", "time-out"}, Sign::frame_lost, R::repeat},
        {K::bulk, {"stall", "overflow", "no-device", "invalid-param", "io", "interrupted",
                   "no-memory", "partial-time-out"}, Sign::frame_lost, R::repeat},
        // The job channel has no frames: a report that lost a closing brace continues into the next
        // one until the device is plugged in anew.
        {K::completion, {"error", "time-out"}, Sign::report_lost, R::replug},
    };
    return all;
}
// clang-format on

bool Rule::covers(const Fault& fault) const {
    return kind == fault.kind && (kind != Kind::memory || fired_in_reception()) &&
           (results.empty() ||
            std::find(results.begin(), results.end(), fault.result.name) != results.end());
}

}  // namespace sweep
