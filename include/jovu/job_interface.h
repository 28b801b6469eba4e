// SPDX-License-Identifier: Apache-2.0

/// @file
/// The print-job channel: status, pause, abort and the job-file push.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>

#include "jovu/device_address.h"
#include "jovu/export.h"
#include "jovu/scan_pause.h"
#include "jovu/usb_client.h"

/// Cancels a push that runs on another thread. One object serves one push: it stays cancelled.
///
/// Threads: any; cancel() may also be called in a signal handler.
class JovuPushCancel {
public:
    /// For one push, not cancelled.
    JovuPushCancel() = default;
    JovuPushCancel(const JovuPushCancel&) = delete;
    JovuPushCancel& operator=(const JovuPushCancel&) = delete;

    /// Requests the cancellation and returns at once. The push notices it before its next piece,
    /// that is, when the file read or the USB write in progress has ended.
    void cancel() noexcept { cancelled_ = true; }

    /// @return whether cancel() has been called.
    bool cancelled() const noexcept { return cancelled_; }

private:
    std::atomic<bool> cancelled_{false};
    static_assert(std::atomic<bool>::is_always_lock_free, "cancel() is called in signal handlers");
};

/// How far a push has come.
struct JovuPushProgress {
    std::uint64_t sent = 0;   ///< Bytes that the device has taken, filler included.
    std::uint64_t total = 0;  ///< Bytes announced: the size of the job.
    double percent = 0;       ///< 0.0 at the start, capped at 99.9 meanwhile, 100.0 at the end.
    std::string job_id;       ///< Of the push; empty from JovuJobInterface::SendJobFile().
    bool filler = false;      ///< The rest is filler: the push has been cancelled or cut short.
};

/// What a push calls with its progress: a function, a pointer to one, or a function object
/// such as a lambda or a std::function. It only refers to that, so it is made in the call that
/// takes it.
class JovuPushObserver {
public:
    /// Calls nothing.
    JovuPushObserver(std::nullptr_t = nullptr) noexcept {}  // NOLINT(google-explicit-constructor)

    /// @param function called with a `const JovuPushProgress&`; an empty std::function or a null
    ///     pointer stands for nothing. Outlives the observer.
    template <class Function,
              class = std::enable_if_t<!std::is_same_v<std::decay_t<Function>, JovuPushObserver> &&
                                       std::is_invocable_v<Function&, const JovuPushProgress&>>>
    JovuPushObserver(Function&& function) noexcept  // NOLINT(google-explicit-constructor)
    {
        using Object = std::remove_reference_t<Function>;
        if constexpr (std::is_function_v<Object>) {
            object_ = reinterpret_cast<void*>(std::addressof(function));
            call_ = [](void* object, const JovuPushProgress& progress) {
                reinterpret_cast<Object*>(object)(progress);
            };
        } else {
            if constexpr (std::is_assignable_v<std::decay_t<Function>&, std::nullptr_t>) {
                if (!function) return;
            }
            object_ = const_cast<void*>(static_cast<const void*>(std::addressof(function)));
            call_ = [](void* object, const JovuPushProgress& progress) {
                (*static_cast<Object*>(object))(progress);
            };
        }
    }

    /// Calls the function, if there is one.
    void operator()(const JovuPushProgress& progress) const {
        if (call_ != nullptr) call_(object_, progress);
    }

private:
    void* object_ = nullptr;
    void (*call_)(void* object, const JovuPushProgress& progress) = nullptr;
};

/// How a push that can be cancelled has ended. In each case the device waits for no more job data.
enum class JovuPushResult {
    completed,  ///< The whole job has been sent.
    cancelled,  ///< Nothing has been sent, or filler in place of the rest of the job.
    cut_short,  ///< The file has become shorter or unreadable: filler in place of the rest.
};

