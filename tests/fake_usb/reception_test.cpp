/// @file
/// Reception: what each completion leads to, and how reception ends.
#include <stdexcept>

#include "fake_usb/link_test.h"
#include "usb/usb_constants.h"

namespace {

using fake_usb::Call;
using fake_usb::complete;
using fake_usb::in_flight;
using fake_usb::post;
using test::Barrier;
using test::error_of;
using test::in_time;
using test::Journal;
using test::kAddress;
using test::kJobsIn;
using test::kMessagesIn;
using test::Link;
using test::LinkClient;
using testing::ElementsAre;

using Reception = test::LinkTest;

TEST_F(Reception, EveryCompletionIsDeliveredAndResubmittedAsItsStatusSays) {
    const std::string packet(64, 'x');
    const struct {
        libusb_transfer_status status;
        std::string data;
        bool delivered;
        bool resubmitted;
    } cases[] = {
        {LIBUSB_TRANSFER_COMPLETED, packet, true, true},
        {LIBUSB_TRANSFER_COMPLETED, "", false, true},
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
            Journal told;
            std::size_t rounds = 1;
            {
                Link link(told);
                ASSERT_TRUE(told.wait("b+1.5"));
                ASSERT_TRUE(complete(link.device, endpoint, row.status, row.data));
                auto fastest = std::chrono::steady_clock::duration::max();
                const bool pauses = row.status != LIBUSB_TRANSFER_COMPLETED && row.data.empty();
                // A busy machine may be slow, but not every time.
                for (; row.resubmitted && rounds < (pauses ? 8 : 200) &&
                       (pauses || fastest >= jovu::kReceiveErrorPause);
                     ++rounds) {
                    const auto begin = std::chrono::steady_clock::now();
                    ASSERT_TRUE(complete(link.device, endpoint, row.status, row.data));
                    fastest = std::min(fastest, std::chrono::steady_clock::now() - begin);
                }
                EXPECT_EQ(fastest >= jovu::kReceiveErrorPause, pauses || !row.resubmitted)
                    << "an endpoint that fails at once every time must not take a core";
                EXPECT_EQ(in_flight(link.device, endpoint), row.resubmitted);
                EXPECT_TRUE(in_flight(link.device, kMessagesIn + kJobsIn - endpoint));
                EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
                EXPECT_EQ(test::write("the device is there still"), "");
            }
            std::vector<std::string> expected{"a+1.5", "b+1.5", "a-1.5"};
            if (row.delivered) {
                const std::string client = endpoint == kMessagesIn ? "a" : "b";
                expected.insert(expected.begin() + 2, rounds, client + "<1.5 " + row.data);
            }
            EXPECT_EQ(told.entries(), expected);
            finish();
        }
    }
}

TEST_F(Reception, AFailureOnBothChannelsRemovesTheDevice) {
    Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    ASSERT_TRUE(complete(link.device, kJobsIn, LIBUSB_TRANSFER_STALL));
    ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x"));
    ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_NO_DEVICE));
    ASSERT_TRUE(journal.wait("b+1.5", 2)) << "it is on the bus still, so the next scan takes it";
    EXPECT_THAT(journal.entries(),
                ElementsAre("a+1.5", "b+1.5", "a<1.5 x", "a-1.5", "b-1.5", "a+1.5", "b+1.5"));
}

TEST_F(Reception, AFailedResubmissionEndsOneChannelOnly) {
    Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    fake_usb::script(Call::submit, {LIBUSB_ERROR_IO});
    ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x"));
    EXPECT_FALSE(in_flight(link.device, kMessagesIn));
    ASSERT_TRUE(complete(link.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "y"));
    EXPECT_TRUE(in_flight(link.device, kJobsIn));
    EXPECT_EQ(test::write("x"), "");
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5", "a<1.5 x", "b<1.5 y"));
}

