// SPDX-License-Identifier: Apache-2.0
#include "jovu/client.h"

#include "jovu/version.h"
#include "usb/usb.h"

const char* jovu_version() noexcept {
    return JOVU_VERSION;
}

JovuUsbClient::~JovuUsbClient() = default;

void JovuUsbClient::usb_device_unavailable(const JovuDeviceInfo& /*device*/) {}

void JovuUsbClient::connection_opened(const std::shared_ptr<jovu::Connection>& connection) {
    usb_device_connected(connection->address());
}

JovuScanPause::JovuScanPause() noexcept {
    JovuUsb::pause_scans();
}

JovuScanPause::~JovuScanPause() {
    JovuUsb::resume_scans();
}

// The job interface registers first. A device that was opened before the transport has registered
// as well would never be notified.
JovuClient::JovuClient() : JovuClient(JovuScanPause()) {}

JovuClient::JovuClient(const JovuScanPause& /*until_built*/)
    : JovuCommandInterface(static_cast<JovuTransport&>(*this)),
      JovuEventInterface(static_cast<JovuTransport&>(*this)),
      // Handed over, because a cross-cast would need the application's run-time type information.
      JovuTransport(static_cast<JovuEventInterface*>(this)) {}

JovuClient::~JovuClient() {
    JovuClient::shutdown();
}

void JovuClient::device_connected(JovuDeviceAddress /*address*/) {}

void JovuClient::device_disconnected(JovuDeviceAddress /*address*/) {}

void JovuClient::shutdown() {
    // Before the transport leaves, which may stop the USB backend: a push then fails because of the
    // shutdown and not as if its device had been unplugged.
    JovuJobInterface::reject_calls();
    JovuTransport::shutdown();
    JovuJobInterface::shutdown();
}
