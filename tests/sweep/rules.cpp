#include "sweep/rules.h"

#include <algorithm>

namespace sweep {
namespace {

constexpr const char* kOpening =
    "a device that answered its probe and cannot be opened right after it ends the watcher, unless "
    "it has gone";
constexpr const char* kMemory =
    "an error on the watcher or in reception that is not a device's own ends the watcher, and "
    "reception with it";
constexpr const char* kChannel =
    "reception that cannot be started or gone on with stays ended until the device is plugged in "
    "anew, for only the failure of both channels removes it; a frame that was cut off goes on with "
    "the next bytes from that address";
constexpr const char* kFrame =
    "lost bytes are lost: a frame with a gap is dropped, and takes the beginning of the next one "
    "with it, in either direction";
constexpr const char* kUnseen =
    "a device that cannot be looked at in a scan counts as gone, and is opened anew at the next "
    "one; a frame that was cut off goes on with the next bytes from that address";
constexpr const char* kReport =
    "lost bytes are lost: the job channel has no frames, and a report that lost a closing brace "
    "goes on into the next until the device is plugged in anew";

}  // namespace

// clang-format off
const std::vector<Rule>& rules() {
    static const std::vector<Rule> all{
        {Kind::list, {},
         Sign::last_words, "Failed to get libusb device list.", Remedy::restart, kOpening},
        {Kind::descriptor, {},
         Sign::last_words, "Failed to get libusb device descriptor.", Remedy::restart, kOpening},
        {Kind::descriptor, {},
         Sign::frame_lost, "", Remedy::repeat, kUnseen},
        {Kind::open, {"no-memory", "access", "io", "busy", "other"},
         Sign::last_words, "Failed to open libusb device.", Remedy::restart, kOpening},
        {Kind::claim, {"not-found", "busy", "io", "other"},
         Sign::last_words, "Failed to claim libusb device.", Remedy::restart, kOpening},
        {Kind::alloc, {},
         Sign::last_words, "Failed to allocate rx transfer.", Remedy::restart, kOpening},
        {Kind::memory, {},
         Sign::last_words, "std::bad_alloc", Remedy::restart, kMemory},
        {Kind::submit, {},
         Sign::reception_ended, "", Remedy::replug_and_repeat, kChannel},
        {Kind::completion, {"stall", "no-device"},
         Sign::reception_ended, "", Remedy::replug_and_repeat, kChannel},
        {Kind::completion, {"error", "time-out"},
         Sign::frame_lost, "", Remedy::repeat, kFrame},
        {Kind::completion, {"error", "time-out"},
         Sign::report_lost, "", Remedy::replug, kReport},
        {Kind::bulk, {"stall", "overflow", "no-device", "invalid-param", "io", "interrupted",
                      "no-memory", "partial-time-out"},
         Sign::frame_lost, "", Remedy::repeat, kFrame},
    };
    return all;
}
// clang-format on

bool Rule::covers(const Fault& fault) const {
    return kind == fault.kind && (kind != Kind::memory || fired_in_reception()) &&
           (results.empty() ||
            std::find(results.begin(), results.end(), fault.outcome().name) != results.end());
}

bool may_set_aside(const Fault& fault) {
    return fault.always && (fault.kind == Kind::cancel || fault.kind == Kind::events);
}

bool is_set_aside(const std::string& finding) {
    for (const char* const what :
         {" left: transfers", " left: handles", " left: contexts", " left: device references"}) {
        if (finding.find(what) != std::string::npos) return true;
    }
    return false;
}

}  // namespace sweep
