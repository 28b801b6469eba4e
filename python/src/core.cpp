// SPDX-License-Identifier: Apache-2.0
#include "core.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "gil.h"

namespace jovu_python {

Recording::Recording(JovuDeviceAddress device, int servo, std::size_t most)
    : device_(device), servo_(servo), most_(most) {}

void Recording::add(JovuDeviceAddress device, const servo_trace_msg& sample) {
    if (device != device_ || sample.servo_name != servo_) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (samples_.size() < most_) {
        samples_.push_back(sample);
    } else {
        ++lost_;
    }
}

std::vector<servo_trace_msg> Recording::samples() const {
    require_own_process();
    const std::lock_guard<std::mutex> lock(mutex_);
    return samples_;
}

std::size_t Recording::size() const {
    require_own_process();
    const std::lock_guard<std::mutex> lock(mutex_);
    return samples_.size();
}

std::uint64_t Recording::lost() const {
    require_own_process();
    const std::lock_guard<std::mutex> lock(mutex_);
    return lost_;
}

Core::~Core() {
    // Threads that stop() would wait for do not exist in a forked process.
    if (is_forked()) (void)client_.release();
}

void Core::start(bool strict_matching) {
    JovuCallbacks calls;
    calls.connected = [this](JovuDeviceAddress device) {
        count(device, 1);
        notify(Kind::connected, device);
    };
    calls.disconnected = [this](JovuDeviceAddress device) {
        count(device, -1);
        notify(Kind::disconnected, device);
    };
    calls.unavailable = [this](JovuDeviceAddress device, const JovuDeviceInfo& info) {
        notify(Kind::unavailable, device, info);
    };
    calls.debug_event = [this](JovuDeviceAddress device, const std::string& text) {
        notify(Kind::debug_event, device, text);
    };
    calls.servo_trace_event = [this](JovuDeviceAddress device, const servo_trace_msg& sample) {
        receive_sample(device, sample);
        notify(Kind::servo_trace, device, sample);
    };
    calls.status_report = [this](JovuDeviceAddress device,
                                 const JovuJobInterface::StatusMsg& status) {
        notify(Kind::status_report, device, status);
    };
    calls.job_data = [this](JovuDeviceAddress device, std::string_view json) {
        notify(Kind::job_data, device, std::string(json));
    };
    client_->start(std::move(calls), strict_matching);
}

void Core::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        changed_.notify_all();
    }
    client_->stop();
    queue_.close();
}

JovuClient& Core::client() const {
    require_own_process();
    return client_->client();
}

void Core::enable(Kind kind, bool on) {
    const unsigned bit = 1U << static_cast<unsigned>(kind);
    if (on) {
        enabled_ |= bit;
    } else {
        enabled_ &= ~bit;
    }
}

void Core::wait_for_connection(std::uint64_t& seen, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return stopped_ || connection_count_ != seen; });
    seen = connection_count_;
}

std::vector<JovuDeviceAddress> Core::connected() const {
    std::vector<JovuDeviceAddress> devices = client().list_connected();
    const std::lock_guard<std::mutex> lock(mutex_);
    devices.erase(std::remove_if(devices.begin(), devices.end(),
                                 [this](JovuDeviceAddress device) {
                                     if (stopped_) return true;
                                     const auto entry = connections_.find(device);
                                     return entry == connections_.end() || entry->second <= 0;
                                 }),
                  devices.end());
    return devices;
}

void Core::record(const std::shared_ptr<Recording>& recording) {
    require_own_process();
    const std::lock_guard<std::mutex> lock(mutex_);
    recordings_.erase(std::remove_if(recordings_.begin(), recordings_.end(),
                                     [](const auto& entry) { return entry.expired(); }),
                      recordings_.end());
    recordings_.push_back(recording);
}

void Core::count(JovuDeviceAddress device, int difference) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto entry = connections_.try_emplace(device, 0).first;
    entry->second += difference;
    if (entry->second == 0) connections_.erase(entry);
    ++connection_count_;
    changed_.notify_all();
}

void Core::notify(Kind kind, JovuDeviceAddress device, decltype(Notification::value) value) {
    if ((enabled_ & 1U << static_cast<unsigned>(kind)) == 0) return;
    queue_.push({kind, device, std::move(value)});
}

void Core::receive_sample(JovuDeviceAddress device, const servo_trace_msg& sample) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const std::weak_ptr<Recording>& entry : recordings_) {
        if (const std::shared_ptr<Recording> recording = entry.lock()) {
            recording->add(device, sample);
        }
    }
}

}  // namespace jovu_python
