// SPDX-License-Identifier: Apache-2.0

/// @file
/// The library's callbacks as Qt signals.
#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QThread>
#include <chrono>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "jovu/client.h"

/// @return "BUS:ADDR".
QString device_name(JovuDeviceAddress device);

/// The panel's client. Its signals are emitted on the library's threads. The receivers live on the
/// main thread, to which Qt therefore queues the calls: no callback waits for the window.
class PanelClient : public QObject, public JovuClient {
    Q_OBJECT

public:
    /// @param until_wired is held by the caller until it has connected the signals, so that no
    ///     notification is emitted to nobody.
    explicit PanelClient(const JovuScanPause& until_wired);

    /// Ends all callbacks while the overrides still exist.
    ~PanelClient() override { shutdown(); }

    /// The samples of a device's traced servos since the last call. They come at 1 kHz, too fast
    /// for an event each, so the window fetches them when it draws. Threads: any.
    std::vector<servo_trace_msg> take_samples(JovuDeviceAddress device);

signals:
    void device_arrived(JovuDeviceAddress device);
    void device_left(JovuDeviceAddress device);
    /// A device is attached that cannot be opened.
    void device_refused();
    void status_received(JovuDeviceAddress device, const JovuJobInterface::StatusMsg& status,
                         std::chrono::steady_clock::time_point when);
    /// The firmware has printed a line.
    void line_printed(JovuDeviceAddress device, const QString& line);

private:
    void device_connected(JovuDeviceAddress device) override { emit device_arrived(device); }
    void device_disconnected(JovuDeviceAddress device) override { emit device_left(device); }
    void device_unavailable(const JovuDeviceInfo& /*device*/) override { emit device_refused(); }
    void StatusReceived(JovuDeviceAddress device, StatusMsg status) override;
    void debug_event(JovuDeviceAddress device, std::shared_ptr<char> text) override;
    void servo_dc_trace_event(JovuDeviceAddress device, servo_trace_msg sample) override;

    std::mutex mutex_;
    std::unordered_map<JovuDeviceAddress, std::vector<servo_trace_msg>> samples_;  // by mutex_
};

/// Receives the library's diagnostic lines. Outlives the client, whose threads report them.
class DiagnosticLines : public QObject {
    Q_OBJECT

public:
    DiagnosticLines();
    ~DiagnosticLines() override;

signals:
    /// Emitted on any thread. @param device "BUS:ADDR", or empty.
    void reported(const QString& device, const QString& line);
};

/// Lists the bus from time to time, on a thread of its own: the only way to see that a device has
/// left that could not be opened.
class BusLister : public QObject {
    Q_OBJECT

public:
    BusLister();
    ~BusLister() override;

    /// Lists soon. Threads: any.
    void list();

signals:
    void listed(const QList<JovuDeviceInfo>& devices);

private:
    void list_now();

    QThread thread_;
    QObject on_thread_;  // lives on thread_
};
