/// @file
/// What a trace's statistics make of its interrupt counts.
#include "trace_statistics.h"

#include <gtest/gtest.h>

namespace {

servo_trace_msg sample(std::uint32_t count, std::int32_t commanded = 0, std::int32_t position = 0) {
    servo_trace_msg message{};
    message.int_cnt = count;
    message.pos_cmd = commanded;
    message.pos = position;
    return message;
}

TEST(TraceStatistics, CountWhatIsMissing) {
    jovu_cli::TraceStatistics statistics;
    const struct {
        std::uint32_t count;
        bool follows;
        std::uint64_t ticks, gaps, missing, restarts;
    } rows[] = {
        {4294967290, true, 0, 0, 0, 0},
        {4294967291, true, 1, 0, 0, 0},
        {4294967295, false, 5, 1, 3, 0},
        {0, true, 6, 1, 3, 0},
        {2, false, 8, 2, 4, 0},
        {2, false, 9, 2, 4, 1},
        {1, false, 10, 2, 4, 2},
        {2, true, 11, 2, 4, 2},
        {2147483649, false, 2147483658, 3, 2147483650, 2},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(statistics.add(sample(row.count)), row.follows) << row.count;
        EXPECT_EQ(statistics.ticks(), row.ticks) << row.count;
        EXPECT_EQ(statistics.gaps(), row.gaps) << row.count;
        EXPECT_EQ(statistics.missing(), row.missing) << row.count;
        EXPECT_EQ(statistics.restarts(), row.restarts) << row.count;
    }
    EXPECT_EQ(statistics.samples(), 9U);
}

TEST(TraceStatistics, FindTheLargestErrorOfEitherSign) {
    jovu_cli::TraceStatistics statistics;
    statistics.add(sample(1, 10, 4));
    statistics.add(sample(2, -2147483647 - 1, 2147483647));
    statistics.add(sample(3, 2147483647, -2147483647 - 1));
    EXPECT_EQ(statistics.largest_error(), -4294967295);
    EXPECT_EQ(statistics.largest_error_ticks(), 1U);
    EXPECT_EQ(statistics.position().lowest, -2147483647 - 1);
    EXPECT_EQ(statistics.position().highest, 2147483647);
}

}  // namespace
