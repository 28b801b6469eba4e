// SPDX-License-Identifier: Apache-2.0

/// @file
/// What has no client: devices, filter, log, scan pauses, firmware update.
#include <fcntl.h>
#include <pybind11/pybind11.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "bindings.h"
#include "gil.h"
#include "interruptible.h"
#include "jovu/client.h"
#include "jovu/dfu.h"
#include "jovu/log.h"
#include "jovu/version.h"
#include "notifications.h"
#include "values.h"

namespace jovu_python {

namespace {

/// One level below those of JovuLogLevel: the failure is thrown as an exception too.
constexpr auto kDetail = static_cast<JovuLogLevel>(-1);

thread_local int throwing_calls = 0;

/// The lines of the log. Owned by the process: the library logs until it ends.
const std::shared_ptr<NotificationQueue>& log_queue() {
    // NOLINTNEXTLINE(bugprone-unused-return-value): owned by the process.
    static const auto* const queue = std::make_unique<const std::shared_ptr<NotificationQueue>>(
                                         std::make_shared<NotificationQueue>())
                                         .release();
    return *queue;
}

void log_line(JovuLogLevel level, std::optional<JovuDeviceAddress> device,
              const std::string& text) {
    if (throwing_calls > 0 && level == JovuLogLevel::error) level = kDetail;
    log_queue()->push({Kind::log, device, LogLine{level, text}});
}

template <class Code>
py::list names_of(const char* (*name)(Code) noexcept) {
    py::list names;
    for (int code = 0; std::string(name(static_cast<Code>(code))) != "unknown"; ++code)
        names.append(name(static_cast<Code>(code)));
    return names;
}

JovuDeviceInfo load_info(const py::handle& info) {
    const Place place{nullptr, "info"};
    JovuDeviceInfo loaded;
    loaded.address = load_address(attribute(info, "address"));
    loaded.port = load_string(attribute(info, "port"), Place{&place, "port"});
    loaded.serial = load_string(attribute(info, "serial"), Place{&place, "serial"});
    return loaded;
}

/// @param serials, ports, addresses rules. Tuples: iterating over other sequences may run code of
///     Python. @param all without any rule.
JovuDeviceFilter load_filter(bool all, const py::tuple& serials, const py::tuple& ports,
                             const py::tuple& addresses) {
    if (all) return {};
    JovuDeviceFilter filter = JovuDeviceFilter::none();
    for (const py::handle serial : serials)
        filter.add_serial(load_string(serial, Place{nullptr, "serials"}));
    for (const py::handle port : ports)
        filter.add_port(load_string(port, Place{nullptr, "ports"}));
    for (const py::handle address : addresses)
        filter.add_address(load_address(address, "addresses"));
    return filter;
}

/// A scan pause with an end. May be entered more than once, by any threads.
class ScanPause {
public:
    ScanPause() = default;
    ScanPause(const ScanPause&) = delete;
    ScanPause& operator=(const ScanPause&) = delete;
    ~ScanPause() {
        // Its end would acquire a lock that the fork may have copied.
        if (is_forked()) (void)pause_.release();
    }

    void enter() {
        require_own_process();
        const GilReleased released;
        const std::lock_guard<std::mutex> lock(mutex_);
        if (pause_ == nullptr) pause_ = std::make_unique<JovuScanPause>();
        ++entered_;
    }

    /// @throws std::runtime_error when it is not entered.
    void leave() {
        if (is_forked()) return;
        const GilReleased released;
        const std::lock_guard<std::mutex> lock(mutex_);
        if (entered_ == 0) throw std::runtime_error("The scan pause is not entered.");
        if (--entered_ == 0) pause_.reset();
    }

private:
    std::mutex mutex_;
    // Guarded by mutex_:
    std::unique_ptr<JovuScanPause> pause_;
    int entered_ = 0;
};

/// What the update of this thread calls with its progress: JovuDfu passes no pointer on.
thread_local const std::function<void(double)>* update_progress = nullptr;

/// Runs dfu-util that is found in a folder.
class Dfu {
public:
    explicit Dfu(const py::handle& given) {
        require_own_process();
        const std::string folder = load_terminated(given, Place{nullptr, "folder"});
        // JovuDfu takes the working directory, and that of the process belongs to the application:
        // this thread gets one of its own.
        std::string problem;
        std::thread([&] {
            if (unshare(CLONE_FS) != 0 || chdir(folder.c_str()) != 0) {
                problem = "No directory for dfu-util: " + folder;
            } else {
                dfu_ = std::make_unique<JovuDfu>();
            }
        }).join();
        if (!problem.empty()) throw JovuException(problem, JovuError::file_unreadable);
    }

    std::list<JovuDfu::DfuDevice_t> devices() { return dfu_->GetDfuDevices(); }

