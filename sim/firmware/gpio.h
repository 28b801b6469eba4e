/// @file
/// General-purpose inputs and outputs.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "firmware/types.h"

namespace jovusim {

/// State of an input as the firmware tells it.
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

    /// The level at a pin as it is; low when there is no such pin.
    bool level(std::uint32_t pin) const;

    /// The state of an input. Debounced, a new level counts once it has lasted for 20 ms.
    InputState input(std::uint32_t number, bool debounce, Millis now) const;

    /// The world outside puts a level on an input, below kInputs.
    void drive_input(std::uint32_t number, bool value, Millis now);

    /// Power-on: the outputs go low. What drives the inputs stays.
    void reset() { outputs_ = {}; }

    Json stats() const;

private:
    struct Input {
        bool level = false;
        bool before = false;
        Millis since = 0;  ///< when it became what it is
    };

    std::array<bool, kOutputs> outputs_{};
    std::array<Input, kInputs> inputs_{};
};

}  // namespace jovusim
