// SPDX-License-Identifier: Apache-2.0

/// @file
/// The curves of temperatures, and the trace of a servo.
#pragma once

#include <QChartView>
#include <QHash>
#include <QLineSeries>
#include <QPointer>
#include <QValueAxis>
#include <deque>

#include "controller.h"

/// The extruder temperatures of all controllers, over the last minutes.
class TemperatureChart : public QChartView {
    Q_OBJECT

public:
    explicit TemperatureChart(QWidget* parent = nullptr);

    void attach(Controller* controller, const QColor& colour);
    void detach(Controller* controller);

    /// Draws the controller's curve as a thick line.
    void emphasise(const Controller* controller);

    /// Moves the curves on to the present.
    void refresh();

    /// The number of points drawn for a controller.
    qsizetype points(Controller* controller) const;

private:
    QValueAxis* const time_;
    QValueAxis* const temperature_;
    QHash<Controller*, QLineSeries*> curves_;
};

/// Position and drive of one traced servo, over the last seconds.
class ServoChart : public QChartView {
    Q_OBJECT

public:
    explicit ServoChart(QWidget* parent = nullptr);

    /// Clears the chart. Samples of that servo are drawn from now on.
    /// @param units_per_mm native units of the position; 0 for native units.
    void begin(Controller* controller, int servo, double units_per_mm, double samples_per_second);

    /// Draws no more samples of the controller, which is being removed.
    void detach(const Controller* controller);

    /// Fetches and draws the samples that have arrived.
    void refresh();

    /// The number of samples kept.
    std::size_t samples() const { return samples_.size(); }

private:
    void draw();

    QValueAxis* const time_;
    QValueAxis* const position_;
    QValueAxis* const drive_;
    QLineSeries* const commanded_curve_;
    QLineSeries* const position_curve_;
    QLineSeries* const drive_curve_;
    QPointer<Controller> controller_;
    int servo_ = 0;
    double units_per_mm_ = 0;
    double samples_per_second_ = 1000;
    std::deque<servo_trace_msg> samples_;
};
