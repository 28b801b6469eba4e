#include "sweep/rules.h"

#include <algorithm>

namespace sweep {
namespace {

constexpr const char* kOpening =
    "a device that answers its probe and cannot be opened right after ends the watcher, unless it "
    "is gone";
constexpr const char* kMemory =
    "an error on the watcher or in a callback that is not a device's own ends the watcher";
constexpr const char* kChannel =
    "receiving that cannot be started or continued stays ended until the device is plugged in "
    "anew, since only the failure of both channels removes it";
constexpr const char* kFrame =
    "a frame with a gap is dropped, with the beginning of the next one, in either direction";
constexpr const char* kUnseen =
    "a device that a scan cannot look at counts as gone; the next scan opens it anew, and a frame "
    "that was cut off continues with the next bytes from that address";
constexpr const char* kReport =
    "the job channel has no frames: a report that lost a closing brace continues into the next one "
    "until the device is plugged in anew";

}  // namespace

// clang-format off
const std::vector<Rule>& rules() {
    using K = Kind;
    using R = Remedy;
    static const std::vector<Rule> all{
        {K::list, {}, Sign::last_words, "Failed to get libusb device list.", R::restart, kOpening},
        {K::descriptor, {},
         Sign::last_words, "Failed to get libusb device descriptor.", R::restart, kOpening},
        {K::descriptor, {}, Sign::frame_lost, "", R::repeat, kUnseen},
        {K::open, {"no-memory", "access", "io", "busy", "other"},
         Sign::last_words, "Failed to open libusb device.", R::restart, kOpening},
        {K::claim, {"not-found", "busy", "io", "other"},
         Sign::last_words, "Failed to claim libusb device.", R::restart, kOpening},
        {K::alloc, {}, Sign::last_words, "Failed to allocate rx transfer.", R::restart, kOpening},
        {K::memory, {}, Sign::last_words, "std::bad_alloc", R::restart, kMemory},
        {K::submit, {}, Sign::reception_ended, "", R::replug_and_repeat, kChannel},
        {K::completion, {"stall", "no-device"},
         Sign::reception_ended, "", R::replug_and_repeat, kChannel},
        {K::completion, {"error", "time-out"}, Sign::frame_lost, "", R::repeat, kFrame},
        {K::completion, {"error", "time-out"}, Sign::report_lost, "", R::replug, kReport},
        {K::bulk, {"stall", "overflow", "no-device", "invalid-param", "io", "interrupted",
                   "no-memory", "partial-time-out"}, Sign::frame_lost, "", R::repeat, kFrame},
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
