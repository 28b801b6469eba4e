// SPDX-License-Identifier: Apache-2.0

/// @file
/// The job channel: registration, receiving and requests. The push is in job_push.cpp.
#include "jovu/job_interface.h"

#include <string>
#include <string_view>
#include <utility>

#include "base/never_destroyed.h"
#include "base/time_limit.h"
#include "jobs/job_interface_state.h"
#include "jobs/job_messages.h"
#include "jovu/exception.h"
#include "json/json.h"
#include "json/json_tree.h"
#include "usb/usb.h"

JovuJobInterface::JovuJobInterface() : state_(std::make_shared<State>()) {
    JovuUsb::client_register(*this, JovuUsb::JOVU_USB_INTERFACE_JOBS);
}

JovuJobInterface::~JovuJobInterface() {
    JovuJobInterface::shutdown();
    // As in ~JovuTransport().
    if (JovuUsb::in_callback()) jovu::keep_until_exit(state_);
}

void JovuJobInterface::shutdown() {
    reject_calls();
    if (JovuUsb::in_callback()) {
        JovuUsb::client_detach(*this, JovuUsb::JOVU_USB_INTERFACE_JOBS);
        return;
    }
    state_->registration.end(
        [this] { JovuUsb::client_unregister(*this, JovuUsb::JOVU_USB_INTERFACE_JOBS); });
    state_->calls.wait();
}

void JovuJobInterface::reject_calls() {
    state_->calls.close();
    state_->status_waiters.close();
}

void JovuJobInterface::RequestStatus(JovuDeviceAddress address) {
    send_request("status", address);
}

JovuJobInterface::StatusMsg JovuJobInterface::wait_for_status(JovuDeviceAddress address,
                                                              std::chrono::milliseconds limit) {
    if (JovuUsb::in_callback()) {
        throw JovuException("Status failed - called from inside a callback.",
                            JovuError::in_callback);
    }
    jovu::check_time_limit("Status time-out", limit);
    const auto deadline = jovu::StatusWaiters::Clock::now() + limit;
    const jovu::CallsInProgress::Call call(state_->calls);
    const std::shared_ptr<jovu::Connection> connection = JovuUsb::connection(address);
    // Waiting before the request is sent: the report may arrive at once. A disconnection that is
    // notified from here on ends the wait; one before it is seen by the check.
    jovu::StatusWaiters::Waiter waiter(state_->status_waiters, address);
    RequestStatus(address);
    if (connection == nullptr || connection->closing()) waiter.end();
    StatusMsg report;
    const JovuError error = waiter.wait(deadline, report);
    switch (error) {
        case JovuError::none:
            return report;
        case JovuError::shut_down:
            throw JovuException(jovu::kJobClientShutDown, error);
        case JovuError::response_timed_out:
            throw JovuException(
                "Status failed - no report within " + std::to_string(limit.count()) + " ms.",
                error);
        default:
            throw JovuException("Status failed - Device no longer connected.",
                                connection == nullptr ? error : connection->not_open_error());
    }
}

void JovuJobInterface::SendPause(JovuDeviceAddress address) {
    send_request("pause", address);
}

void JovuJobInterface::SendAbort(JovuDeviceAddress address) {
    send_request("abort", address);
}

void JovuJobInterface::send_request(const char* type, JovuDeviceAddress address) {
    const std::string request = jovu::job_request(type);
    SendJobData(address, reinterpret_cast<const unsigned char*>(request.data()),
                static_cast<unsigned int>(request.size()));
}

void JovuJobInterface::SendJobData(JovuDeviceAddress address, const unsigned char* data,
                                   unsigned int length) {
    const jovu::CallsInProgress::Call call(state_->calls);
    if (!call) throw JovuException(jovu::kJobClientShutDown, JovuError::shut_down);
    JovuUsb::write(data, length, address, JovuUsb::JOVU_USB_INTERFACE_JOBS);
}

void JovuJobInterface::StatusReceived(JovuDeviceAddress /*address*/, StatusMsg /*status*/) {}

void JovuJobInterface::JobDataReceived(JovuDeviceAddress /*address*/, const unsigned char* /*text*/,
                                       unsigned int /*length*/) {}

void JovuJobInterface::usb_device_connected(JovuDeviceAddress address) {
    state_->streams.erase(address);
}

void JovuJobInterface::usb_device_disconnected(JovuDeviceAddress address) {
    state_->streams.erase(address);
    state_->status_waiters.end(address);
}

void JovuJobInterface::data_received(unsigned char* data, unsigned int length,
                                     JovuDeviceAddress address) {
    const auto object = state_->streams[address].append(data, length);
    if (!object) return;
    JobDataReceived(address, reinterpret_cast<const unsigned char*>(object->c_str()),
                    static_cast<unsigned int>(object->size()));
    const jovu::JsonTree tree(*object, state_->tree_memory);
    const char* const type = jovu::find_string(tree.get(), {"metadata", "type"});
    if (type == nullptr || std::string_view(type) != "status") return;
    StatusMsg status;
    parse_status(tree.get(), status);
    state_->status_waiters.deliver(address, status);
    StatusReceived(address, std::move(status));
}
