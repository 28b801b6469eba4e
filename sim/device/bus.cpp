// SPDX-License-Identifier: Apache-2.0
#include "device/bus.h"

#include <cstdio>
#include <stdexcept>

namespace jovusim {

void BusDevice::with_controller(const std::function<void(Controller&, Millis)>& work) {
    with_function([&](UsbFunction& function, Millis now) {
        auto* const controller = dynamic_cast<Controller*>(&function);
        if (controller == nullptr) {
            throw std::runtime_error("the device at " + name() + " is in DFU mode");
        }
        work(*controller, now);
    });
}

void Bus::replug(const std::string& name) {
    const std::shared_ptr<BusDevice> device = at(name);
    const std::string place = device->name();
    PlugRequest request;
    device->with_function([&request](UsbFunction& function, Millis) {
        request.product = function.application_product();
    });
    unplug(place);
    plug(place, request);
}

std::unique_ptr<UsbFunction> make_function(const PlugRequest& request, const std::string& serial,
                                           double time_scale) {
    DeviceConfig config{request.serial.empty() ? serial : request.serial, request.product,
                        time_scale};
    config.vendor = request.vendor;
    config.dfu_name = request.dfu_name;
    if (request.product != kDfuProduct) return std::make_unique<Controller>(config);
    config.product = kApplicationProduct;
    return std::make_unique<DfuDevice>(config, DfuFaults());
}

std::string free_serial(unsigned bus, unsigned place,
                        const std::function<bool(const std::string&)>& taken) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "JVS%03u%03u", bus, place);
    std::string serial = digits;
    while (taken(serial))
        serial += 'A';
    return serial;
}

}  // namespace jovusim