    /// @param progress called without the GIL.
    void update(const JovuDfu::DfuDevice_t& device, const std::string& file,
                const std::function<void(double)>& progress) {
        update_progress = &progress;
        dfu_->UpdateDevice(device, file, [](double percent, JovuDfu::DfuDevice_t /*device*/) {
            (*update_progress)(percent);
        });
    }

private:
    std::unique_ptr<JovuDfu> dfu_;
};

/// A callback that any thread may destroy.
std::shared_ptr<py::object> share(const py::object& object) {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the deleter of the shared pointer.
    return {std::make_unique<py::object>(object).release(), [](py::object* owned) {
                const GilHeld gil;
                const std::unique_ptr<py::object> last(owned);
            }};
}

py::list list_dfu_devices(const std::shared_ptr<Dfu>& dfu) {
    const auto found = std::make_shared<std::list<JovuDfu::DfuDevice_t>>();
    run_without_gil([dfu, found] { *found = dfu->devices(); });
    py::list devices;
    for (const JovuDfu::DfuDevice_t& device : *found) {
        devices.append(python_class("DfuDevice")(store_string(device.vendor_id),
                                                 store_string(device.product_id),
                                                 store_string(device.serial)));
    }
    return devices;
}

void update_firmware(const std::shared_ptr<Dfu>& dfu, const py::handle& given,
                     const std::string& file, const py::object& progress) {
    const Place place{nullptr, "device"};
    require_class(given, place, "DfuDevice");
    const auto id = [&](const char* name) {
        return load_terminated(attribute(given, name), Place{&place, name});
    };
    const JovuDfu::DfuDevice_t device{id("vendor_id"), id("product_id"), id("serial")};
    const py::object checked = load_callback(progress, Place{nullptr, "progress"});
    const auto callback = checked ? share(checked) : nullptr;
    run_without_gil(
        [dfu, device, file, callback] {
            dfu->update(device, file, [&callback](double percent) {
                if (callback) {
                    call_back([callback, percent] { call(*callback, py::make_tuple(percent)); });
                }
            });
        },
        // An update that is cut leaves the device without firmware. Ctrl-C of a terminal reaches
        // dfu-util itself.
        {{}, std::chrono::milliseconds::max()});
}

}  // namespace

LogLinesAsExceptions::LogLinesAsExceptions() {
    ++throwing_calls;
}

LogLinesAsExceptions::~LogLinesAsExceptions() {
    --throwing_calls;
}

py::object store_info(const JovuDeviceInfo& info) {
    return python_class("DeviceInfo")(store_address(info.address), store_string(info.port),
                                      info.type, store_string(info.serial),
                                      python_class("DeviceState")(static_cast<int>(info.state)));
}

void bind_process(py::module_& module) {
    module.attr("error_names") = names_of<JovuError>(&jovu_error_name);
    module.attr("state_names") = names_of<JovuDeviceState>(&jovu_state_name);
    module.def("version", &jovu_version);
    module.def("is_watching", [] {
        require_own_process();
        return JovuTransport::is_watching();
    });
    module.def("is_forked", &is_forked);
    // Not at initialisation, which later interpreters skip.
    module.def("require_main_interpreter", [] {
        if (PyInterpreterState_Get() != PyInterpreterState_Main()) {
            throw py::import_error("jovu can be imported in the main interpreter only.");
        }
    });
    module.def("list_devices", [] {
        const auto found = std::make_shared<std::vector<JovuDeviceInfo>>();
        run_without_gil([found] { *found = JovuTransport::list_devices(); });
        py::list devices;
        for (const JovuDeviceInfo& info : *found)
            devices.append(store_info(info));
        return devices;
    });
    module.def("set_device_filter", [](bool all, const py::tuple& serials, const py::tuple& ports,
                                       const py::tuple& addresses) {
        require_own_process();
        JovuDeviceFilter filter = load_filter(all, serials, ports, addresses);
        const GilReleased released;
        JovuTransport::set_device_filter(std::move(filter));
    });
    module.def("filter_matches", [](bool all, const py::tuple& serials, const py::tuple& ports,
                                    const py::tuple& addresses, const py::handle& info) {
        return load_filter(all, serials, ports, addresses).matches(load_info(info));
    });
    // Restored at exit: then the lines go to standard output again.
    module.def("capture_log", [](bool on) {
        jovu_set_log_handler(on ? JovuLogHandler(&log_line) : JovuLogHandler());
    });
    module.def("log_queue", [] { return py::cast(log_queue().get()); });
    module.def("write_unraisable", [](const py::object& error, const py::object& context) {
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
        PyErr_WriteUnraisable(context.ptr());
    });

    py::class_<ScanPause>(module, "ScanPause",
                          "A context manager: no device is opened while it is entered. May be "
                          "nested; counts for the whole process.")
        .def(py::init<>())
        .def("__enter__",
             [](const py::object& self) {
                 self.cast<ScanPause&>().enter();
                 return self;
             })
        .def("__exit__", [](ScanPause& pause, const py::args& /*unused*/) { pause.leave(); });

    py::class_<Dfu, std::shared_ptr<Dfu>>(module, "DfuTool")
        .def(py::init<const py::handle&>())
        .def("devices", &list_dfu_devices)
        .def("update", &update_firmware);
}

}  // namespace jovu_python
