// SPDX-License-Identifier: Apache-2.0
#include "firmware/machine/peripherals.h"

namespace jovusim {

namespace {
constexpr Millis kDebounce = 20;
}

bool Gpio::set_output(std::uint32_t pin, bool value) {
    if (pin >= kOutputs) return false;
    outputs_[pin] = value;
    return true;
}

bool Gpio::level(std::uint32_t pin) const {
    if (pin < kOutputs) return outputs_[pin];
    return pin < kOutputs + kInputs && inputs_[pin - kOutputs].level;
}

InputState Gpio::input(std::uint32_t number, bool debounce, Millis now) const {
    if (number >= kInputs) return InputState::unknown;
    const Input& input = inputs_[number];
    const bool settled = now - input.since >= kDebounce;
    const bool level = debounce && !settled ? input.before : input.level;
    return level ? InputState::high : InputState::low;
}

void Gpio::drive_input(std::uint32_t number, bool value, Millis now) {
    Input& input = inputs_.at(number);
    if (input.level == value) return;
    if (now - input.since >= kDebounce) input.before = input.level;
    input.level = value;
    input.since = now;
}

Json Gpio::stats() const {
    Json outputs = Json::array();
    for (const bool level : outputs_)
        outputs.push_back(int{level});
    Json inputs = Json::array();
    for (const Input& input : inputs_)
        inputs.push_back(int{input.level});
    return {{"outputs", outputs}, {"inputs", inputs}};
}

namespace {
constexpr char kErased = '\xFF';
}

bool Storage::write(std::uint32_t offset, const std::string& bytes) {
    if (!holds(offset, static_cast<std::uint32_t>(bytes.size()))) return false;
    for (const char byte : bytes) {
        const auto [found, is_new] = blocks_.try_emplace(offset / kBlockSize);
        if (is_new) found->second.fill(kErased);
        found->second[offset % kBlockSize] = byte;
        ++offset;
    }
    ++writes_;
    bytes_written_ += bytes.size();
    return true;
}

std::optional<std::string> Storage::read(std::uint32_t offset, std::uint32_t length) const {
    if (!holds(offset, length)) return std::nullopt;
    std::string bytes;
    bytes.reserve(length);
    for (; length > 0; --length, ++offset) {
        const auto found = blocks_.find(offset / kBlockSize);
        bytes += found == blocks_.end() ? kErased : found->second[offset % kBlockSize];
    }
    return bytes;
}

Json Storage::stats() const {
    return {{"writes", writes_}, {"bytes_written", bytes_written_}, {"blocks", blocks_.size()}};
}

}  // namespace jovusim
