// SPDX-License-Identifier: Apache-2.0
#include "sweep/faults.h"

#include <libusb.h>

#include <cerrno>

#include "usb/usb.h"

namespace sweep {
namespace {

struct KindRow {
    const char* name;
    std::vector<Result> results;
};

// clang-format off
constexpr Result kIo{"io", LIBUSB_ERROR_IO}, kInvalid{"invalid-param", LIBUSB_ERROR_INVALID_PARAM},
    kAccess{"access", LIBUSB_ERROR_ACCESS}, kNoDevice{"no-device", LIBUSB_ERROR_NO_DEVICE},
    kNotFound{"not-found", LIBUSB_ERROR_NOT_FOUND}, kBusy{"busy", LIBUSB_ERROR_BUSY},
    kTimeout{"time-out", LIBUSB_ERROR_TIMEOUT}, kOverflow{"overflow", LIBUSB_ERROR_OVERFLOW},
    kPipe{"stall", LIBUSB_ERROR_PIPE}, kInterrupted{"interrupted", LIBUSB_ERROR_INTERRUPTED},
    kNoMemory{"no-memory", LIBUSB_ERROR_NO_MEM}, kOther{"other", LIBUSB_ERROR_OTHER},
    kNotSupported{"not-supported", LIBUSB_ERROR_NOT_SUPPORTED},
    kShort{"short", fake_usb::kShort}, kPartial{"partial-time-out", fake_usb::kPartial},
    kNothing{"nothing", fake_usb::kNothing};

/// By kind. Where libusb's documentation names no results but "a LIBUSB_ERROR code", these are the
/// ones that its back end for Linux can return.
const std::array<KindRow, kKinds> kRows{{
    {"init", {kNoMemory, kIo, kOther}},
    {"hotplug", {kNotSupported, kNoMemory}},
    {"list", {kNoMemory, kIo, kAccess, kNoDevice, kOther}},
    {"descriptor", {kIo, kNoDevice}},
    {"open", {kNoMemory, kAccess, kNoDevice, kIo, kBusy, kOther}},
    {"claim", {kNotFound, kBusy, kNoDevice, kIo, kOther}},
    {"release", {kNotFound, kNoDevice, kOther}},
    {"alloc", {{"null", LIBUSB_ERROR_NO_MEM}}},
    {"submit", {kNoDevice, kBusy, kNotSupported, kInvalid, kIo, kNoMemory}},
    {"cancel", {kNotFound, kNoDevice, kOther}},
    {"events", {kInvalid, kIo, kInterrupted, kBusy, kNoMemory, kOther}},
    {"bulk", {kTimeout, kPipe, kOverflow, kNoDevice, kBusy, kInvalid, kIo, kInterrupted, kNoMemory,
              kShort, kPartial, kNothing}},
    {"completion", {{"stall", LIBUSB_TRANSFER_STALL}, {"error", LIBUSB_TRANSFER_ERROR},
                    {"time-out", LIBUSB_TRANSFER_TIMED_OUT},
                    {"overflow", LIBUSB_TRANSFER_OVERFLOW},
                    {"no-device", LIBUSB_TRANSFER_NO_DEVICE}}},
    {"memory", {{"null", ENOMEM}}},
    {"thread", {{"again", EAGAIN}}},
    {"file-open", {{"no-file", ENOENT}, {"too-many", EMFILE}}},
    {"file-stat", {{"error", EIO}}},
    {"file-stream", {{"null", ENOMEM}}},
    {"file-seek", {{"error", EIO}}},
    {"file-read", {{"short", kEnded}, {"error", kBroken}}},
}};
// clang-format on

constexpr std::array<const char*, kRoles> kRoleNames{"app", "sender", "watcher", "notification"};

std::array<std::atomic<unsigned>, kKinds * kRoles> met{};

/// The last libusb call that this thread has made.
thread_local Kind last_call = Kind::init;

bool fails_here(Kind kind, const Fault& fault, unsigned position) noexcept {
    if (kind != fault.kind) return false;
    if (role != fault.role || position != fault.position) return fault.always && fired;
    fired_in_receive = role == Role::watcher || JovuUsb::in_callback();
    fired = true;
    return true;
}

}  // namespace

const char* name(Kind kind) noexcept {
    return kRows[static_cast<std::size_t>(kind)].name;
}

const std::vector<Result>& results(Kind kind) {
    return kRows[static_cast<std::size_t>(kind)].results;
}

std::string Fault::text() const {
    return std::string(name(kind)) + "@" + kRoleNames[static_cast<std::size_t>(role)] + "." +
           std::to_string(position) + ":" + result.name + (always ? ":always" : ":once");
}

bool always_fails(Kind kind) noexcept {
    return armed && fault_of_run != nullptr && fault_of_run->kind == kind && fault_of_run->always &&
           fired;
}

Counts counts() noexcept {
    Counts result{};
    std::copy(met.begin(), met.end(), result.begin());
    return result;
}

int meet(Kind kind) noexcept {
    const bool libusb = kind < Kind::memory;
    if (!armed || (!libusb && fake_usb::shielded)) return 0;
    // The watcher waits for events over and over; how often is a matter of time. Such waits in a
    // row are one position.
    const bool repeated = kind == Kind::events && last_call == Kind::events;
    if (libusb) last_call = kind;
    const unsigned position = repeated ? 0 : ++met[slot(kind, role)];
    const Fault* const fault = fault_of_run;
    return fault != nullptr && fails_here(kind, *fault, position) ? fault->result.value : 0;
}

}  // namespace sweep
