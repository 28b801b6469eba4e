// SPDX-License-Identifier: Apache-2.0

/// @file
/// Pins, lights, motor bridges and the SD card.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "firmware/base/types.h"

namespace jovusim {

/// State of an input.
enum class InputState : std::uint8_t {
    low = 0,
    high = 1,
    unknown = 2,  ///< no such input
};

/// Pins 0 to 15 are the outputs, pins 16 to 23 the inputs 0 to 7.
class Gpio {
public:
    static constexpr std::uint32_t kOutputs = 16;
    static constexpr std::uint32_t kInputs = 8;

    /// Returns false when there is no such output.
    bool set_output(std::uint32_t pin, bool value);

    /// The level at a pin, not debounced; low when there is no such pin.
    bool level(std::uint32_t pin) const;

    /// The state of an input. When debounced, a new level counts after 20 ms.
    InputState input(std::uint32_t number, bool debounce, Millis now) const;

    /// Sets the level at an input, below kInputs.
    void drive_input(std::uint32_t number, bool value, Millis now);

    /// Power-on: the outputs go low. The levels at the inputs stay.
    void reset() { outputs_ = {}; }

    Json stats() const;

private:
    struct Input {
        bool level = false;
        bool before = false;
        Millis since = 0;  ///< moment of the last change
    };

    std::array<bool, kOutputs> outputs_{};
    std::array<Input, kInputs> inputs_{};
};

/// A blinking light. It stays on when off is 0, and off when on is 0.
struct Led {
    std::int16_t on = 0;   ///< units of 10 ms
    std::int16_t off = 0;  ///< likewise
};

/// Lights and motor bridges.
class Panel {
public:
    static constexpr std::size_t kLeds = 4;
    static constexpr std::size_t kBridges = 2;
    static constexpr int kFullDuty = 100;  ///< percent; negative values reverse the motor

    /// @name Each returns false, and changes nothing, for an unknown number or an invalid value.
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

/// The SD card. It keeps its bytes over a reset of the machine; unwritten bytes read as 0xFF.
class Storage {
public:
    static constexpr std::uint32_t kBlockSize = 512;
    static constexpr std::uint32_t kBlocks = 8192;
    static constexpr std::uint32_t kSize = kBlockSize * kBlocks;

    /// Returns false, and writes nothing, when the range exceeds the card.
    bool write(std::uint32_t offset, const std::string& bytes);

    /// Returns nothing when the range exceeds the card.
    std::optional<std::string> read(std::uint32_t offset, std::uint32_t length) const;

    /// Whether a range is on the card.
    static bool holds(std::uint32_t offset, std::uint32_t length) {
        return offset <= kSize && length <= kSize - offset;
    }

    Json stats() const;

private:
    using Block = std::array<char, kBlockSize>;

    std::map<std::uint32_t, Block> blocks_;  ///< written blocks, by number
    std::uint64_t writes_ = 0;
    std::uint64_t bytes_written_ = 0;
};

}  // namespace jovusim
