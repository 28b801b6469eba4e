// SPDX-License-Identifier: Apache-2.0
#include "charts.h"

#include <QChart>
#include <QLegend>
#include <algorithm>
#include <cmath>

namespace {

constexpr double kTemperatureSeconds = 60;
constexpr double kTraceSeconds = 3;
constexpr std::size_t kDrawnSamples = 600;  // as many points as the chart is wide

QValueAxis* make_axis(QChart& chart, Qt::Alignment side, const QString& title, double from,
                      double to) {
    auto* const axis = new QValueAxis;
    axis->setTitleText(title);
    axis->setRange(from, to);
    axis->setLabelFormat("%g");
    axis->setGridLineColor("#e4e4e4");
    QFont font;
    font.setPointSizeF(8);
    axis->setLabelsFont(font);
    axis->setTitleFont(font);
    chart.addAxis(axis, side);
    return axis;
}

QLineSeries* make_curve(QChart& chart, QValueAxis* x, QValueAxis* y, const QString& name,
                        const QPen& pen) {
    auto* const curve = new QLineSeries;
    curve->setName(name);
    chart.addSeries(curve);
    curve->attachAxis(x);
    curve->attachAxis(y);
    curve->setPen(pen);
    return curve;
}

void set_up(QChartView& view) {
    view.setRenderHint(QPainter::Antialiasing);
    view.chart()->setMargins({0, 0, 4, 0});
    view.chart()->setBackgroundRoundness(0);
    view.chart()->legend()->setAlignment(Qt::AlignTop);
    QFont font;
    font.setPointSizeF(8);
    view.chart()->legend()->setFont(font);
    view.setMinimumSize(380, 210);
}

/// The name of a controller, which chooses it, for a legend, which reads HTML.
QString legend_name(const Controller& controller) {
    return controller.name().toHtmlEscaped();
}

/// Widens a range to whole steps of a size that gives a handful of labels.
void fit(QValueAxis& axis, double low, double high, double smallest) {
    const double span = std::max(high - low, smallest);
    double step = std::pow(10, std::floor(std::log10(span / 4)));
    while (span / step > 5)
        step *= 2;
    const double from = std::floor(low / step) * step;
    const double to = std::max(std::ceil(high / step) * step, from + step);
    axis.setRange(from, to);
    axis.setTickCount(static_cast<int>(std::lround((to - from) / step)) + 1);
}

}  // namespace

TemperatureChart::TemperatureChart(QWidget* parent)
    : QChartView(parent),
      time_(
          make_axis(*chart(), Qt::AlignBottom, tr("Seconds before now"), -kTemperatureSeconds, 0)),
      temperature_(make_axis(*chart(), Qt::AlignLeft, tr("Extruder, °C"), 0, 250)) {
    set_up(*this);
    time_->setTickCount(7);
    temperature_->setTickCount(6);
}

void TemperatureChart::attach(Controller* controller, const QColor& colour) {
    curves_[controller] =
        make_curve(*chart(), time_, temperature_, legend_name(*controller), QPen(colour, 1.5));
}

void TemperatureChart::detach(Controller* controller) {
    delete curves_.take(controller);  // removes itself from the chart
}

void TemperatureChart::emphasise(const Controller* controller) {
    for (auto curve = curves_.begin(); curve != curves_.end(); ++curve) {
        QPen pen = curve.value()->pen();
        pen.setWidthF(curve.key() == controller ? 3 : 1.5);
        curve.value()->setPen(pen);
    }
}

void TemperatureChart::refresh() {
    const auto since_boot = Controller::Clock::now().time_since_epoch();
    const double now = std::chrono::duration<double>(since_boot).count();
    double highest = 50;
    for (auto curve = curves_.begin(); curve != curves_.end(); ++curve) {
        QList<QPointF> points;
        for (const QPointF& point : curve.key()->temperatures()) {
            if (point.x() < now - kTemperatureSeconds) continue;
            points.append({point.x() - now, point.y()});
            highest = std::max(highest, point.y());
        }
        curve.value()->replace(points);
        curve.value()->setName(legend_name(*curve.key()));
    }
    fit(*temperature_, 0, highest, 50);
}

qsizetype TemperatureChart::points(Controller* controller) const {
    const QLineSeries* const curve = curves_.value(controller);
    return curve ? curve->count() : 0;
}

ServoChart::ServoChart(QWidget* parent)
    : QChartView(parent),
      time_(make_axis(*chart(), Qt::AlignBottom, tr("Seconds before the last sample"),
                      -kTraceSeconds, 0)),
      position_(make_axis(*chart(), Qt::AlignLeft, tr("Position, mm"), 0, 200)),
      drive_(make_axis(*chart(), Qt::AlignRight, tr("Drive, PWM"), -100, 100)),
      commanded_curve_(make_curve(*chart(), time_, position_, tr("commanded"), QPen("#d95f02"))),
      position_curve_(make_curve(*chart(), time_, position_, tr("position"), QPen("#1f77b4"))),
      drive_curve_(make_curve(*chart(), time_, drive_, tr("drive"), QPen("#9a9a9a"))) {
    set_up(*this);
    time_->setTickCount(4);
    drive_->setGridLineVisible(false);
}

void ServoChart::begin(Controller* controller, int servo, double units_per_mm,
                       double samples_per_second) {
    controller_ = controller;
    servo_ = servo;
    units_per_mm_ = units_per_mm;
    samples_per_second_ = samples_per_second > 0 ? samples_per_second : 1000;
    position_->setTitleText(units_per_mm > 0 ? tr("Position, mm") : tr("Position, native units"));
    position_curve_->setName(
        tr("position of servo %1 of %2").arg(servo).arg(legend_name(*controller)));
    samples_.clear();
    controller->take_samples();
    draw();
}

void ServoChart::detach(const Controller* controller) {
    if (controller_ == controller) controller_ = nullptr;
}

void ServoChart::refresh() {
    if (!controller_) return;
    const std::vector<servo_trace_msg> fresh = controller_->take_samples();
    if (fresh.empty()) return;
    std::copy_if(fresh.begin(), fresh.end(), std::back_inserter(samples_),
                 [this](const servo_trace_msg& sample) { return sample.servo_name == servo_; });
    const auto kept = static_cast<std::size_t>(kTraceSeconds * samples_per_second_);
    while (samples_.size() > kept)
        samples_.pop_front();
    draw();
}

void ServoChart::draw() {
    QList<QPointF> commanded;
    QList<QPointF> position;
    QList<QPointF> drive;
    const double scale = units_per_mm_ > 0 ? 1 / units_per_mm_ : 1;
    const std::size_t every = samples_.size() / kDrawnSamples + 1;
    double low = 0;
    double high = 0;
    double strongest = 10;
    for (const servo_trace_msg& sample : samples_) {
        // The counter wraps; the difference does not. Points stay on the same samples as they move.
        if (sample.int_cnt % every != 0) continue;
        const double time =
            -static_cast<double>(samples_.back().int_cnt - sample.int_cnt) / samples_per_second_;
        const double at = sample.pos * scale;
        low = position.isEmpty() ? at : std::min(low, at);
        high = position.isEmpty() ? at : std::max(high, at);
        strongest = std::max(strongest, std::abs(static_cast<double>(sample.pwm)));
        commanded.append({time, sample.pos_cmd * scale});
        position.append({time, at});
        drive.append({time, static_cast<double>(sample.pwm)});
    }
    commanded_curve_->replace(commanded);
    position_curve_->replace(position);
    drive_curve_->replace(drive);
    fit(*position_, low, high, 1);
    fit(*drive_, -strongest, strongest, 20);
}
