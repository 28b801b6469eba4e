#include "sweep/faults.h"

#include <libusb.h>

#include <atomic>
#include <cerrno>

#include "usb/usb.h"

namespace sweep {
namespace {

constexpr std::array<const char*, kKinds> kKindNames{
    "init",      "list",      "descriptor",  "open",      "claim",      "release", "alloc",
    "submit",    "cancel",    "events",      "bulk",      "completion", "memory",  "thread",
    "file-open", "file-stat", "file-stream", "file-seek", "file-read"};
constexpr std::array<const char*, kRoles> kRoleNames{"app", "sender", "watcher", "notice"};

constexpr Result kIo{"io", LIBUSB_ERROR_IO};
constexpr Result kInvalid{"invalid-param", LIBUSB_ERROR_INVALID_PARAM};
constexpr Result kAccess{"access", LIBUSB_ERROR_ACCESS};
constexpr Result kNoDevice{"no-device", LIBUSB_ERROR_NO_DEVICE};
constexpr Result kNotFound{"not-found", LIBUSB_ERROR_NOT_FOUND};
constexpr Result kBusy{"busy", LIBUSB_ERROR_BUSY};
constexpr Result kTimeout{"time-out", LIBUSB_ERROR_TIMEOUT};
constexpr Result kOverflow{"overflow", LIBUSB_ERROR_OVERFLOW};
constexpr Result kPipe{"stall", LIBUSB_ERROR_PIPE};
constexpr Result kInterrupted{"interrupted", LIBUSB_ERROR_INTERRUPTED};
constexpr Result kNoMemory{"no-memory", LIBUSB_ERROR_NO_MEM};
constexpr Result kNotSupported{"not-supported", LIBUSB_ERROR_NOT_SUPPORTED};
constexpr Result kOther{"other", LIBUSB_ERROR_OTHER};

/// By kind. Where libusb's documentation names no results but "a LIBUSB_ERROR code", there stand
/// those that its back end for Linux can give.
const std::array<std::vector<Result>, kKinds> kResults{{
    {kNoMemory, kIo, kOther},
    {kNoMemory, kIo, kAccess, kNoDevice, kOther},
    {kIo, kNoDevice},
    {kNoMemory, kAccess, kNoDevice, kIo, kBusy, kOther},
    {kNotFound, kBusy, kNoDevice, kIo, kOther},
    {kNotFound, kNoDevice, kOther},
    {{"null", 0}},
    {kNoDevice, kBusy, kNotSupported, kInvalid, kIo, kNoMemory},
    {kNotFound, kNoDevice, kOther},
    {kInvalid, kIo, kInterrupted, kBusy, kNoMemory, kOther},
    {kTimeout,
     kPipe,
     kOverflow,
     kNoDevice,
     kBusy,
     kInvalid,
     kIo,
     kInterrupted,
     kNoMemory,
     {"short", kShort},
     {"partial-time-out", kPartial},
     {"nothing", kNothing}},
    {{"stall", LIBUSB_TRANSFER_STALL},
     {"error", LIBUSB_TRANSFER_ERROR},
     {"time-out", LIBUSB_TRANSFER_TIMED_OUT},
     {"overflow", LIBUSB_TRANSFER_OVERFLOW},
     {"no-device", LIBUSB_TRANSFER_NO_DEVICE}},
    {{"null", 0}},
    {{"again", EAGAIN}},
    {{"no-file", ENOENT}, {"too-many", EMFILE}},
    {{"error", EIO}},
    {{"null", ENOMEM}},
    {{"error", EIO}},
    {{"short", kEnded}, {"error", kBroken}},
}};

std::atomic<const Fault*> armed{nullptr};
std::atomic<bool> counting{false};
std::atomic<bool> struck{false};
std::atomic<bool> struck_in_reception{false};
std::array<std::array<std::atomic<unsigned>, kRoles>, kKinds> met{};

thread_local int shields = 0;

/// The last libusb call that this thread has made.
thread_local Kind last_call = Kind::init;

bool is_libusb(Kind kind) noexcept {
    return kind < Kind::memory;
}

bool strikes(Kind kind, const Fault& fault, unsigned position) noexcept {
    if (kind != fault.kind) return false;
    if (role == fault.role && position == fault.position) {
        struck_in_reception = role == Role::watcher || JovuUsb::in_callback();
        struck = true;
        return true;
    }
    return fault.always && struck;
}

}  // namespace

thread_local Role role = Role::app;
thread_local Role role_of_started = Role::notice;

const char* name(Kind kind) noexcept {
    return kKindNames[static_cast<std::size_t>(kind)];
}

const char* name(Role of) noexcept {
    return kRoleNames[static_cast<std::size_t>(of)];
}

const std::vector<Result>& results(Kind kind) {
    return kResults[static_cast<std::size_t>(kind)];
}

std::string Fault::text() const {
    return std::string(name(kind)) + "@" + name(role) + "." + std::to_string(position) + ":" +
           outcome().name + (always ? ":always" : ":once");
}

std::optional<Fault> Fault::parse(const std::string& text) {
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        for (std::size_t of = 0; of < kRoles; ++of) {
            const std::string begin = std::string(kKindNames[kind]) + "@" + kRoleNames[of] + ".";
            if (text.rfind(begin, 0) != 0) continue;
            const unsigned long position = std::strtoul(text.c_str() + begin.size(), nullptr, 10);
            for (std::size_t result = 0; result < kResults[kind].size(); ++result) {
                for (const bool always : {false, true}) {
                    const Fault fault{static_cast<Kind>(kind), static_cast<Role>(of),
                                      static_cast<unsigned>(position), result, always};
                    if (position > 0 && fault.text() == text) return fault;
                }
            }
        }
    }
    return std::nullopt;
}

void arm(const Fault* fault) noexcept {
    armed = fault;
    counting = true;
}

void disarm() noexcept {
    counting = false;
    armed = nullptr;
}

bool fired() noexcept {
    return struck;
}

bool fired_in_reception() noexcept {
    return struck_in_reception;
}

bool fails_for_good(Kind kind) noexcept {
    const Fault* const fault = armed;
    return fault != nullptr && fault->kind == kind && fault->always && struck;
}

Counts counts() noexcept {
    Counts result{};
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
        for (std::size_t of = 0; of < kRoles; ++of)
            result[kind][of] = met[kind][of];
    }
    return result;
}

const Result* meet(Kind kind) noexcept {
    if (!counting || (!is_libusb(kind) && shields > 0)) return nullptr;
    // The watcher waits for events over and over; how often is a matter of time. Such waits in a
    // row are one position.
    const bool repeated = kind == Kind::events && last_call == Kind::events;
    if (is_libusb(kind)) last_call = kind;
    auto& count = met[static_cast<std::size_t>(kind)][static_cast<std::size_t>(role)];
    const unsigned position = repeated ? 0 : ++count;
    const Fault* const fault = armed;
    return fault != nullptr && strikes(kind, *fault, position) ? &fault->outcome() : nullptr;
}

Shield::Shield() noexcept {
    ++shields;
}

Shield::~Shield() {
    --shields;
}

Exposed::Exposed() noexcept : depth_(shields) {
    shields = 0;
}

Exposed::~Exposed() {
    shields = depth_;
}

bool shielded() noexcept {
    return shields > 0;
}

}  // namespace sweep
