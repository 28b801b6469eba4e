// SPDX-License-Identifier: Apache-2.0

/// @file
/// One connected controller, as the window sees it.
#pragma once

#include <QList>
#include <QObject>
#include <QPointF>
#include <QString>
#include <QThread>
#include <chrono>
#include <memory>

#include "controller_worker.h"

/// One connected controller: what it has reported, and its orders, which return at once and are
/// carried out by its worker. Belongs to the main thread.
class Controller : public QObject {
    Q_OBJECT

public:
    using Clock = std::chrono::steady_clock;

    Controller(PanelClient& client, JovuDeviceAddress device);

    /// Waits for the worker: call retire() and wait for retired() first where the window is open.
    ~Controller() override;

    /// Ends the worker without waiting for it; retired() follows. A push that runs is left to
    /// itself: it fails when its controller is disconnected.
    void retire();

    JovuDeviceAddress device() const { return device_; }

    /// The serial number; the address as long as that is unknown.
    QString name() const { return serial_.isEmpty() ? device_name(device_) : serial_; }
    QString version() const { return version_; }

    /// What the controller is doing, in a few words.
    QString activity() const;

    /// The last report; its state is empty before the first one.
    const JovuJobInterface::StatusMsg& status() const { return status_; }

    /// Whether the controller has reported lately, or takes a job.
    bool is_responding() const;

    /// Seconds (of the steady clock) and degrees Celsius of the reports of the last minutes.
    const QList<QPointF>& temperatures() const { return temperatures_; }

    /// Runs a line of gcode; gcode_ended() follows. One at a time.
    void run_gcode(const QString& line);
    bool is_running_gcode() const { return running_gcode_; }

    /// Ends the wait for a response. The controller may carry the command out nevertheless.
    void stop_waiting();

    void pause_or_resume();
    void abort();

    /// Pushes a job file; push_progressed() and push_ended() follow.
    /// @return cancels the push.
    std::shared_ptr<JovuPushCancel> push(int job, const QString& path);

    void trace(int servo, bool enable);

    /// The samples that have arrived since the last call.
    std::vector<servo_trace_msg> take_samples() { return client_.take_samples(device_); }

    /// A report has arrived from the controller.
    void receive(const JovuJobInterface::StatusMsg& status, Clock::time_point when);

signals:
    void changed();
    void gcode_ended(const QString& line, unsigned status, const QString& error);
    void push_progressed(int job, const JovuPushProgress& progress);
    void push_ended(int job, JovuPushResult result, const QString& error);
    void trace_began(int servo, double units_per_mm, double samples_per_second);
    void trace_ended();
    void failed(const QString& what, const QString& error);
    void retired();

private:
    /// Has the worker's thread carry something out, unless it has been stopped meanwhile.
    template <class Work>
    void post(Work work);

    PanelClient& client_;
    const JovuDeviceAddress device_;
    QString serial_;
    QString version_;
    JovuJobInterface::StatusMsg status_;
    Clock::time_point last_report_;
    QList<QPointF> temperatures_;
    bool running_gcode_ = false;
    bool pushing_ = false;
    QThread thread_;
    ControllerWorker worker_;  // lives on thread_
};
