// SPDX-License-Identifier: Apache-2.0
#include "controller.h"

namespace {

constexpr std::chrono::seconds kReportLimit(
    3);  // without a report for so long, it does not respond
constexpr double kHistorySeconds = 180;

}  // namespace

Controller::Controller(PanelClient& client, JovuDeviceAddress device)
    : client_(client), device_(device), last_report_(Clock::now()), worker_(client, device) {
    worker_.moveToThread(&thread_);
    connect(&thread_, &QThread::finished, this, &Controller::retired);
    connect(&worker_, &ControllerWorker::identified, this,
            [this](const QString& serial, const QString& version) {
                serial_ = serial;
                version_ = version;
                emit changed();
            });
    connect(&worker_, &ControllerWorker::gcode_ended, this,
            [this](const QString& line, unsigned status, const QString& error) {
                running_gcode_ = false;
                emit gcode_ended(line, status, error);
                emit changed();
            });
    connect(&worker_, &ControllerWorker::push_progressed, this, &Controller::push_progressed);
    connect(&worker_, &ControllerWorker::push_ended, this,
            [this](int job, JovuPushResult result, const QString& error) {
                pushing_ = false;
                last_report_ = Clock::now();  // none could be requested during the push
                emit push_ended(job, result, error);
                emit changed();
            });
    connect(&worker_, &ControllerWorker::trace_began, this, &Controller::trace_began);
    connect(&worker_, &ControllerWorker::trace_ended, this, &Controller::trace_ended);
    connect(&worker_, &ControllerWorker::failed, this, &Controller::failed);
    thread_.start();
    post([this] { worker_.begin_reports(); });
    post([this] { worker_.identify(); });
}

Controller::~Controller() {
    retire();
    thread_.wait();
}

void Controller::retire() {
    worker_.stop();
    thread_.quit();
}

template <class Work>
void Controller::post(Work work) {
    QMetaObject::invokeMethod(&worker_, [this, work] {
        if (!worker_.stopped()) work();
    });
}

QString Controller::activity() const {
    if (pushing_) return tr("receiving a job");
    if (!is_responding()) return tr("does not respond");
    const QString state = QString::fromStdString(status_.state);
    if (state.isEmpty()) return tr("connected");
    return status_.error == 0 ? state : tr("%1 %2").arg(state).arg(status_.error);
}

bool Controller::is_responding() const {
    return pushing_ || Clock::now() - last_report_ < kReportLimit;
}

void Controller::receive(const JovuJobInterface::StatusMsg& status, Clock::time_point when) {
    status_ = status;
    last_report_ = when;
    const double seconds = std::chrono::duration<double>(when.time_since_epoch()).count();
    temperatures_.emplace_back(seconds, status.extruder_temperature);
    while (temperatures_.front().x() < seconds - kHistorySeconds)
        temperatures_.removeFirst();
    emit changed();
}

void Controller::run_gcode(const QString& line) {
    if (running_gcode_) return;
    running_gcode_ = true;
    post([this, line] { worker_.run_gcode(line); });
    emit changed();
}

void Controller::stop_waiting() {
    client_.cancel_exchanges(device_);
}

void Controller::pause_or_resume() {
    post([this] { worker_.pause_or_resume(); });
}

void Controller::abort() {
    post([this] { worker_.abort(); });
}

std::shared_ptr<JovuPushCancel> Controller::push(int job, const QString& path) {
    auto cancel = std::make_shared<JovuPushCancel>();
    pushing_ = true;
    post([this, job, path, cancel] { worker_.push(job, path, cancel); });
    return cancel;
}

void Controller::trace(int servo, bool enable) {
    post([this, servo, enable] { worker_.trace(servo, enable); });
}
