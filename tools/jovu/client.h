/// @file
/// The program as an application of the library: everything that is reported goes to the inbox.
#pragma once

#include "inbox.h"
#include "jovu/client.h"

namespace jovu_cli {

/// Puts what the library reports into an inbox. Its handlers run on the library's threads, where
/// they hold up all reception, so they only move data.
class Client : public JovuClient {
public:
    /// @param inbox must outlive this object.
    explicit Client(Inbox& inbox, const JovuScanPause& = JovuScanPause());
    ~Client() override;

    void device_connected(JovuDeviceAddress address) override;
    void device_disconnected(JovuDeviceAddress address) override;
    void debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) override;
    void servo_dc_trace_event(JovuDeviceAddress address, servo_trace_msg sample) override;
    void StatusReceived(JovuDeviceAddress address, StatusMsg status) override;

private:
    Inbox& inbox_;
};

}  // namespace jovu_cli
