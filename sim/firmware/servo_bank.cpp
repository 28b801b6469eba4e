#include "firmware/servo_bank.h"

#include <algorithm>

namespace jovusim {

Servo* ServoBank::find(std::int64_t number) {
    if (number < 0 || number >= static_cast<std::int64_t>(servos_.size())) return nullptr;
    return &servos_[static_cast<std::size_t>(number)];
}

void ServoBank::start_waiting_moves() {
    for (Servo& servo : servos_)
        servo.start_waiting_move();
}

bool ServoBank::traced() const {
    return std::any_of(servos_.begin(), servos_.end(),
                       [](const Servo& servo) { return servo.traced(); });
}

bool ServoBank::idle() const {
    return std::none_of(servos_.begin(), servos_.end(),
                        [](const Servo& servo) { return servo.active() || servo.traced(); });
}

void ServoBank::advance(std::uint64_t milliseconds, std::vector<TraceSample>* samples) {
    for (; milliseconds > 0 && !idle(); --milliseconds) {
        ++count_;
        int number = 0;
        for (Servo& servo : servos_) {
            servo.step();
            if (samples != nullptr && servo.traced()) {
                samples->push_back(servo.sample(number, count_));
            }
            ++number;
        }
    }
    count_ += static_cast<std::uint32_t>(milliseconds);
}

void ServoBank::reset() {
    const std::uint32_t count = count_;
    *this = ServoBank();
    count_ = count;
}

Json ServoBank::stats() const {
    Json out = Json::array();
    for (const Servo& servo : servos_)
        out.push_back(servo.stats());
    return out;
}

}  // namespace jovusim
