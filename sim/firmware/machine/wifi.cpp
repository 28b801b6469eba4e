// SPDX-License-Identifier: Apache-2.0
#include "firmware/machine/wifi.h"

#include <zlib.h>

#include <string_view>

#include "firmware/base/structures.h"
#include "firmware/base/values.h"

namespace jovusim {

namespace {

constexpr std::array kNetworks = {
    WifiNetwork{"Workshop", "filament", 3, -48},
    WifiNetwork{"Workshop-Guest", "", 0, -61},
    WifiNetwork{"Caf\xC3\xA9 M\xC3\xBCller", "espresso", 3, -72},
    WifiNetwork{"attic", "12345", 1, -88},
};

constexpr std::string_view kSubnetMask("\xFF\xFF\xFF\0", 4);
constexpr std::string_view kGateway("\xC0\xA8\x07\x01", 4);  // 192.168.7.1
constexpr const char* kPatchVersionBytes = "\1\4";

/// The last byte of the client's address in the network.
constexpr std::uint8_t kFirstHost = 20;

}  // namespace

Wifi::Wifi(const std::string& serial) {
    const auto sum = crc32_z(0, reinterpret_cast<const Bytef*>(serial.data()), serial.size());
    // Locally administered: no vendor has it.
    mac_ = {0x02,
            0x4A,
            static_cast<std::uint8_t>(sum >> 24U),
            static_cast<std::uint8_t>(sum >> 16U),
            static_cast<std::uint8_t>(sum >> 8U),
            static_cast<std::uint8_t>(sum)};
}

WifiResult Wifi::start(WifiInterface interface) {
    started(interface) = true;
    if (interface == WifiInterface::client && settings_.auto_connect) {
        connect(settings_.ssid, settings_.key);
    }
    return WifiResult::ok;
}

WifiResult Wifi::stop(WifiInterface interface) {
    if (!started(interface)) return WifiResult::stopped;
    started(interface) = false;
    if (interface == WifiInterface::client) {
        network_ = nullptr;
        found_ = 0;
    }
    return WifiResult::ok;
}

WifiResult Wifi::connect(const std::string& ssid, const std::string& key) {
    if (!started(WifiInterface::client)) return WifiResult::stopped;
    network_ = nullptr;
    for (const WifiNetwork& network : kNetworks) {
        if (ssid != network.ssid) continue;
        if (key != network.key) return WifiResult::wrong_key;
        network_ = &network;
        return WifiResult::ok;
    }
    return WifiResult::no_network;
}

WifiResult Wifi::disconnect() {
    if (!connected()) return WifiResult::not_connected;
    network_ = nullptr;
    return WifiResult::ok;
}

std::variant<std::size_t, WifiResult> Wifi::scan() {
    if (!started(WifiInterface::client)) return WifiResult::stopped;
    found_ = kNetworks.size();
    return found_;
}

const WifiNetwork* Wifi::found(std::size_t index) const {
    return index < found_ ? &kNetworks[index] : nullptr;
}

void Wifi::reset() {
    started_ = {};
    network_ = nullptr;
    found_ = 0;
    settings_ = saved_;
    if (settings_.auto_start) start(WifiInterface::client);
}

Json Wifi::mac() const {
    return {mac_[0], mac_[1], mac_[2], mac_[3], mac_[4], mac_[5]};
}

Json Wifi::address() const {
    const auto field = [this](std::string_view bytes) {
        return unsigned_field(connected() ? std::string(bytes) : "", kIpSize);
    };
    const auto host = static_cast<char>(kFirstHost + mac_.back() % 200);
    return {{"ip", field(std::string(kGateway.substr(0, 3)) + host)},
            {"subnet_mask", field(kSubnetMask)},
            {"default_gateway", field(kGateway)},
            {"dhcp_server", field(kGateway)},
            {"dns_server", field(kGateway)},
            {"mac_address", mac()},
            {"connected_ssid", unsigned_field(connected() ? network_->ssid : "", kSsidSize)}};
}

Json Wifi::status() const {
    return {{"connected", int{connected()}}, {"ip_config", address()}};
}

Json Wifi::configuration() const {
    return {{"ifc_config",
             {{"auto_start", int{settings_.auto_start}},
              {"auto_connect", int{settings_.auto_connect}},
              {"auto_connect_ssid", signed_field(settings_.ssid, kSsidSize)},
              {"auto_connect_key", signed_field(settings_.key, kWifiKeySize)},
              {"auto_connect_timeout", settings_.timeout}}},
            {"hdw_config",
             {{"mac_address", mac()}, {"patch_version", unsigned_field(kPatchVersionBytes, 2)}}},
            {"ip_config", address()}};
}

Json Wifi::stats() const {
    Json started = Json::array();
    for (const bool one : started_)
        started.push_back(int{one});
    return {{"started", started},
            {"ssid", connected() ? network_->ssid : ""},
            {"settings",
             {{"auto_start", int{settings_.auto_start}},
              {"auto_connect", int{settings_.auto_connect}},
              {"ssid", settings_.ssid},
              {"key", settings_.key},
              {"timeout", settings_.timeout}}}};
}

}  // namespace jovusim
