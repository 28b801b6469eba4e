#include "firmware/heater.h"

#include <algorithm>
#include <cmath>

namespace jovusim {

namespace {
constexpr double kLagSeconds = 0.8;
}

void Heater::advance(double seconds) {
    const double goal = std::max(target_, kAmbient);
    temperature_ = goal + (temperature_ - goal) * std::exp(-seconds / kLagSeconds);
}

}  // namespace jovusim
