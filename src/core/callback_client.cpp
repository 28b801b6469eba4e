// SPDX-License-Identifier: Apache-2.0
#include "jovu/callback_client.h"

#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "base/log.h"
#include "jovu/exception.h"
#include "jovu/log.h"

class JovuCallbackClient::Client : public JovuClient {
public:
    Client(JovuCallbacks callbacks, bool strict_matching)
        : callbacks_(std::make_shared<const JovuCallbacks>(std::move(callbacks))) {
        set_strict_matching(strict_matching);
    }
    ~Client() override { shutdown(); }

    void device_connected(JovuDeviceAddress address) override {
        call("connected", &JovuCallbacks::connected, address);
    }
    void device_disconnected(JovuDeviceAddress address) override {
        call("disconnected", &JovuCallbacks::disconnected, address);
    }
    void device_unavailable(const JovuDeviceInfo& device) override {
        call("unavailable", &JovuCallbacks::unavailable, device.address, device);
    }
    void debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) override {
        call("debug_event", &JovuCallbacks::debug_event, address,
             std::string(text == nullptr ? "" : text.get()));
    }
    void servo_dc_trace_event(JovuDeviceAddress address, servo_trace_msg sample) override {
        call("servo_trace_event", &JovuCallbacks::servo_trace_event, address, sample);
    }
    void StatusReceived(JovuDeviceAddress address, StatusMsg status) override {
        call("status_report", &JovuCallbacks::status_report, address, status);
    }
    void JobDataReceived(JovuDeviceAddress address, const unsigned char* text,
                         unsigned int length) override {
        call("job_data", &JovuCallbacks::job_data, address,
             std::string_view(reinterpret_cast<const char*>(text), length));
    }

private:
    /// Calls a function of the application, from whose exceptions the library's threads would end.
    /// @param name of the callback, for the diagnostic line.
    template <class Function, class... Arguments>
    void call(const char* name, Function JovuCallbacks::*member, JovuDeviceAddress device,
              const Arguments&... arguments) const noexcept {
        const char* const format = "JovuCallbackClient: The callback %s has thrown - %s.";
        // The callback may destroy this client, and still has to return.
        const std::shared_ptr<const JovuCallbacks> callbacks = callbacks_;
        const Function& function = (*callbacks).*member;
        if (!function) return;
        try {
            function(device, arguments...);
        } catch (const std::exception& error) {
            jovu::log(JovuLogLevel::error, device, format, name, error.what());
        } catch (...) {
            // An application may throw anything.
            jovu::log(JovuLogLevel::error, device, format, name, "UNKNOWN");
        }
    }

    const std::shared_ptr<const JovuCallbacks> callbacks_;
};

JovuCallbackClient::JovuCallbackClient() = default;

JovuCallbackClient::~JovuCallbackClient() {
    stop();  // A callback that still runs may use client().
}

void JovuCallbackClient::start(JovuCallbacks callbacks, bool strict_matching) {
    if (client_ != nullptr) {
        throw JovuException("The client has been started already.", JovuError::rejected);
    }
    // No callback begins before client() can be used.
    const JovuScanPause until_started;
    client_ = std::make_unique<Client>(std::move(callbacks), strict_matching);
}

void JovuCallbackClient::stop() {
    if (client_ != nullptr) client_->shutdown();
}

JovuClient& JovuCallbackClient::client() const {
    if (client_ == nullptr) {
        throw JovuException("The client has not been started.", JovuError::rejected);
    }
    return *client_;
}