/// Talks to devices on the print-job channel (USB interface number 1).
///
/// Construction starts the USB connection if it is not running; destruction unregisters this
/// object.
///
/// Threads: request and push operations run on the caller's thread and may be called from any;
/// StatusReceived() and JobDataReceived() run on the thread that handles USB events (the watcher
/// thread; during a push usually the thread that pushes; for moments a thread that sends or
/// closes), and nothing is received while they run. So a thread that calls this object, a push
/// above all, holds no lock that they, or the handlers of any other client, acquire. In them, sends
/// fail at once with "Send failed - libusb error: -6" (busy), and a client must be neither
/// constructed nor destroyed. They must not throw: an exception ends the watcher thread, for the
/// whole process, with one line on standard output.
///
/// The channel is one stream of bytes. While a push to a device runs, requests to it and raw bytes
/// from other threads would become part of the job; the caller must prevent that.
/// The same holds after a push that has ended with an exception, from the connection, the progress
/// callback or a shutdown(): the device still waits for the rest of the announced size and treats
/// everything on this channel as job data, requests for status or abort included. It responds again
/// once it has received that many bytes, has timed out (each byte may restart its time limit), or
/// is restarted. A push that may have to be ended early therefore takes a JovuPushCancel.
///
/// The USB connection stops when the last client of either interface unregisters: an object of this
/// class alone stops working when the last JovuClient of the process is destroyed.
class JOVU_API JovuJobInterface : private JovuUsbClient {
public:
    /// One decoded status report. What the device left out is empty or zero.
    struct StatusMsg {
        /// Identity of the controller.
        struct {
            std::string model_name;           ///< Name of the model.
            std::string cpu_id;               ///< Identity of the controller's processor.
            std::string firmware_name;        ///< Name of the firmware.
            std::string firmware_version;     ///< Version of the firmware.
            std::int32_t accept_version = 0;  ///< Version of job files that is accepted.
        } printer;
        std::string state;                ///< What the machine is doing.
        std::string build_plate;          ///< State of the build plate.
        std::string filament;             ///< State of the filament.
        double extruder_temperature = 0;  ///< Extruder temperature, degrees Celsius.
        std::string job_id;               ///< Id of the current or last job; may be empty.
        std::int32_t progress = 0;        ///< Progress of the job, per cent.
        std::string file;                 ///< File of the job.
        std::int32_t time_elapsed = 0;    ///< Time since the job began, seconds.
        std::int32_t boot_time = 0;       ///< Time since the controller started, seconds.
        std::int32_t idle_time = 0;       ///< Time since the controller was last busy, seconds.
        std::int32_t error = 0;           ///< Error number of the firmware, 0 for none.
    };

    /// Progress of a push, called on the pushing thread.
    /// @param percent 0.0 at the start, capped at 99.9 while pieces go out, 100.0 at the end.
    /// @param job_id the job id of the push, empty from SendJobFile().
    /// @param user the pointer given with the callback.
    using Progress = void (*)(double percent, std::string job_id, void* user);

    /// Registers for the job channel; starts the USB connection on first use.
    ///
    /// A class derived from this one alone takes a JovuScanPause as the default argument of its
    /// constructor: without it, its callbacks may begin before it is built.
    /// @throws JovuException "Failed to initialize libusb", or when called in a callback with
    ///     received data; std::system_error when no thread can be started.
    JovuJobInterface();

    JovuJobInterface(const JovuJobInterface&) = delete;
    JovuJobInterface& operator=(const JovuJobInterface&) = delete;

    /// As shutdown(). Not in a handler that is called with received data.
    ~JovuJobInterface() override;

    /// Requests a status report, which arrives later through StatusReceived(). Reports carry no
    /// number: one that was requested earlier may arrive first.
    /// @throws JovuException "Send failed - ..." when the device is disconnected or takes no data;
    ///     "Send failed - The client has been shut down." after shutdown().
    void RequestStatus(JovuDeviceAddress address);

    /// Requests a status report and waits for it. Reports carry no number, so the one returned is
    /// the first that arrives after the call has begun, also when an earlier request asked for it.
    /// StatusReceived() is called with it as well.
    ///
    /// Threads: any but one in a callback with received data; several may wait for one device. The
    /// wait ends at once when the device is disconnected or closed, and on shutdown().
    /// @param limit 10 ms to 24 h. The call takes longer, by some seconds, when the device takes no
    ///     data and RequestStatus() fails.
    /// @throws JovuException as RequestStatus(); "Status failed - ..." with
    ///     JovuError::response_timed_out when no report arrives in time, JovuError::disconnected or
    ///     JovuError::closed when the device leaves meanwhile, JovuError::in_callback at once in a
    ///     callback; JovuError::rejected for a limit out of range.
    StatusMsg wait_for_status(JovuDeviceAddress address, std::chrono::milliseconds limit);

    /// Requests that a device pause its job, or resume it if it is paused: look at a status report
    /// first. Devices without a job ignore it.
    /// @throws JovuException as RequestStatus().
    void SendPause(JovuDeviceAddress address);

    /// Requests that a device abort its job.
    /// @throws JovuException as RequestStatus().
    void SendAbort(JovuDeviceAddress address);

    /// Writes raw bytes to the job channel, as they are.
    /// @param data kept by the caller, needed during the call only.
    /// @param length in bytes; with 0 nothing is sent.
    /// @throws JovuException as RequestStatus().
    void SendJobData(JovuDeviceAddress address, const unsigned char* data, unsigned int length);

