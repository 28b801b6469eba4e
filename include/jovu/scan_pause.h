// SPDX-License-Identifier: Apache-2.0

/// @file
/// A pause in the opening of devices, for constructors.
#pragma once

#include "jovu/export.h"

/// While an object of this class exists, no device is opened; a notification that is queued already
/// may still run. A
/// client that is constructed meanwhile is not called, so it receives no responses to commands
/// either. Disconnections are noticed late. Process-wide, may be nested; the constructor waits for
/// an opening in progress (milliseconds).
///
/// JovuClient, JovuTransport and JovuJobInterface register themselves in their constructors, and
/// may be called from then on, when the members of a class derived from them do not exist yet. Such
/// a class takes a pause as the default argument of its constructor, which lives until the whole
/// object is built:
///
///     class App : public JovuClient {
///     public:
///         explicit App(const JovuScanPause& = JovuScanPause()) {}
///         ~App() override { shutdown(); }
///         void device_connected(JovuDeviceAddress address) override;
///     };
class JOVU_API JovuScanPause {
public:
    /// Begins the pause.
    JovuScanPause() noexcept;
    /// Ends the pause; the last one lets the watcher scan again.
    ~JovuScanPause();
    JovuScanPause(const JovuScanPause&) = delete;
    JovuScanPause& operator=(const JovuScanPause&) = delete;
};
