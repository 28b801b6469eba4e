// SPDX-License-Identifier: Apache-2.0
#include "controller_worker.h"

#include <QTimer>
#include <utility>

#include "jovu/response_timeout.h"

namespace {

constexpr std::chrono::milliseconds kReportPeriod(500);
// A controller that does not say who it is holds up its commands no longer than this.
constexpr std::chrono::seconds kIdentifyLimit(3);

QString exchange_error() {
    return QString::fromStdString(JovuTransport::last_send_error());
}

}  // namespace

ControllerWorker::ControllerWorker(PanelClient& client, JovuDeviceAddress device)
    : client_(client), device_(device) {}

void ControllerWorker::identify() {
    const JovuResponseTimeout limit(kIdentifyLimit);
    const std::string serial = jovu_read_string(client_.bio_get_serial(device_));
    const std::string version =
        serial.empty() ? std::string() : jovu_read_string(client_.bio_get_version(device_));
    emit identified(QString::fromStdString(serial), QString::fromStdString(version));
}

void ControllerWorker::begin_reports() {
    auto* const timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &ControllerWorker::request_report);
    connect(QThread::currentThread(), &QThread::finished, timer, &QObject::deleteLater);
    timer->start(kReportPeriod);
    request_report();
}

void ControllerWorker::request_report() {
    if (stopped_) return;
    QString error;
    try {
        client_.RequestStatus(device_);
    } catch (const JovuException& failure) {
        error = QString::fromUtf8(failure.what());
    }
    // Once, as the next one comes soon.
    if (error != std::exchange(report_error_, error) && !error.isEmpty()) {
        emit failed(tr("Status"), error);
    }
}

void ControllerWorker::run_gcode(const QString& line) {
    const unsigned status = client_.gcode_process_command(device_, line.toStdString());
    emit gcode_ended(line, status, exchange_error());
}

void ControllerWorker::pause_or_resume() {
    request(tr("Pause"), &JovuJobInterface::SendPause);
}

void ControllerWorker::abort() {
    request(tr("Abort"), &JovuJobInterface::SendAbort);
}

void ControllerWorker::request(const QString& what,
                               void (JovuJobInterface::*send)(JovuDeviceAddress)) {
    try {
        (client_.*send)(device_);
        client_.RequestStatus(device_);
    } catch (const JovuException& error) {
        emit failed(what, QString::fromUtf8(error.what()));
    }
}

void ControllerWorker::push(int job, const QString& path,
                            const std::shared_ptr<JovuPushCancel>& cancel) {
    try {
        const auto progress = [this, job](const JovuPushProgress& now) {
            emit push_progressed(job, now);
        };
        const JovuPushResult result =
            client_.SendJobFile(device_, path.toStdString(), progress, *cancel);
        emit push_ended(job, result, QString());
    } catch (const JovuException& error) {
        emit push_ended(job, JovuPushResult::cut_short, QString::fromUtf8(error.what()));
    }
    request_report();
}

void ControllerWorker::trace(int servo, bool enable) {
    const servo_dc_name_t name{servo};
    if (enable) {
        const servo_dc_client_config_t config = client_.servo_dc_config_get(device_, name);
        emit trace_began(servo, static_cast<double>(config.pos_res_eu_per_mm),
                         config.interrupt_frequency);
    }
    client_.servo_dc_trace_enable(device_, name, enable);
    if (!exchange_error().isEmpty()) emit failed(tr("Trace"), exchange_error());
    if (!enable) emit trace_ended();
}

void ControllerWorker::stop() {
    stopped_ = true;
    client_.cancel_exchanges(device_);
}
