// SPDX-License-Identifier: Apache-2.0
#include "sweep/device_model.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "fake_usb/fake_libusb.h"
#include "fake_usb/framed.h"
#include "sweep/faults.h"
#include "sweep/system_calls.h"

namespace sweep {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

constexpr std::size_t kPacket = 64;

/// What commands return, by their names on the wire. Every other one returns 0.
const std::map<std::string, std::string>& returned_values() {
    static const std::map<std::string, std::string> values{
        {"bio_get_version", "[49,46,50,0]"},
        {"gcode_process_command", "7"},
        {"heater_var_get", "5"},
        {"wifi_client_get_status",
         R"({"connected":1,"ip_config":{"ip":[192,168,1,7],"subnet_mask":[255,255,255,0],)"
         R"("default_gateway":[1,2,3,4],"dhcp_server":[5,6,7,8],"dns_server":[9,10,11,12],)"
         R"("mac_address":[1,2,3,4,5,255],"connected_ssid":[110,101,116]}})"},
        {"sd_mmc_read", "9"},
    };
    return values;
}

constexpr const char* kStatus =
    R"({"metadata":{"version":1,"type":"status"},"printer":{"model_name":"Model","cpu_id":"12",)"
    R"("firmware":{"name":"main","version":"1.2"},"accept_version":4},"status":{"state":"idle",)"
    R"("build_plate":"clean","filament":"loaded","extruder_temperature":21.5},"job":{"id":"",)"
    R"("progress":25,"file":"part","time_elapsed":5},"time":{"boot":6,"idle":7},"error":0})";

std::atomic<DeviceModel*> current{nullptr};

int enter(fake_usb::Call call) {
    const auto kind = static_cast<Kind>(call);
    const int fault = meet(kind);
    if (kind != Kind::events) return fault;
    if (fault == 0) ahead += kHurry;
    // It takes a signal, and those take time.
    if (fault == LIBUSB_ERROR_INTERRUPTED)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return fault;
}

void pump_current(libusb_device* /*device*/, unsigned /*endpoint*/) {
    if (DeviceModel* const model = current) model->pump();
}

void deliver(libusb_device* device, unsigned endpoint, const std::string& bytes) {
    DeviceModel* const model = current;
    if (model != nullptr && model->device() == device) model->received(endpoint, bytes);
}

}  // namespace

DeviceModel::DeviceModel() : device_(fake_usb::plug(kAddress.bus, kAddress.address)) {
    current = this;
}

void DeviceModel::unplug() {
    DeviceModel* self = this;
    current.compare_exchange_strong(self, nullptr);
    const Lock lock(mutex_);
    if (!plugged_) return;
    plugged_ = false;
    fake_usb::unplug(device_);
}

std::string DeviceModel::job_bytes() const {
    const Lock lock(mutex_);
    return jobs_in_;
}

void DeviceModel::received(unsigned endpoint, const std::string& bytes) {
    const Lock lock(mutex_);
    if (endpoint == kMessagesOut) {
        return decoder_.feed(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                             [this](const unsigned char* body, unsigned length) {
                                 respond(std::string(body, body + length));
                             });
    }
    jobs_in_ += bytes;
    const std::string request = R"({"metadata":{"version":1,"type":"status"}})";
    if (!mute && jobs_in_.size() >= request.size() &&
        jobs_in_.compare(jobs_in_.size() - request.size(), request.size(), request) == 0) {
        send(kJobsIn, kStatus);
    }
}

/// The response is the request with other attributes and the returned value.
void DeviceModel::respond(const std::string& body) {
    const std::string before_name = R"("name":")", before_id = R"(],"id":)", end = "}}}";
    const std::size_t name = body.find(before_name), id = body.find(before_id);
    if (name == std::string::npos || id == std::string::npos || body.size() < id + end.size()) {
        return;
    }
    ++requests;
    if (mute) return;
    const std::size_t begin = name + before_name.size();
    const auto value = returned_values().find(body.substr(begin, body.find('"', begin) - begin));
    send(kMessagesIn,
         test::framed(R"({"transport":{"attrs":["response")" +
                      body.substr(id, body.size() - end.size() - id) + R"(,"__return__":)" +
                      (value == returned_values().end() ? "0" : value->second) + end));
}

void DeviceModel::send(unsigned endpoint, const std::string& bytes) {
    const Lock lock(mutex_);
    for (std::size_t at = 0; at < bytes.size(); at += kPacket)
        out_[endpoint].push_back(bytes.substr(at, kPacket));
    pump();
}

void DeviceModel::pump() {
    const Lock lock(mutex_);
    if (!plugged_) return;
    for (auto& [endpoint, packets] : out_) {
        if (!packets.empty() &&
            fake_usb::post(device_, endpoint, LIBUSB_TRANSFER_COMPLETED, packets.front())) {
            packets.pop_front();
        }
    }
}

void hook_libusb() {
    fake_usb::set_hook({enter, pump_current, deliver});
}

bool response_can_come() {
    if (always_fails(Kind::events)) return false;
    const DeviceModel* const model = current;
    return fake_usb::untold() || (model != nullptr && model->mute);
}

}  // namespace sweep