TEST_F(Reception, ClientsOfAnInterfaceAreServedInOrderFromOneBufferThatIsThenCleared) {
    std::string seen;
    {
        Link link(journal);
        ASSERT_TRUE(journal.wait("b+1.5"));
        LinkClient late(journal, "c", 0);
        link.messages.on_data = [](unsigned char* data) { ++data[0]; };
        late.on_data = [&seen](unsigned char* data) { seen.assign(data, data + 4); };
        ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "abcd"));
        EXPECT_EQ(seen, "bbcd");
        ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x"));
        EXPECT_EQ(seen, std::string("y\0\0\0", 4));
        JovuUsb::close(kAddress);
    }
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5", "a<1.5 abcd", "c<1.5 bbcd",
                                               "a<1.5 x", "c<1.5 y", "a-1.5", "c-1.5", "b-1.5"));
}

TEST_F(Reception, WhatAClientThrowsEndsTheWatcherInWordsAndTheLinkCanStartAgain) {
    const std::pair<std::function<void(unsigned char*)>, const char*> cases[] = {
        {[](unsigned char*) { throw std::runtime_error("no room"); }, "no room"},
        {[](unsigned char*) { throw JovuException(); }, "Unknown JoVu Error"},
        {[](unsigned char*) { throw 42; }, "UNKNOWN"},
    };
    for (const auto& [thrower, what] : cases) {
        testing::internal::CaptureStdout();
        {
            Link link(journal);
            LinkClient behind(journal, "c", 0);
            link.messages.on_data = thrower;
            ASSERT_TRUE(test::eventually([&] { return in_flight(link.device, kJobsIn); }));
            ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, what));
            EXPECT_TRUE(watcher_ends());
            EXPECT_FALSE(in_flight(link.device, kMessagesIn)) << "not resubmitted";
            EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  std::string("Fatal error in hotplug thread - ") + what + ".\n");
        EXPECT_FALSE(
            testing::Matches(testing::Contains(std::string("c<1.5 ") + what))(journal.entries()));
        finish();
    }
    Journal again;
    Link link(again);
    EXPECT_TRUE(again.wait("b+1.5"));
}

