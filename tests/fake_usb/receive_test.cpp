// SPDX-License-Identifier: Apache-2.0

/// @file
/// Receiving: what each completion leads to, and how receiving ends.
#include <stdexcept>

#include "fake_usb/backend_fixture.h"
#include "usb/usb_constants.h"

namespace test {
namespace {

using fake_usb::Call;
using fake_usb::complete;
using fake_usb::in_flight;
using fake_usb::post;
using fake_usb::Step;
using testing::ElementsAre;

using Receive = BackendTest;

TEST_F(Receive, EveryCompletionIsDispatchedAndResubmittedAsItsStatusSays) {
    const std::string packet(64, 'x');
    const struct {
        libusb_transfer_status status;
        std::string data;
        bool dispatched;
        bool resubmitted;
        int submission = 0;
    } cases[] = {
        {LIBUSB_TRANSFER_COMPLETED, packet, true, true},
        {LIBUSB_TRANSFER_COMPLETED, "", false, true},
        {LIBUSB_TRANSFER_COMPLETED, "x", true, false, LIBUSB_ERROR_IO},
        {LIBUSB_TRANSFER_ERROR, "ab", true, true},
        {LIBUSB_TRANSFER_ERROR, "", false, true},
        {LIBUSB_TRANSFER_TIMED_OUT, "ab", true, true},
        {LIBUSB_TRANSFER_OVERFLOW, packet, true, true},
        {LIBUSB_TRANSFER_OVERFLOW, "", false, true},
        {LIBUSB_TRANSFER_STALL, "ab", false, false},
        {LIBUSB_TRANSFER_NO_DEVICE, "ab", false, false},
        {LIBUSB_TRANSFER_CANCELLED, "ab", false, false},
    };
    for (const unsigned endpoint : {kMessagesIn, kJobsIn}) {
        for (const auto& row : cases) {
            SCOPED_TRACE(testing::Message() << "status " << row.status << " of " << endpoint);
            Journal seen;
            std::vector<std::string> expected{"a+1.5", "b+1.5"};
            {
                const Backend backend(seen);
                if (row.submission != 0) fake_usb::script(Call::submit, {row.submission});
                const bool pauses = row.status != LIBUSB_TRANSFER_COMPLETED && row.data.empty();
                auto fastest = std::chrono::steady_clock::duration::max();
                for (int round = 0; round < (pauses ? 8 : 200); ++round) {
                    const auto begin = std::chrono::steady_clock::now();
                    ASSERT_TRUE(complete(backend.device, endpoint, row.status, row.data));
                    fastest = std::min(fastest, std::chrono::steady_clock::now() - begin);
                    if (row.dispatched)
                        expected.push_back((endpoint == kMessagesIn ? "a<1.5 " : "b<1.5 ") +
                                           row.data);
                    // A busy machine may be slow, but not every time.
                    if (!row.resubmitted || (!pauses && fastest < jovu::kReceiveErrorPause)) break;
                }
                EXPECT_TRUE(!row.resubmitted || pauses == (fastest >= jovu::kReceiveErrorPause))
                    << "an endpoint that fails at once every time must not take a core";
                EXPECT_EQ(in_flight(backend.device, endpoint), row.resubmitted);
                EXPECT_TRUE(in_flight(backend.device, kMessagesIn + kJobsIn - endpoint));
                EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
                EXPECT_EQ(write("the device is there still"), "");
            }
            expected.emplace_back("a-1.5");
            EXPECT_EQ(seen.entries(), expected);
            finish();
        }
    }
}

TEST_F(Receive, AFailureOnBothChannelsRemovesTheDevice) {
    const Backend backend(journal);
    ASSERT_TRUE(complete(backend.device, kJobsIn, LIBUSB_TRANSFER_STALL));
    ASSERT_TRUE(complete(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x"));
    ASSERT_TRUE(complete(backend.device, kMessagesIn, LIBUSB_TRANSFER_NO_DEVICE));
    ASSERT_TRUE(journal.wait("b+1.5", 2)) << "it is on the bus still, so the next scan takes it";
    EXPECT_THAT(journal.entries(),
                ElementsAre("a+1.5", "b+1.5", "a<1.5 x", "a-1.5", "b-1.5", "a+1.5", "b+1.5"));
}

TEST_F(Receive, ClientsAreCalledInOrderOnceTheyAreBuiltWithOneBufferThatIsThenCleared) {
    std::string seen;
    {
        Backend backend(journal);
        std::optional<JovuScanPause> building(std::in_place);
        BackendClient late(journal, "c", 0);
        backend.messages.then = [](char what, unsigned char* data) {
            if (what == '<') ++data[0];
        };
        late.then = [&seen](char what, unsigned char* data) {
            if (what == '<') seen.assign(data, data + 4);
        };
        ASSERT_TRUE(complete(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "early"));
        building.reset();
        ASSERT_TRUE(complete(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "abcd"));
        EXPECT_EQ(seen, "bbcd");
        ASSERT_TRUE(complete(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x"));
        EXPECT_EQ(seen, std::string("y\0\0\0", 4));
        JovuUsb::close(kAddress);
    }
    EXPECT_THAT(journal.entries(),
                ElementsAre("a+1.5", "b+1.5", "a<1.5 early", "a<1.5 abcd", "c<1.5 bbcd", "a<1.5 x",
                            "c<1.5 y", "a-1.5", "c-1.5", "b-1.5"));
}

TEST_F(Receive, EndsWithACloseWhateverBecomesOfTheCancellations) {
    const Backend backend(journal);
    const auto complete_first = [&] {
        post(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED);
    };
    std::vector<Step> cancellations(5, LIBUSB_ERROR_OTHER);
    cancellations[0] = {LIBUSB_ERROR_NOT_FOUND, complete_first};
    fake_usb::script(Call::cancel, cancellations);
    const unsigned submitted = fake_usb::calls(Call::submit);
    JovuUsb::close(kAddress);
    EXPECT_EQ(fake_usb::calls(Call::submit), submitted);
    EXPECT_FALSE(in_flight(backend.device, kMessagesIn) || in_flight(backend.device, kJobsIn));
    EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
    EXPECT_EQ(error_of([] { JovuUsb::close(kAddress); }),
              "Close failed - Device no longer connected.");
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5"));
}

TEST_F(Receive, ACloseOutlastsADispatchOnAnotherThreadAlsoOneThatFails) {
    for (const bool fails : {false, true}) {
        Journal seen;
        testing::internal::CaptureStdout();
        {
            Backend backend(seen);
            std::promise<void> barrier;
            backend.jobs->then = [&](char what, unsigned char*) {
                if (what != '<') return;
                barrier.get_future().wait();
                if (fails) throw std::runtime_error("odd");
            };
            const auto dispatch_meanwhile = [&] {
                post(backend.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "x");
                EXPECT_TRUE(seen.wait("b<1.5 x"));
            };
            fake_usb::script(Call::cancel, {{0, dispatch_meanwhile}});
            auto closing = std::async(std::launch::async, [] { JovuUsb::close(kAddress); });
            // No thread can handle events meanwhile: the other channel's cancellation waits too.
            EXPECT_EQ(closing.wait_for(jovu::kDrainLimit + std::chrono::milliseconds(200)),
                      std::future_status::timeout);
            barrier.set_value();
            closing.get();
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  fails ? "Fatal error in hotplug thread - odd.\n" : "");
        finish();
    }
}

/// The watcher is in the notification. A sender handles events meanwhile, and waits in a dispatch.
TEST_F(Receive, ALongNotificationCostsNoSenderItsDevice) {
    std::promise<void> barrier;
    Backend backend(journal);
    fake_usb::plug(1, 6);
    ASSERT_TRUE(journal.wait("b+1.6"));
    backend.messages.then = [&barrier](char what, unsigned char*) {
        if (what == '+') barrier.get_future().wait();
    };
    fake_usb::plug(1, 7);
    ASSERT_TRUE(journal.wait("a+1.7"));
    fake_usb::hold_bulk(true);
    auto one = std::async(std::launch::async, [] { return write("x"); });
    auto other = std::async(std::launch::async, [] { return write("x", {1, 6}); });
    ASSERT_TRUE(eventually([] { return fake_usb::sent().size() == 2; }));
    post(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "y");
    const std::chrono::milliseconds limit(jovu::kSendTimeoutMs + 200);
    std::this_thread::sleep_for(limit + jovu::kDrainLimit);
    fake_usb::hold_bulk(false);
    barrier.set_value();
    EXPECT_EQ(one.get() + other.get(), "");
}

TEST_F(Receive, StoppingLetsADispatchFinish) {
    std::promise<void> barrier;
    Backend backend(journal, [&](Backend& self) {
        self.messages.then = [&barrier](char what, unsigned char*) {
            if (what == '<') barrier.get_future().wait();
        };
        // The second one is behind the first in one round of event handling.
        self.jobs->then = [&self](char what, unsigned char*) {
            if (what != '+') return;
            post(self.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x");
            post(self.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "y");
        };
    });
    ASSERT_TRUE(journal.wait("a<1.5 x"));
    auto stopping = std::async(std::launch::async, [&] { backend.jobs.reset(); });
    EXPECT_TRUE(waits(stopping));
    barrier.set_value();
    stopping.get();
    EXPECT_EQ(write("x"), "Send failed - Device no longer connected.");
}

/// In a process of its own, which keeps what it set aside.
TEST_F(Receive, ATransferThatNeverComesBackIsSetAsideNotFreed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto scenario = [] {
        Journal seen;
        {
            const Backend backend(seen);
            fake_usb::hold_bulk(true);
            EXPECT_EQ(write("x"), "Send failed - libusb error: -7");
            EXPECT_EQ(write("x"), "Send failed - libusb error: -6");
            fake_usb::lose_cancellations = true;
            JovuUsb::close(kAddress);
            EXPECT_EQ(write("x"), "Send failed - Device no longer connected.");
            fake_usb::lose_cancellations = false;
            fake_usb::hold_bulk(false);
            // It is never too late for the completion.
            EXPECT_TRUE(complete(backend.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "late"));
            EXPECT_FALSE(in_flight(backend.device, kJobsIn));
            fake_usb::unplug(backend.device);
            // The address may be another device's by now, which has not said this.
            EXPECT_THAT(seen.entries(), ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5"));
        }
        EXPECT_THAT(fake_usb::finish(),
                    ElementsAre("3 left: transfers", "1 left: handles", "1 left: contexts",
                                "1 left: device references"));
        Journal again;
        const Backend backend(again);
        std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace test
