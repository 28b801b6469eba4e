/// @file
/// Sending: every result that a bulk call can have.
#include "fake_usb/link_test.h"

namespace {

using fake_usb::Bulk;
using test::kAddress;

constexpr Bulk kTimeout{LIBUSB_ERROR_TIMEOUT, 0};
constexpr Bulk kBusy{LIBUSB_ERROR_BUSY, 0};
constexpr Bulk kNothing{0, 0};

std::vector<Bulk> times(std::size_t count, Bulk step) {
    return std::vector<Bulk>(count, step);
}

struct Case {
    const char* what;
    std::size_t length;
    std::vector<Bulk> script;
    std::vector<std::size_t> offsets;  ///< Of every call made.
    std::string error;
    JovuError code = JovuError::none;
};

class Write : public test::LinkTest {
protected:
    void SetUp() override { ASSERT_TRUE(journal.wait("b+1.5")); }

    test::Link link{journal};
};

TEST_F(Write, RetriesGivesUpAndAdvances) {
    const auto failed = [](int number) {
        return "Send failed - libusb error: " + std::to_string(number);
    };
    const std::string stuck = "Send failed - device takes no data.";
    const Case cases[] = {
        {"whole", 300, {}, {0}, ""},
        {"nothing to send", 0, {}, {}, ""},
        {"three time-outs", 9, {kTimeout, kTimeout, kTimeout, {}}, {0, 0, 0, 0}, ""},
        {"four time-outs",
         9,
         times(4, kTimeout),
         {0, 0, 0, 0},
         failed(-7),
         JovuError::send_timed_out},
        {"three times busy", 9, {kBusy, kBusy, kBusy, {}}, {0, 0, 0, 0}, ""},
        {"busy last",
         9,
         {kTimeout, kBusy, kTimeout, kBusy},
         {0, 0, 0, 0},
         failed(-6),
         JovuError::transfer_failed},
        {"a partial call restores the retries",
         9,
         {kTimeout, kTimeout, kTimeout, {0, 4}, kTimeout, kTimeout, kTimeout, {0, 4}, kBusy, {}},
         {0, 0, 0, 0, 4, 4, 4, 4, 8, 8},
         ""},
        {"bytes of a timed-out call go out again", 9, {{-7, 5}, {0, 3}, {-7, 2}}, {0, 0, 3, 3}, ""},
        {"stall", 9, {{LIBUSB_ERROR_PIPE, 0}}, {0}, failed(-9), JovuError::stalled},
        {"overflow, behind a time-out",
         9,
         {kTimeout, {-8, 3}},
         {0, 0},
         failed(-8),
         JovuError::transfer_failed},
        {"no device",
         9,
         {{0, 2}, {LIBUSB_ERROR_NO_DEVICE, 0}},
         {0, 2},
         failed(-4),
         JovuError::disconnected},
        {"empty for ever", 9, times(16, kNothing), std::vector<std::size_t>(16, 0), stuck,
         JovuError::send_timed_out},
        {"empty for long", 9, times(15, kNothing), std::vector<std::size_t>(16, 0), ""},
    };
    for (const unsigned interface : {0U, 1U}) {
        for (const Case& row : cases) {
            SCOPED_TRACE(std::string(row.what) + ", interface " + std::to_string(interface));
            std::string bytes;
            for (std::size_t i = 0; i < row.length; ++i)
                bytes.push_back(static_cast<char>(i));
            const std::size_t before = fake_usb::sent().size();
            fake_usb::script_bulk(row.script);
            JovuError code = JovuError::none;
            EXPECT_EQ(test::write(bytes, kAddress, interface, &code), row.error);
            EXPECT_EQ(code, row.code);
            auto sent = fake_usb::sent();
            sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(before));
            ASSERT_EQ(sent.size(), row.offsets.size());
            for (std::size_t i = 0; i < sent.size(); ++i) {
                EXPECT_EQ(sent[i].endpoint, interface == 0 ? 0x02U : 0x04U);
                EXPECT_EQ(sent[i].timeout_ms, 1500U);
                EXPECT_EQ(sent[i].bytes, bytes.substr(row.offsets[i]));
            }
        }
    }
}

TEST_F(Write, ChecksTheDeviceThenTheInterfaceThenTheLength) {
    const std::string gone = "Send failed - Device no longer connected.";
    const std::string invalid = "Send failed - interface invalid.";
    for (const char* const bytes : {"", "x"}) {
        EXPECT_EQ(test::write(bytes, {1, 6}, 0), gone);
        EXPECT_EQ(test::write(bytes, {1, 6}, 2), gone);
        EXPECT_EQ(test::write(bytes, kAddress, 2), invalid);
    }
    JovuUsb::close(kAddress);
    EXPECT_EQ(test::write("x", kAddress, 2), gone);
    EXPECT_TRUE(fake_usb::sent().empty());
}

}  // namespace
