// SPDX-License-Identifier: Apache-2.0

/// @file
/// The exchanges with one controller.
#pragma once

#include <QObject>
#include <QString>
#include <atomic>
#include <memory>

#include "panel_client.h"

/// Makes the exchanges with one controller, one after the other, on a thread of its own: they block
/// until the controller responds, and a controller that does not respond holds up nobody else.
///
/// That one thread makes all of them also keeps requests out of a push, which would become part of
/// the job.
///
/// Threads: members are called on the worker's thread, stop() on any. Signals are queued to the
/// main thread.
class ControllerWorker : public QObject {
    Q_OBJECT

public:
    /// @param client outlives this object.
    ControllerWorker(PanelClient& client, JovuDeviceAddress device);

    /// Reads version and serial number.
    void identify();

    /// Requests a status report now, and from time to time from then on.
    void begin_reports();

    void run_gcode(const QString& line);
    void pause_or_resume();
    void abort();

    /// Pushes a job file.
    /// @param job is handed to the signals.
    /// @param cancel cancels the push, on any thread.
    void push(int job, const QString& path, const std::shared_ptr<JovuPushCancel>& cancel);

    /// Turns the trace of a servo on or off.
    void trace(int servo, bool enable);

    /// Nothing begins any more, and what is waiting for a response ends. A push is not cancelled.
    void stop();

    bool stopped() const { return stopped_; }

signals:
    /// Each is empty when the controller does not respond.
    void identified(const QString& serial, const QString& version);

    /// @param status the firmware's own, when @p error is empty.
    void gcode_ended(const QString& line, unsigned status, const QString& error);

    void push_progressed(int job, const JovuPushProgress& progress);

    /// @param error empty unless the push ended with an exception.
    void push_ended(int job, JovuPushResult result, const QString& error);

    /// The samples of a servo follow.
    /// @param units_per_mm native units of the position; 0 when unknown.
    void trace_began(int servo, double units_per_mm, double samples_per_second);

    /// The trace has been turned off, or that has failed.
    void trace_ended();

    /// A request has failed that has no signal of its own.
    void failed(const QString& what, const QString& error);

private:
    void request_report();

    /// Makes a request on the job channel, and then one for a report, in which its effect shows.
    void request(const QString& what, void (JovuJobInterface::*send)(JovuDeviceAddress));

    PanelClient& client_;
    const JovuDeviceAddress device_;
    std::atomic<bool> stopped_{false};
    QString report_error_;
};
