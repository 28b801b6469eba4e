/// @file
/// Small outputs of the machine: lights and motor bridges.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "firmware/types.h"

namespace jovusim {

/// A light that is on for one span and off for another, in turns. Without an off span it stays on,
/// without an on span off.
struct Led {
    std::int16_t on = 0;   ///< units of 10 ms
    std::int16_t off = 0;  ///< likewise
};

class Panel {
public:
    static constexpr std::size_t kLeds = 4;
    static constexpr std::size_t kBridges = 2;
    static constexpr int kFullDuty = 100;  ///< percent; negative turns the other way round

    /// @name Each returns false, and changes nothing, for an unknown one and a bad value.
    /// @{
    bool set_led(std::uint32_t number, Led led) {
        if (number >= kLeds || led.on < 0 || led.off < 0) return false;
        leds_[number] = led;
        return true;
    }
    bool set_duty(std::uint32_t bridge, int duty) {
        if (bridge >= kBridges || duty < -kFullDuty || duty > kFullDuty) return false;
        duties_[bridge] = duty;
        return true;
    }
    /// @}

    Json led_stats() const {
        Json out = Json::array();
        for (const Led& led : leds_)
            out.push_back({{"on", led.on}, {"off", led.off}});
        return out;
    }
    Json duty_stats() const { return Json(duties_); }

private:
    std::array<Led, kLeds> leds_{};
    std::array<int, kBridges> duties_{};
};

}  // namespace jovusim