TEST_F(Reception, AnExceptionOnASendersThreadReachesTheWatcherNotTheSender) {
    testing::internal::CaptureStdout();
    {
        Link link(journal);
        ASSERT_TRUE(journal.wait("b+1.5"));
        link.messages.on_data = [](unsigned char*) {
            EXPECT_EQ(test::write(""), "");
            throw std::runtime_error(test::write("x"));
        };
        fake_usb::hold_bulk(true);
        auto sending = std::async(std::launch::async, [] { return test::write("x"); });
        ASSERT_TRUE(test::eventually(fake_usb::in_bulk));
        ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x"));
        fake_usb::hold_bulk(false);
        EXPECT_EQ(sending.get(), "");
        EXPECT_TRUE(watcher_ends());
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Fatal error in hotplug thread - Send failed - libusb error: -6.\n");
}

TEST_F(Reception, ClosingRepeatsItsCancellationsUntilTheyAreThrough) {
    Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    fake_usb::script(Call::cancel, std::vector<fake_usb::Step>(5, LIBUSB_ERROR_OTHER));
    in_time("close", [] { JovuUsb::close(kAddress); });
    EXPECT_FALSE(in_flight(link.device, kMessagesIn));
    EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
    EXPECT_EQ(error_of([] { JovuUsb::close(kAddress); }),
              "Close failed - Device no longer connected.");
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5"));
}

TEST_F(Reception, ACompletionThatCancellingComesTooLateForIsNotResubmitted) {
    Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    const auto complete_first = [&link] {
        post(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x");
    };
    fake_usb::script(Call::cancel, {{LIBUSB_ERROR_NOT_FOUND, complete_first}});
    const unsigned submitted = fake_usb::calls(Call::submit);
    in_time("close", [] { JovuUsb::close(kAddress); });
    EXPECT_EQ(fake_usb::calls(Call::submit), submitted);
}

TEST_F(Reception, ClosingOutlastsADeliveryOnAnotherThreadAlsoOneThatFails) {
    for (const bool fails : {false, true}) {
        Journal told;
        testing::internal::CaptureStdout();
        {
            Link link(told);
            ASSERT_TRUE(told.wait("b+1.5"));
            Barrier barrier;
            link.jobs->on_data = [&](unsigned char*) {
                barrier.wait();
                if (fails) throw std::runtime_error("odd");
            };
            const auto deliver_meanwhile = [&] {
                post(link.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "x");
                EXPECT_TRUE(told.wait("b<1.5 x"));
            };
            fake_usb::script(Call::cancel, {{0, deliver_meanwhile}});
            auto closing = std::async(std::launch::async, [] { JovuUsb::close(kAddress); });
            ASSERT_TRUE(told.wait("b<1.5 x"));
            // Nobody can handle events meanwhile: the other channel's cancellation waits as well.
            EXPECT_EQ(closing.wait_for(jovu::kDrainLimit + std::chrono::milliseconds(200)),
                      std::future_status::timeout);
            barrier.open();
            in_time("close", [&] { closing.get(); });
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  fails ? "Fatal error in hotplug thread - odd.\n" : "");
        finish();
    }
}

/// The watcher is in the notification. A sender handles events meanwhile, and waits in a delivery.
TEST_F(Reception, ALongNotificationCostsNoSenderItsDevice) {
    Barrier barrier;
    Link link(journal);
    fake_usb::plug(1, 6);
    ASSERT_TRUE(journal.wait("b+1.5") && journal.wait("b+1.6"));
    link.messages.on_connected = [&barrier] { barrier.wait(); };
    fake_usb::plug(1, 7);
    ASSERT_TRUE(journal.wait("a+1.7"));
    fake_usb::hold_bulk(true);
    auto one = std::async(std::launch::async, [] { return test::write("x"); });
    auto other = std::async(std::launch::async, [] { return test::write("x", {1, 6}); });
    ASSERT_TRUE(test::eventually([] { return fake_usb::sent().size() == 2; }));
    post(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "y");
    const std::chrono::milliseconds limit(jovu::kSendTimeoutMs);
    std::this_thread::sleep_for(limit + jovu::kDrainLimit + std::chrono::milliseconds(200));
    fake_usb::hold_bulk(false);
    barrier.open();
    EXPECT_EQ(one.get() + other.get(), "");
}

TEST_F(Reception, StoppingLetsADeliveryFinish) {
    Barrier barrier;
    Link link(journal, [&](Link& self) {
        self.messages.on_data = [&barrier](unsigned char*) { barrier.wait(); };
        // The second one is behind the first in one round of event handling.
        self.jobs->on_connected = [&self] {
            post(self.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x");
            post(self.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "y");
        };
    });
    ASSERT_TRUE(journal.wait("a<1.5 x"));
    auto stopping = std::async(std::launch::async, [&] { link.jobs.reset(); });
    EXPECT_EQ(stopping.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    barrier.open();
    in_time("stop", [&] { stopping.get(); });
    EXPECT_EQ(test::write("x"), "Send failed - Device no longer connected.");
}

/// In a process of its own, which keeps what it set aside.
TEST_F(Reception, ATransferThatNeverComesBackIsSetAsideNotFreed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto scenario = [] {
        Journal told;
        {
            Link link(told);
            EXPECT_TRUE(told.wait("b+1.5"));
            fake_usb::hold_bulk(true);
            EXPECT_EQ(test::write("x"), "Send failed - libusb error: -7");
            EXPECT_EQ(test::write("x"), "Send failed - libusb error: -6");
            fake_usb::lose_cancellations(true);
            in_time("close", [] { JovuUsb::close(kAddress); });
            EXPECT_EQ(test::write("x"), "Send failed - Device no longer connected.");
            fake_usb::lose_cancellations(false);
            fake_usb::hold_bulk(false);
            // It is never too late for the completion.
            EXPECT_TRUE(complete(link.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "late"));
            EXPECT_FALSE(in_flight(link.device, kJobsIn));
            fake_usb::unplug(link.device);
            // The address may be another device's by now, which has not said this.
            EXPECT_THAT(told.entries(), ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5"));
        }
        EXPECT_THAT(fake_usb::finish(),
                    ElementsAre("3 left: transfers", "1 left: handles", "1 left: contexts",
                                "1 left: device references"));
        Journal again;
        Link link(again);
        EXPECT_TRUE(again.wait("b+1.5"));
        std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(scenario(), testing::ExitedWithCode(0), "");
}

}  // namespace
