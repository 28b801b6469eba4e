/// @file
/// The rate and the time left of a transfer, as a bar shows them.
#include <gtest/gtest.h>

#include "progress_bar.h"

namespace {

using namespace std::chrono_literals;

TEST(ProgressBar, ShowsTheRateOfTheLastSecondsAndTheTimeLeft) {
    jovu_cli::RateMeter meter;
    const jovu_cli::RateMeter::Clock::time_point start{};
    EXPECT_EQ(meter.rate(), 0);
    for (const auto& [time, done] :
         {std::pair(0s, 0U), std::pair(10s, 1000U), std::pair(12s, 5000U)})
        meter.add(start + time, done);
    EXPECT_EQ(meter.rate(), 5000.0 / 12) << "each interval counts until a whole one is too old";
    meter.add(start + 14s, 9000);
    EXPECT_EQ(meter.rate(), 2000) << "what is older than three seconds does not count";

    EXPECT_EQ(jovu_cli::transfer_text(2000, 9000, 259000), "9.0 kB, 2.0 kB/s, 2:05 left");
    EXPECT_EQ(jovu_cli::transfer_text(0, 9, 10), "9 B, 0 B/s");
    EXPECT_EQ(jovu_cli::transfer_text(1.5e6, 2500000000, 2500000000), "2.5 GB, 1.5 MB/s");
    EXPECT_EQ(jovu_cli::bar_text(50, "Sending ", "tail", 40),
              "Sending   50.0 % [=======>       ]  tail");
}

}  // namespace
