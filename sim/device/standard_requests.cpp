// SPDX-License-Identifier: Apache-2.0
#include "device/standard_requests.h"

namespace jovusim {

namespace {

using Response = std::optional<std::string>;

/// The status of an interface, and of a device that is powered by the bus.
std::string no_status() {
    return std::string(2, '\0');
}

/// A request as a case label: its direction and recipient, and its number.
constexpr unsigned request(unsigned type, unsigned number) {
    return type << 8U | number;
}

unsigned request(const usb_ctrlrequest& setup) {
    return request(setup.bRequestType, setup.bRequest);
}

}  // namespace

StandardRequests::StandardRequests(UsbFunction& function, UsbSpeed speed)
    : function_(function), speed_(speed) {}

Response StandardRequests::respond(const usb_ctrlrequest& setup) {
    switch (setup.bRequestType & USB_RECIP_MASK) {
        case USB_RECIP_DEVICE:
            return of_device(setup);
        case USB_RECIP_INTERFACE:
            return of_interface(setup);
        case USB_RECIP_ENDPOINT:
            return of_endpoint(setup);
        default:
            return std::nullopt;
    }
}

Response StandardRequests::of_device(const usb_ctrlrequest& setup) {
    switch (request(setup)) {
        case request(USB_DIR_IN, USB_REQ_GET_DESCRIPTOR):
            return find_descriptor(function_.identity(), speed_,
                                   static_cast<std::uint8_t>(setup.wValue >> 8U),
                                   static_cast<std::uint8_t>(setup.wValue & 0xFFU));
        case request(USB_DIR_IN, USB_REQ_GET_STATUS):
            return no_status();
        case request(USB_DIR_IN, USB_REQ_GET_CONFIGURATION):
            return std::string(1, static_cast<char>(configured_ ? kConfigurationValue : 0));
        case request(USB_DIR_OUT, USB_REQ_SET_CONFIGURATION):
            return select_configuration(setup.wValue);
        default:
            return std::nullopt;
    }
}

Response StandardRequests::select_configuration(unsigned value) {
    if (value != 0 && value != kConfigurationValue) return std::nullopt;
    configured_ = value != 0;
    halted_.clear();
    function_.configure();
    return std::string();
}

Response StandardRequests::of_interface(const usb_ctrlrequest& setup) {
    const auto& interfaces = function_.identity().interfaces;
    if (!configured_ || setup.wIndex >= interfaces.size()) return std::nullopt;
    switch (request(setup)) {
        case request(USB_DIR_IN | USB_RECIP_INTERFACE, USB_REQ_GET_STATUS):
            return no_status();
        case request(USB_DIR_IN | USB_RECIP_INTERFACE, USB_REQ_GET_INTERFACE):
            return std::string(1, '\0');
        case request(USB_DIR_OUT | USB_RECIP_INTERFACE, USB_REQ_SET_INTERFACE):
            if (setup.wValue != 0) return std::nullopt;  // the only alternate setting
            for (const EndpointInfo& endpoint : interfaces[setup.wIndex].endpoints)
                halted_.erase(endpoint.address);
            return std::string();
        default:
            return std::nullopt;
    }
}

Response StandardRequests::of_endpoint(const usb_ctrlrequest& setup) {
    const auto address = static_cast<std::uint8_t>(setup.wIndex);
    bool exists = (address & USB_ENDPOINT_NUMBER_MASK) == 0;
    bool bulk = false;
    for (const InterfaceInfo& interface : function_.identity().interfaces) {
        for (const EndpointInfo& endpoint : interface.endpoints) {
            bulk = bulk || (configured_ && endpoint.address == address);
        }
    }
    exists = exists || bulk;
    if (!exists) return std::nullopt;
    const bool halt = setup.wValue == USB_ENDPOINT_HALT;
    switch (request(setup)) {
        case request(USB_DIR_IN | USB_RECIP_ENDPOINT, USB_REQ_GET_STATUS):
            return std::string{static_cast<char>(halted(address) ? 1 : 0), '\0'};
        case request(USB_DIR_OUT | USB_RECIP_ENDPOINT, USB_REQ_SET_FEATURE):
            if (!halt || !bulk) return std::nullopt;
            halted_.insert(address);
            return std::string();
        case request(USB_DIR_OUT | USB_RECIP_ENDPOINT, USB_REQ_CLEAR_FEATURE):
            if (!halt) return std::nullopt;
            halted_.erase(address);
            return std::string();
        default:
            return std::nullopt;
    }
}

void StandardRequests::power_on() {
    configured_ = false;
    halted_.clear();
}

}  // namespace jovusim
