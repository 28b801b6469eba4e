// SPDX-License-Identifier: Apache-2.0

/// @file
/// The client: commands, jobs, notifications and recordings.
#include <pybind11/pybind11.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "bindings.h"
#include "commands.h"
#include "core.h"
#include "gil.h"
#include "interruptible.h"
#include "jovu/response_timeout.h"
#include "values.h"

namespace jovu_python {

namespace {

using SharedCore = std::shared_ptr<Core>;
using Milliseconds = std::chrono::milliseconds;

/// How long a cancelled exchange may take to end: a write that is in progress is completed first.
constexpr Milliseconds kCancelPatience{500};
/// Raw job data is written in pieces of this size, between which an interrupt ends it.
constexpr std::size_t kPiece = std::size_t{256} << 10U;

/// Runs a call of the library that an interrupt abandons.
template <class Result, class Call>
Result call_library(Call call) {
    const auto result = std::make_shared<Result>();
    run_without_gil([result, call] { *result = call(); });
    return *result;
}

/// @param limit in milliseconds; 0 for the client's own time-out.
py::object run_command(const SharedCore& core, std::size_t index, const py::handle& device,
                       const py::tuple& arguments, long limit) {
    struct Exchange {
        std::shared_ptr<PreparedCommand> command;
        JovuError code = JovuError::none;
        std::string reason;
    };
    const Command& row = commands().at(index);
    const JovuDeviceAddress address = load_address(device);
    const auto exchange = std::make_shared<Exchange>();
    exchange->command = row.prepare(arguments);
    run_without_gil(
        [core, exchange, address, limit] {
            const LogLinesAsExceptions quiet;
            std::unique_ptr<JovuResponseTimeout> timeout;
            if (limit > 0) timeout = std::make_unique<JovuResponseTimeout>(Milliseconds(limit));
            exchange->command->run(core->client(), address);
            exchange->code = JovuTransport::last_send_error_code();
            if (exchange->code != JovuError::none) {
                exchange->reason = JovuTransport::last_send_error();
            }
        },
        {[core, address] { core->client().cancel_exchanges(address); }, kCancelPatience});
    if (exchange->code != JovuError::none) {
        throw JovuException(std::string(row.name) + ", device " + std::to_string(address.bus) +
                                ":" + std::to_string(address.address) + ": " + exchange->reason,
                            exchange->code);
    }
    return exchange->command->result();
}

py::object store_notification(const Notification& notification) {
    const py::object device =
        notification.device ? store_address(*notification.device) : py::object(py::none());
    py::tuple arguments;
    switch (notification.kind) {
        case Kind::connected:
        case Kind::disconnected:
            arguments = py::make_tuple(device);
            break;
        case Kind::unavailable:
            arguments =
                py::make_tuple(device, store_info(std::get<JovuDeviceInfo>(notification.value)));
            break;
        case Kind::debug_event:
            arguments =
                py::make_tuple(device, store_string(std::get<std::string>(notification.value)));
            break;
        case Kind::job_data:
            arguments =
                py::make_tuple(device, py::bytes(std::get<std::string>(notification.value)));
            break;
        case Kind::servo_trace:
            arguments =
                py::make_tuple(device, store(std::get<servo_trace_msg>(notification.value)));
            break;
        case Kind::status_report:
            arguments = py::make_tuple(device, store(std::get<Status>(notification.value)));
            break;
        case Kind::log: {
            const auto& line = std::get<LogLine>(notification.value);
            arguments =
                py::make_tuple(static_cast<int>(line.level), device, store_string(line.text));
            break;
        }
    }
    return py::make_tuple(static_cast<int>(notification.kind), arguments);
}

/// An open file of the caller, with a descriptor of its own.
struct CloseFile {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): this is the owner.
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

/// A push that is in progress, and the callback that follows it.
class Push : public std::enable_shared_from_this<Push> {
public:
    /// @param progress null for none.
    Push(std::shared_ptr<JovuPushCancel> cancel, py::object progress)
        : cancel_(std::move(cancel)), progress_(std::move(progress)) {}
    Push(const Push&) = delete;
    Push& operator=(const Push&) = delete;
    ~Push() {
        if (!progress_) return;
        const GilHeld gil;
        progress_ = py::object();
    }

    const JovuPushCancel& cancel() const { return *cancel_; }
    void request_cancel() { cancel_->cancel(); }