    /// Pushes a job file and returns when its last byte has been taken by the device. The push
    /// carries no acknowledgement: the outcome shows in later status reports. The caller must
    /// not run two pushes to one device at a time.
    ///
    /// A device that is unplugged ends the push with an exception, also when another one has taken
    /// its address meanwhile. It is "Send failed - Device no longer connected." when the library
    /// has noticed the disconnect before, else that of the failing transfer: on Linux "Send failed
    /// - libusb error: -4" (no device) or -1 (input/output error), some 0.4 s after the cable has
    /// been pulled.
    ///
    /// shutdown() on another thread ends the push with "Send failed - The client has been shut
    /// down." What the device does after a push that has ended with an exception is described at
    /// the top of this class.
    /// @param path of a file that can be read and sought (read twice).
    /// @param progress may be null. An exception that it throws ends the push and passes on. It may
    ///     call shutdown(), but must not destroy this object.
    /// @param user handed to the callback.
    /// @param compressed must be false.
    ///
    /// A file that cannot be read to its end, or that becomes shorter meanwhile, ends the push
    /// early and still with 100.0, without an exception. The device then waits for the rest and
    /// treats all requests as job data, as after an exception; the overload with a JovuPushCancel
    /// sends filler instead.
    /// @throws JovuException "Failed to open job file." (also for a directory or a pipe),
    ///     "Compression not supported yet." or "Send failed - ...".
    void SendJobFile(JovuDeviceAddress address, std::string path, Progress progress, void* user,
                     bool compressed);

    /// The same, but can be cancelled, and replaces what it cannot send by filler, so that the
    /// device does not wait for it: zero bytes, of which the last may be a one, up to the announced
    /// size. The checksum then always differs from the announced one, so the device refuses the
    /// job. The filler takes as long as the rest of the job would; progress goes
    /// on to 100.0 meanwhile.
    ///
    /// Cancelled while the file is still being measured, the push sends nothing and makes no
    /// progress call. Cancelled after its last byte, it counts as completed.
    /// @param cancel outlives the call.
    /// @throws JovuException as the other overload; the device then waits for the rest of the job.
    [[nodiscard]] JovuPushResult SendJobFile(JovuDeviceAddress address, std::string path,
                                             Progress progress, void* user, bool compressed,
                                             const JovuPushCancel& cancel);

    /// The same with a function object as the callback, which is called as often.
    /// @param progress called on this thread; null for none. An exception that it throws ends the
    ///     push and passes on. It may call shutdown(), but must not destroy this object.
    /// @param cancel outlives the call.
    /// @throws JovuException as the other overloads; the device then waits for the rest of the job.
    [[nodiscard]] JovuPushResult SendJobFile(JovuDeviceAddress address, const std::string& path,
                                             JovuPushObserver progress,
                                             const JovuPushCancel& cancel);

    /// The push itself, on an open file that stays the caller's and open.
    /// @param file a stream that can be sought; is read twice from its start. Read errors as in
    ///     SendJobFile().
    /// @param progress may be null.
    /// @param user handed to the callback.
    /// @param job_id announced to the device and handed to the callback.
    /// @param compressed announces deflated content; the bytes are sent as they are either way.
    /// @param decompressed_length announced with @p compressed, in bytes.
    /// @throws JovuException "Send failed - ..."; for a stream that cannot be sought "Failed to
    ///     rewind job file.", having sent nothing.
    void send_job(JovuDeviceAddress address, std::FILE* file, Progress progress, void* user,
                  std::string job_id, bool compressed, unsigned long decompressed_length);

    /// A status report has arrived. Empty by default.
    virtual void StatusReceived(JovuDeviceAddress address, StatusMsg status);

    /// A complete JSON object has arrived, of whatever kind, before it is parsed. Empty by default.
    /// @param text valid during the call only; followed by a zero that is not counted.
    /// @param length in bytes.
    virtual void JobDataReceived(JovuDeviceAddress address, const unsigned char* text,
                                 unsigned int length);

    /// Unregisters this object: when it returns, no callback of this object is running and none
    /// will follow. May be called more than once. A class derived from this one calls it first in
    /// its own destructor, while its overrides are still there to be called.
    ///
    /// Requests fail from now on with "Send failed - The client has been shut down." A push of this
    /// object ends with the same error, also while other clients of the process go on; its device
    /// is left waiting for the rest of the job. The call waits until the push has returned from its
    /// progress callback and its current write (some seconds, for a device that takes no data). In
    /// a progress callback it does not wait for the push that makes the callback, which ends when
    /// the callback returns.
    ///
    /// In a handler that is called with received data it cannot wait for pushes and other
    /// callbacks: none begins after it returns, and the rest is left to a later call or the
    /// destructor.
    void shutdown();

private:
    friend class JovuClient;

    void usb_device_connected(JovuDeviceAddress address) override;
    void usb_device_disconnected(JovuDeviceAddress address) override;
    void data_received(unsigned char* data, unsigned int length,
                       JovuDeviceAddress address) override;

    JOVU_LOCAL void send_request(const char* type, JovuDeviceAddress address);
    /// Makes requests and pushes fail from now on, those in progress included.
    JOVU_LOCAL void reject_calls();

    struct JOVU_LOCAL State;
    std::shared_ptr<State> state_;
};
