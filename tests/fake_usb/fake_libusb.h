// SPDX-License-Identifier: Apache-2.0

/// @file
/// A USB bus for tests, behind libusb's own function names. Linked in place of libusb.
///
/// Threads meet as under the real one: one thread at a time handles events and runs completion
/// callbacks; closing a handle waits until no thread handles events.
///
/// Every function may be called from any thread.
#pragma once

#include <libusb.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fake_usb {

// clang-format off
/// The calls that can be scripted and are counted. `bulk` is the submission of a send, `submit` of a
/// receive transfer. `completion` is the status with which a receive transfer ends.
enum class Call { init, hotplug, list, descriptor, open, claim, release, alloc, submit, cancel,
                  handle_events, bulk, completion };
// clang-format on

/// @name What a step of Call::bulk may return besides libusb's errors
/// @{
inline constexpr int kShort = 1;    ///< Success, half of the data moved.
inline constexpr int kPartial = 2;  ///< A time-out, half of the data moved.
inline constexpr int kNothing = 3;  ///< Success, no data moved.
/// @}

/// What one call does: runs `before` on the calling thread with no lock held, then returns a result
/// (other than 0: without having done anything; for an allocation: null). With Call::bulk, the
/// transfer ends with the result if a transfer can.
struct Step {
    Step(int value, std::function<void()> first = nullptr)  // NOLINT(google-explicit-constructor)
        : result(value), before(std::move(first)) {}
    Step(int value, int bytes) : result(value), transferred(bytes) {}
    int result;
    std::function<void()> before;
    std::optional<int> transferred;  ///< Bytes of a send; otherwise all if it succeeds.
};

/// One send that was submitted.
struct Sent {
    unsigned endpoint;
    std::string bytes;
    unsigned timeout_ms;
};

libusb_device* plug(std::uint8_t bus, std::uint8_t address, std::uint16_t product = 0x0002,
                    std::uint16_t vendor = 0x7A1C, std::uint8_t port = 1);

/// @param silently leaves transfers in flight, and gives no notice of hot-plug, as long as the host
///     has not noticed yet.
void unplug(libusb_device* device, bool silently = false);

/// Says what the next calls do; calls past the script succeed.
void script(Call call, const std::vector<Step>& steps);
unsigned calls(Call call);

/// Functions that take part in every call, on the calling thread and with no lock held.
struct Hook {
    int (*enter)(Call call);  ///< Before the call. Returns as a Step does.
    /// A receive transfer is in flight.
    void (*submitted)(libusb_device* device, unsigned endpoint);
    void (*sent)(libusb_device* device, unsigned endpoint, const std::string& bytes);
};
/// To be called while no thread uses the fake. The hook stays for the life of the process.
void set_hook(const Hook& hook);

/// Whether the calling thread runs the fake or the test, as opposed to the library.
inline thread_local bool shielded = false;

/// Sets `shielded` for a scope.
class Shield {
public:
    explicit Shield(bool on = true) noexcept : before_(std::exchange(shielded, on)) {}
    ~Shield() { shielded = before_; }
    Shield(const Shield&) = delete;
    Shield& operator=(const Shield&) = delete;

private:
    const bool before_;
};

std::vector<Sent> sent();
/// Whether sent() grows.
inline std::atomic<bool> record_sent{true};

/// While bulk is held, sends stay in flight.
void hold_bulk(bool hold);

/// Whether only an event or an interrupt ends an event wait; otherwise each is short.
inline std::atomic<bool> endless_event_waits{false};

/// Whether a cancellation succeeds without any effect.
inline std::atomic<bool> lose_cancellations{false};

/// Completes the transfer that is in flight on an endpoint; its callback runs on the next thread
/// that handles events.
/// @return false when none is in flight there.
bool post(libusb_device* device, unsigned endpoint, libusb_transfer_status status,
          const std::string& data = "");
/// The same, and waits until the callback has returned.
bool complete(libusb_device* device, unsigned endpoint, libusb_transfer_status status,
              const std::string& data = "");
bool in_flight(libusb_device* device, unsigned endpoint);
/// @return whether there is a completion whose callback has not returned yet.
bool untold();

/// Ends a test and forgets everything.
/// @return what was misused or not released, and how many steps of the scripts were not taken.
std::vector<std::string> finish();

}  // namespace fake_usb