    /// Calls the callback on the thread that pushes. An exception in it cancels the push.
    void report(const JovuPushProgress& progress) {
        if (!progress_ || failed_) return;
        const bool worked = call_back([push = shared_from_this(), progress] {
            call(push->progress_, py::make_tuple(python_class("PushProgress")(
                                      progress.sent, progress.total, progress.percent,
                                      store_string(progress.job_id), progress.filler)));
        });
        if (!worked) {
            failed_ = true;
            cancel_->cancel();
        }
    }

private:
    const std::shared_ptr<JovuPushCancel> cancel_;
    py::object progress_;  ///< Null for none.
    bool failed_ = false;  ///< Belongs to the thread that pushes.
};

int push(const SharedCore& core, const py::handle& device, const py::handle& file,
         const py::object& progress, const std::shared_ptr<JovuPushCancel>& cancel) {
    const JovuDeviceAddress address = load_address(device);
    const std::string path = load_terminated(file, Place{nullptr, "path"});
    const auto push =
        std::make_shared<Push>(cancel, load_callback(progress, Place{nullptr, "progress"}));
    const auto result = std::make_shared<JovuPushResult>();
    run_without_gil(
        [core, address, path, push, result] {
            const auto report = [&push](const JovuPushProgress& step) { push->report(step); };
            *result = core->client().SendJobFile(address, path, report, push->cancel());
        },
        {[push] { push->request_cancel(); }, Milliseconds::max()}, core.get());
    return static_cast<int>(*result);
}

void send_job(const SharedCore& core, const py::handle& device, int descriptor,
              const py::handle& id, bool compressed, const py::handle& length) {
    const JovuDeviceAddress address = load_address(device);
    const std::string job_id = load_string(id, Place{nullptr, "job_id"});
    const auto decompressed_length = static_cast<unsigned long>(
        load_integer(length, Place{nullptr, "decompressed_length"}, 0, INT64_MAX));
    const int own = dup(descriptor);
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): owned by the pointer.
    const std::shared_ptr<std::FILE> file(own < 0 ? nullptr : fdopen(own, "rb"),
                                          [](std::FILE* open) {
                                              if (open != nullptr) CloseFile()(open);
                                          });
    if (file == nullptr) {
        if (own >= 0) close(own);
        throw JovuException("Failed to open job file.", JovuError::file_unreadable);
    }
    run_without_gil([core, address, file, job_id, compressed, decompressed_length] {
        core->client().send_job(address, file.get(), nullptr, nullptr, job_id, compressed,
                                decompressed_length);
    });
}

/// A buffer of Python, released with the GIL by whichever thread uses it last.
class Bytes {
public:
    explicit Bytes(const py::handle& object) {
        if (PyObject_GetBuffer(object.ptr(), &view_, PyBUF_SIMPLE) != 0) {
            throw py::error_already_set();
        }
    }
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
    ~Bytes() {
        const GilHeld gil;
        PyBuffer_Release(&view_);
    }

    const unsigned char* data() const { return static_cast<const unsigned char*>(view_.buf); }
    std::size_t size() const { return static_cast<std::size_t>(view_.len); }

private:
    Py_buffer view_{};
};

void send_job_data(const SharedCore& core, const py::handle& device, const py::object& data) {
    const JovuDeviceAddress address = load_address(device);
    const auto bytes = std::make_shared<Bytes>(data);
    const auto interrupted = std::make_shared<std::atomic<bool>>(false);
    run_without_gil(
        [core, address, bytes, interrupted] {
            for (std::size_t at = 0; at < bytes->size() && !*interrupted; at += kPiece) {
                core->client().SendJobData(
                    address, bytes->data() + at,
                    static_cast<unsigned>(std::min(kPiece, bytes->size() - at)));
            }
        },
        {[interrupted] { *interrupted = true; }, kCancelPatience});
}

/// @return the memory layout of a sample, as the arguments of numpy.dtype().
py::dict sample_layout() {
    py::list names;
    py::list formats;
    py::list offsets;
    for_each_member<servo_trace_msg>([&](std::string_view key, auto field) {
        using Field = typename MemberType<decltype(field)>::Type;
        static_assert(std::is_integral_v<Field>);
        const servo_trace_msg sample{};
        names.append(py::str(key.data(), key.size()));
        formats.append((std::is_signed_v<Field> ? "i" : "u") + std::to_string(sizeof(Field)));
        offsets.append(reinterpret_cast<const char*>(&(sample.*field)) -
                       reinterpret_cast<const char*>(&sample));
    });
    py::dict layout;
    layout["names"] = names;
    layout["formats"] = formats;
    layout["offsets"] = offsets;
    layout["itemsize"] = sizeof(servo_trace_msg);
    return layout;
}

py::bytes recorded(const Recording& recording) {
    const std::vector<servo_trace_msg> samples = recording.samples();
    return {reinterpret_cast<const char*>(samples.data()),
            samples.size() * sizeof(servo_trace_msg)};
}

}  // namespace

