// SPDX-License-Identifier: Apache-2.0

/// @file
/// Runs the tests of a program one after the other on a bus that is empty at the start of each.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "support/sim_control.h"

namespace {

class CleanBus : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo& /*info*/) override {
        std::istringstream devices(test::sim("list"));
        for (std::string device; std::getline(devices >> std::ws, device, ',');) {
            test::sim("unplug " + device.substr(0, device.find(' ')));
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(
        std::make_unique<CleanBus>().release());  // gtest owns it
    return RUN_ALL_TESTS();
}
