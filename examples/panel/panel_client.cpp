// SPDX-License-Identifier: Apache-2.0
#include "panel_client.h"

#include <QTimer>
#include <utility>

#include "jovu/log.h"

namespace {

constexpr std::size_t kMaxSamples = 10'000;  // of a window that does not draw
constexpr std::chrono::seconds kListingPeriod(1);

}  // namespace

QString device_name(JovuDeviceAddress device) {
    return QStringLiteral("%1:%2").arg(device.bus).arg(device.address);
}

PanelClient::PanelClient(const JovuScanPause& /*until_wired*/) {
    set_strict_matching(true);
}

std::vector<servo_trace_msg> PanelClient::take_samples(JovuDeviceAddress device) {
    const std::lock_guard lock(mutex_);
    return std::exchange(samples_[device], {});
}

void PanelClient::StatusReceived(JovuDeviceAddress device, StatusMsg status) {
    emit status_received(device, status, std::chrono::steady_clock::now());
}

void PanelClient::debug_event(JovuDeviceAddress device, std::shared_ptr<char> text) {
    emit line_printed(device, QString::fromStdString(jovu_read_string(text)));
}

void PanelClient::servo_dc_trace_event(JovuDeviceAddress device, servo_trace_msg sample) {
    const std::lock_guard lock(mutex_);
    auto& samples = samples_[device];
    if (samples.size() < kMaxSamples) samples.push_back(sample);
}

DiagnosticLines::DiagnosticLines() {
    jovu_set_log_handler([this](JovuLogLevel /*level*/, std::optional<JovuDeviceAddress> device,
                                const std::string& text) {
        emit reported(device ? device_name(*device) : QString(), QString::fromStdString(text));
    });
}

DiagnosticLines::~DiagnosticLines() {
    jovu_set_log_handler({});
}

BusLister::BusLister() {
    auto* const timer = new QTimer(&on_thread_);
    connect(timer, &QTimer::timeout, &on_thread_, [this] { list_now(); });
    on_thread_.moveToThread(&thread_);
    connect(&thread_, &QThread::started, timer, [timer] { timer->start(kListingPeriod); });
    connect(&thread_, &QThread::finished, timer, &QObject::deleteLater);
    thread_.start();
}

BusLister::~BusLister() {
    thread_.quit();
    thread_.wait();
}

void BusLister::list() {
    QMetaObject::invokeMethod(&on_thread_, [this] { list_now(); });
}

void BusLister::list_now() {
    try {
        const std::vector<JovuDeviceInfo> devices = JovuTransport::list_devices();
        emit listed(QList<JovuDeviceInfo>(devices.begin(), devices.end()));
    } catch (const JovuException&) {
        // The bus cannot be listed at the moment; the next listing follows.
    }
}