void bind_client(py::module_& module) {
    py::class_<JovuPushCancel, std::shared_ptr<JovuPushCancel>>(
        module, "PushCancel",
        "Cancels a push that runs on another thread. One object serves one push: it stays "
        "cancelled.")
        .def(py::init<>())
        .def("cancel", &JovuPushCancel::cancel,
             "Request the cancellation and return at once. The push notices it before its next "
             "piece.")
        .def_property_readonly("cancelled", &JovuPushCancel::cancelled,
                               "Whether cancel() has been called.");

    // NumPy is left to Python: its first import, and its copies, release the GIL.
    module.def("sample_layout", &sample_layout);
    py::class_<Recording, std::shared_ptr<Recording>>(module, "Samples")
        .def("packed", &recorded)
        .def("__len__", &Recording::size)
        .def_property_readonly("lost", &Recording::lost);

    py::class_<NotificationQueue>(module, "Queue")
        .def("take",
             [](NotificationQueue& queue) {
                 std::vector<Notification> taken;
                 {
                     const GilReleased released;
                     taken = queue.take();
                 }
                 py::list notifications;
                 for (const Notification& notification : taken)
                     notifications.append(store_notification(notification));
                 return notifications;
             })
        .def("close", &NotificationQueue::close)
        .def_property_readonly("lost", [](const NotificationQueue& queue) {
            require_own_process();
            return queue.lost();
        });

    py::class_<Core, SharedCore>(module, "Core")
        .def(py::init([] {
            require_own_process();
            return std::make_shared<Core>();
        }))
        .def("start",
             [](const SharedCore& core, bool strict_matching) {
                 require_own_process();
                 const GilReleased released;
                 core->start(strict_matching);
             })
        .def("stop",
             [](const SharedCore& core) {
                 if (is_forked()) return;
                 const GilReleased released;
                 refuse_callbacks(core.get());
                 core->stop();
             })
        .def("stop_for",
             [](const SharedCore& core, long limit) {
                 return run_for([core] { core->stop(); }, Milliseconds(limit));
             })
        .def("enable", [](Core& core, int kind, bool on) { core.enable(Kind(kind), on); })
        .def_property_readonly(
            "queue", [](Core& core) -> NotificationQueue& { return core.queue(); },
            py::return_value_policy::reference_internal)
        .def("command", &run_command)
        .def("connected",
             [](const Core& core) {
                 py::list devices;
                 for (const JovuDeviceAddress device : core.connected())
                     devices.append(store_address(device));
                 return devices;
             })
        .def("wait_for_connection",
             [](const SharedCore& core, std::uint64_t seen, long limit) {
                 return call_library<std::uint64_t>([core, seen, limit] {
                     std::uint64_t count = seen;
                     core->wait_for_connection(count, Milliseconds(limit));
                     return count;
                 });
             })
        .def("list_attached",
             [](const SharedCore& core) {
                 py::list devices;
                 const auto attached = call_library<std::vector<JovuUsbDevice>>(
                     [core] { return core->client().list_attached(); });
                 for (const JovuUsbDevice& device : attached)
                     devices.append(python_class("UsbDevice")(device.type, device.port));
                 return devices;
             })
        .def("close_device",
             [](const SharedCore& core, const py::handle& device) {
                 run_without_gil(
                     [core, address = load_address(device)] { core->client().close(address); });
             })
        .def("reopen_device",
             [](const SharedCore& core, const py::handle& device) {
                 run_without_gil(
                     [core, address = load_address(device)] { core->client().reopen(address); });
             })
        .def("cancel_exchanges",
             [](const SharedCore& core, const py::handle& device) {
                 const JovuDeviceAddress address = load_address(device);
                 const GilReleased released;
                 return core->client().cancel_exchanges(address);
             })
        .def("set_response_timeout",
             [](const Core& core, long long limit) {
                 core.client().set_response_timeout(Milliseconds(limit));
             })
        .def("status",
             [](const SharedCore& core, const py::handle& device, long long limit) {
                 return store(call_library<Status>([core, address = load_address(device), limit] {
                     return core->client().wait_for_status(address, Milliseconds(limit));
                 }));
             })
        .def("request_status",
             [](const SharedCore& core, const py::handle& device) {
                 run_without_gil([core, address = load_address(device)] {
                     core->client().RequestStatus(address);
                 });
             })
        .def("send_pause",
             [](const SharedCore& core, const py::handle& device) {
                 run_without_gil(
                     [core, address = load_address(device)] { core->client().SendPause(address); });
             })
        .def("abort",
             [](const SharedCore& core, const py::handle& device) {
                 run_without_gil(
                     [core, address = load_address(device)] { core->client().SendAbort(address); });
             })
        .def("send_job_data", &send_job_data)
        .def("push", &push)
        .def("send_job", &send_job)
        .def("record", [](Core& core, const py::handle& device, const py::handle& servo,
                          const py::handle& most) {
            const auto number = static_cast<int>(
                load_integer(servo, Place{nullptr, "servo"}, INT16_MIN, INT16_MAX));
            const auto kept =
                static_cast<std::size_t>(load_integer(most, Place{nullptr, "most"}, 0, INT64_MAX));
            auto recording = std::make_shared<Recording>(load_address(device), number, kept);
            core.record(recording);
            return recording;
        });
}

}  // namespace jovu_python
