#include "client.h"

#include <chrono>
#include <utility>

namespace jovu_cli {
namespace {

template <class What>
Notice notice(JovuDeviceAddress address, What what) {
    return Notice{address, std::chrono::system_clock::now(), std::move(what)};
}

}  // namespace

Client::Client(Inbox& inbox, const JovuScanPause& /*until_built*/) : inbox_(inbox) {
    set_strict_matching(true);
}

Client::~Client() {
    shutdown();
}

void Client::device_connected(JovuDeviceAddress address) {
    inbox_.post(notice(address, Connected{}));
}

void Client::device_disconnected(JovuDeviceAddress address) {
    inbox_.post(notice(address, Disconnected{}));
}

void Client::debug_event(JovuDeviceAddress address, std::shared_ptr<char> text) {
    inbox_.post(notice(address, text ? DebugText(text.get()) : std::nullopt));
}

void Client::servo_dc_trace_event(JovuDeviceAddress address, servo_trace_msg sample) {
    inbox_.post(notice(address, sample));
}

void Client::StatusReceived(JovuDeviceAddress address, StatusMsg status) {
    inbox_.post(notice(address, std::move(status)));
}

}  // namespace jovu_cli
