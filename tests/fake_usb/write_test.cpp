// SPDX-License-Identifier: Apache-2.0

/// @file
/// Sending: every result that a bulk call can have.
#include <atomic>
#include <future>
#include <thread>

#include "fake_usb/backend_fixture.h"
#include "support/job_file.h"

namespace {

using fake_usb::kNothing;
using fake_usb::Step;
using test::kAddress;

constexpr int kTimeout = LIBUSB_ERROR_TIMEOUT, kBusy = LIBUSB_ERROR_BUSY;

using Failure = std::pair<std::string, JovuError>;
const std::string kError = "Send failed - libusb error: ";
const Failure kNone{"", JovuError::none}, kTimedOut{kError + "-7", JovuError::send_timed_out},
    kIsBusy{kError + "-6", JovuError::busy}, kOverflow{kError + "-8", JovuError::transfer_failed},
    kStalled{kError + "-9", JovuError::stalled}, kLost{kError + "-4", JovuError::disconnected},
    kStuck{"Send failed - device takes no data.", JovuError::send_timed_out};

Failure write(const std::string& bytes, JovuDeviceAddress address, unsigned interface) {
    try {
        JovuUsb::write(reinterpret_cast<const unsigned char*>(bytes.data()),
                       static_cast<unsigned>(bytes.size()), address,
                       static_cast<JovuUsb::jovu_usb_interface_t>(interface));
    } catch (const JovuException& error) {
        return {error.what(), error.code()};
    }
    return kNone;
}

/// @return the failure of a write to the device that is there.
Failure stream(const std::string& bytes, unsigned interface) {
    try {
        JovuUsb::connection(kAddress)->write({{reinterpret_cast<const unsigned char*>(bytes.data()),
                                               static_cast<unsigned>(bytes.size())}},
                                             interface, jovu::Connection::Follow::writes);
    } catch (const JovuException& error) {
        return {error.what(), error.code()};
    }
    return kNone;
}

class Write : public test::BackendTest {
protected:
    const test::Backend backend{journal};
};

TEST_F(Write, RetriesGivesUpAndAdvances) {
    const struct {
        const char* what;
        std::vector<Step> script;
        std::vector<std::size_t> offsets;  ///< Of every call made.
        Failure failure = kNone;
        std::size_t length = 9;
    } cases[] = {
        {"whole", {}, {0}, kNone, 300},
        {"nothing to send", {}, {}, kNone, 0},
        {"three time-outs", {kTimeout, kTimeout, kTimeout, 0}, {0, 0, 0, 0}},
        {"four", {kTimeout, kTimeout, kTimeout, kTimeout}, {0, 0, 0, 0}, kTimedOut},
        {"busy last", {kTimeout, kBusy, kTimeout, kBusy}, {0, 0, 0, 0}, kIsBusy},
        {"a partial call restores the retries",
         {kTimeout, kTimeout, kTimeout, {0, 4}, kTimeout, kTimeout, kTimeout, {0, 4}, kBusy, 0},
         {0, 0, 0, 0, 4, 4, 4, 4, 8, 8}},
        {"a timed-out call is repeated", {{kTimeout, 5}, {0, 3}, {kTimeout, 2}}, {0, 0, 3, 3}},
        {"stall", {LIBUSB_ERROR_PIPE}, {0}, kStalled},
        {"overflow", {kTimeout, {LIBUSB_ERROR_OVERFLOW, 3}}, {0, 0}, kOverflow},
        {"no device", {{0, 2}, LIBUSB_ERROR_NO_DEVICE}, {0, 2}, kLost},
        {"empty for ever", std::vector<Step>(16, kNothing), std::vector<std::size_t>(16), kStuck},
        {"empty for long", std::vector<Step>(15, kNothing), std::vector<std::size_t>(16)},
    };
    for (const unsigned interface : {0U, 1U}) {
        for (const auto& row : cases) {
            SCOPED_TRACE(std::string(row.what) + ", interface " + std::to_string(interface));
            const std::string bytes = test::job_content(row.length);
            const std::size_t before = fake_usb::sent().size();
            fake_usb::script(fake_usb::Call::bulk, row.script);
            // The job channel's writes follow one another.
            EXPECT_EQ(interface == 0 ? write(bytes, kAddress, 0) : stream(bytes, 1), row.failure);
            const auto sent = fake_usb::sent();
            ASSERT_EQ(sent.size(), before + row.offsets.size());
            for (std::size_t i = 0; i < row.offsets.size(); ++i) {
                EXPECT_EQ(sent[before + i].endpoint, interface == 0 ? 0x02U : 0x04U);
                EXPECT_EQ(sent[before + i].timeout_ms, 1500U);
                EXPECT_EQ(sent[before + i].bytes, bytes.substr(row.offsets[i]));
            }
        }
    }
}

TEST_F(Write, OneThreadThatWritesOnHandlesEventsAndTheWatcherTheOthers) {
    std::atomic<std::thread::id> dispatcher{};
    test::BackendClient client(journal, "d", 0);
    client.then = [&dispatcher](char what, unsigned char*) {
        if (what == '<') dispatcher = std::this_thread::get_id();
    };
    const auto receive = [&] {
        return fake_usb::complete(backend.device, test::kMessagesIn, LIBUSB_TRANSFER_COMPLETED,
                                  "x");
    };
    libusb_device* const other = fake_usb::plug(1, 6);
    ASSERT_TRUE(journal.wait("d+1.6"));
    fake_usb::hold_bulk(true);
    std::atomic<std::thread::id> sender{};
    auto writing = std::async(std::launch::async, [&sender] {
        sender = std::this_thread::get_id();
        return stream("x", 1);
    });
    EXPECT_TRUE(test::eventually([&] { return receive() && dispatcher == sender; }));
    // The watcher still scans the bus.
    fake_usb::unplug(other);
    EXPECT_TRUE(journal.wait("d-1.6"));
    fake_usb::hold_bulk(false);
    EXPECT_EQ(writing.get(), kNone);
    EXPECT_TRUE(receive());
    EXPECT_NE(dispatcher.load(), sender.load());
}

TEST_F(Write, ChecksTheDeviceThenTheInterfaceThenTheLength) {
    const Failure gone{"Send failed - Device no longer connected.", JovuError::disconnected};
    const Failure invalid{"Send failed - interface invalid.", JovuError::rejected};
    for (const char* const bytes : {"", "x"}) {
        EXPECT_EQ(write(bytes, {1, 6}, 0), gone);
        EXPECT_EQ(write(bytes, {1, 6}, 2), gone);
        EXPECT_EQ(write(bytes, kAddress, 2), invalid);
    }
    JovuUsb::close(kAddress);
    EXPECT_EQ(write("x", kAddress, 2), Failure(gone.first, JovuError::closed));
    EXPECT_TRUE(fake_usb::sent().empty());
}

}  // namespace
