/// @file
/// The watcher: what goes wrong when devices are opened, and starting and stopping.
#include "fake_usb/link_test.h"
#include "support/recording_client.h"

namespace {

using fake_usb::Call;
using fake_usb::complete;
using fake_usb::in_flight;
using fake_usb::Step;
using test::error_of;
using test::eventually;
using test::in_time;
using test::Journal;
using test::kAddress;
using test::kJobsIn;
using test::kMessagesIn;
using test::Link;
using test::LinkClient;
using testing::ElementsAre;

using Watcher = test::LinkTest;

TEST_F(Watcher, EndsInWordsWhenADeviceCannotBeOpenedAfterItsProbe) {
    const struct {
        Call call;
        std::vector<Step> steps;
        const char* message;
    } cases[] = {
        {Call::alloc, {LIBUSB_ERROR_NO_MEM}, "Failed to allocate rx transfer."},
        {Call::alloc, {0, LIBUSB_ERROR_NO_MEM}, "Failed to allocate rx transfer."},
        {Call::alloc, {0, 0, LIBUSB_ERROR_NO_MEM}, "Failed to allocate tx transfer."},
        {Call::list, {0, LIBUSB_ERROR_NO_MEM}, "Failed to get libusb device list."},
        {Call::descriptor, {0, LIBUSB_ERROR_IO}, "Failed to get libusb device descriptor."},
        {Call::open, {0, LIBUSB_ERROR_ACCESS}, "Failed to open libusb device."},
        {Call::claim, {0, LIBUSB_ERROR_BUSY}, "Failed to claim libusb device."},
    };
    for (const auto& row : cases) {
        testing::internal::CaptureStdout();
        fake_usb::script(row.call, row.steps);
        {
            const Link link(journal);
            EXPECT_TRUE(watcher_ends());
            EXPECT_TRUE(JovuUsb::list_connected().empty());
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  std::string("Fatal error in hotplug thread - ") + row.message + ".\n");
        finish();
    }
    EXPECT_TRUE(journal.entries().empty());
    const Link link(journal);
    EXPECT_TRUE(journal.wait("b+1.5")) << "a later registration starts anew";
}

TEST_F(Watcher, PassesOverWhatCannotBeHadNowAndTriesAgain) {
    libusb_device* device = nullptr;
    const auto leave = [&device] {
        fake_usb::unplug(device);
        device = fake_usb::plug(1, 5);
    };
    const auto leave_for_good = [&device] {
        fake_usb::unplug(device);
        fake_usb::plug(1, 6);
    };
    const struct {
        const char* what;
        Call call;
        std::vector<Step> steps;
        const char* next;
    } cases[] = {
        {"no list", Call::list, {LIBUSB_ERROR_NO_MEM}, "b+1.5"},
        {"no descriptor", Call::descriptor, {LIBUSB_ERROR_IO}, "b+1.5"},
        {"not to be opened", Call::open, {LIBUSB_ERROR_ACCESS, LIBUSB_ERROR_ACCESS}, "b+1.5"},
        {"in use", Call::claim, {LIBUSB_ERROR_BUSY, LIBUSB_ERROR_BUSY}, "b+1.5"},
        {"left before the opening", Call::open, {0, LIBUSB_ERROR_NO_DEVICE}, "b+1.5"},
        {"left before the claim", Call::claim, {0, LIBUSB_ERROR_NO_DEVICE}, "b+1.5"},
        {"left before the look for it", Call::alloc, {{0, leave_for_good}}, "b+1.6"},
        {"left while it is opened", Call::claim, {0, {0, leave_for_good}}, "b+1.6"},
        {"left before reception", Call::submit, {{0, leave}}, "b+1.5"},
        {"left before the notices", Call::submit, {0, {0, leave}}, "b+1.5"},
    };
    testing::internal::CaptureStdout();
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        Journal told;
        fake_usb::script(row.call, row.steps);
        {
            const Link link(told, [&](Link& self) { device = self.device; });
            EXPECT_TRUE(told.wait(row.next));
            EXPECT_TRUE(eventually([] {
                return test::write("x").empty() || test::write("x", {1, 6}).empty();
            }));
        }
        finish();
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(Watcher, KeepsADeviceWhoseReceptionCannotStartClosed) {
    const std::pair<std::vector<Step>, std::vector<Step>> submissions_and_cancellations[] = {
        {{LIBUSB_ERROR_IO}, {}},
        {{0, LIBUSB_ERROR_NO_MEM}, {}},
        {{0, LIBUSB_ERROR_IO}, {LIBUSB_ERROR_OTHER, LIBUSB_ERROR_OTHER}},
    };
    for (const auto& [submissions, cancellations] : submissions_and_cancellations) {
        Journal told;
        fake_usb::script(Call::submit, submissions);
        fake_usb::script(Call::cancel, cancellations);
        {
            const Link link(told);
            ASSERT_TRUE(told.wait("b+1.5"));
            EXPECT_TRUE(eventually([&] {
                return !in_flight(link.device, kMessagesIn) && !in_flight(link.device, kJobsIn);
            }));
            EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
            EXPECT_EQ(test::write("x"), "Send failed - Device no longer connected.");
            fake_usb::unplug(link.device);
            EXPECT_TRUE(eventually([] { return JovuUsb::list_connected().empty(); }));
        }
        EXPECT_THAT(told.entries(), ElementsAre("a+1.5", "b+1.5"));
        finish();
    }
}

TEST_F(Watcher, OpensOneKindOnceAndListsAll) {
    fake_usb::plug(1, 6, 0x0003, 0x7A1C, 2);
    fake_usb::plug(1, 7, 0x0099, 0x7A1C, 3);
    fake_usb::plug(1, 8, 0x0002, 0x7A1D, 4);
    {
        const Link link(journal);
        ASSERT_TRUE(journal.wait("b+1.5"));
        EXPECT_EQ(fake_usb::calls(Call::open), 2U) << "the probe and the opening";
        JovuUsb::close(kAddress);
        const unsigned scans = fake_usb::calls(Call::list);
        ASSERT_TRUE(eventually([&] { return fake_usb::calls(Call::list) >= scans + 2; }));
        EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
        fake_usb::unplug(link.device);
        ASSERT_TRUE(eventually([] { return JovuUsb::list_connected().empty(); }));
        fake_usb::plug(1, 5);
        ASSERT_TRUE(journal.wait("b+1.5", 2));
    }
    EXPECT_THAT(journal.entries(),
                ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5", "a+1.5", "b+1.5", "a-1.5"));
    std::vector<std::pair<int, int>> kinds;
    for (const JovuUsbDevice& device : JovuUsb::list_attached())
        kinds.emplace_back(device.type, device.port);
    EXPECT_THAT(kinds,
                testing::UnorderedElementsAre(std::pair(1, 1), std::pair(2, 2), std::pair(0, 3)));
}

TEST_F(Watcher, FindsArrivalsWhileOthersSendAllTheTime) {
    const Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    std::atomic<bool> stop{false};
    std::vector<std::future<void>> senders(3);
    for (auto& sender : senders) {
        sender = std::async(std::launch::async, [&] {
            while (!stop)
                test::write("x");
        });
    }
    fake_usb::plug(1, 6);
    EXPECT_TRUE(journal.wait("b+1.6"));
    stop = true;
}

TEST_F(Watcher, TellsOfTheOldDeviceBeforeTheNewOneAtItsAddress) {
    const Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    fake_usb::unplug(link.device, true);
    fake_usb::plug(1, 5);
    ASSERT_TRUE(journal.wait("b+1.5", 2));
    EXPECT_THAT(journal.entries(),
                ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5", "a+1.5", "b+1.5"));
}

TEST_F(Watcher, AClosingThreadWaitsForTheConnectedNotifications) {
    std::future<void> closing;
    {
        const Link link(journal, [&](Link& self) {
            self.messages.on_connected = [&] {
                closing = std::async(std::launch::async, [] { JovuUsb::close(kAddress); });
                closing.wait_for(std::chrono::milliseconds(20));
            };
        });
        ASSERT_TRUE(journal.wait("b-1.5"));
        closing.get();
        EXPECT_FALSE(in_flight(link.device, kMessagesIn));
    }
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5"));
}

TEST_F(Watcher, ADeviceThatTakesNoDataIsSilentOnceItsCloseIsNotified) {
    libusb_device* const healthy = fake_usb::plug(1, 6);
    Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5") && journal.wait("b+1.6"));
    link.messages.on_data = [](unsigned char*) { error_of([] { JovuUsb::close(kAddress); }); };
    fake_usb::hold_bulk(true);
    auto stuck = std::async(std::launch::async, [] { return test::write("x"); });
    ASSERT_TRUE(eventually(fake_usb::in_bulk));
    ASSERT_TRUE(complete(link.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "close"));
    ASSERT_TRUE(journal.wait("b-1.5"));
    EXPECT_TRUE(eventually([&] { return !in_flight(link.device, kMessagesIn); }));
    EXPECT_TRUE(in_flight(healthy, kMessagesIn));
    EXPECT_EQ(stuck.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(test::write("y"), "Send failed - Device no longer connected.");
    JovuUsb::close({1, 6});
    fake_usb::hold_bulk(false);
    EXPECT_EQ(stuck.get(), "");
}

TEST_F(Watcher, WhatAClientThrowsAtANoticeTakesTheDeviceBack) {
    testing::internal::CaptureStdout();
    {
        const Link link(journal, [](Link& self) {
            self.messages.on_connected = [] {
                Journal other;
                throw JovuException(error_of([&other] { LinkClient(other, "c", 0); }));
            };
        });
        EXPECT_TRUE(watcher_ends());
        EXPECT_TRUE(JovuUsb::list_connected().empty());
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Fatal error in hotplug thread - "
              "Register failed - called from inside a notice or delivery..\n");
}

TEST_F(Watcher, WhatAClientThrowsAtADepartureKeepsItFromNoOther) {
    testing::internal::CaptureStdout();
    {
        const Link link(journal, [](Link& self) {
            self.messages.on_disconnected = [] { throw JovuException("not now"); };
        });
        const LinkClient another(journal, "c", 0);
        ASSERT_TRUE(journal.wait("b+1.5"));
        fake_usb::unplug(link.device);
        EXPECT_TRUE(journal.wait("c-1.5") && journal.wait("b-1.5"));
        EXPECT_TRUE(watcher_ends());
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Fatal error in hotplug thread - not now.\n");
}

TEST_F(Watcher, OpensNothingWhileScansAreHeld) {
    fake_usb::plug(1, 5);
    std::optional<JovuScanPause> hold(std::in_place);
    const LinkClient client(journal, "a", 0);
    ASSERT_TRUE(eventually([] { return fake_usb::calls(Call::handle_events) > 50; }));
    EXPECT_EQ(fake_usb::calls(Call::list), 0U);
    hold.reset();
    EXPECT_TRUE(journal.wait("a+1.5"));
}

TEST_F(Watcher, OpensNothingOnceAHoldIsTakenEvenInTheMiddleOfAScan) {
    std::optional<JovuScanPause> hold;
    std::vector<std::string> told_before;
    std::future<void> holding;
    fake_usb::script(Call::list, {{0, [&] {
                                       holding = std::async(std::launch::async, [&] {
                                           hold.emplace();
                                           told_before = journal.entries();
                                       });
                                       holding.wait_for(std::chrono::milliseconds(30));
                                   }}});
    fake_usb::plug(1, 5);
    const LinkClient client(journal, "a", 0);
    ASSERT_TRUE(eventually([&] { return fake_usb::calls(Call::handle_events) > 5; }));
    in_time("hold", [&] { holding.get(); });
    const unsigned before = fake_usb::calls(Call::handle_events);
    ASSERT_TRUE(eventually([&] { return fake_usb::calls(Call::handle_events) > before + 5; }));
    EXPECT_EQ(journal.entries(), told_before);
    hold.reset();
    EXPECT_TRUE(journal.wait("a+1.5"));
}

TEST_F(Watcher, IsWokenFromAnEventWaitToStop) {
    for (const bool with_device : {false, true}) {
        fake_usb::wait_for_events_endlessly(true);
        if (with_device) fake_usb::plug(1, 5);
        std::optional<LinkClient> client(std::in_place, journal, "a", 0);
        EXPECT_TRUE(!with_device || journal.wait("a+1.5"));
        in_time("stop", [&] { client.reset(); });
        finish();
    }
}

TEST_F(Watcher, CallsNoJobClientBeforeItIsBuilt) {
    Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    struct Jobs : JovuJobInterface {
        explicit Jobs(libusb_device* device, const JovuScanPause& /*until_built*/ = {}) {
            complete(device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "{}");
            calls_while_built = calls;
        }
        ~Jobs() override { shutdown(); }
        void JobDataReceived(JovuDeviceAddress, const unsigned char*, unsigned) override {
            ++calls;
        }
        std::atomic<int> calls{0};
        int calls_while_built = 0;
    } jobs(link.device);
    ASSERT_TRUE(complete(link.device, kJobsIn, LIBUSB_TRANSFER_COMPLETED, "{}"));
    EXPECT_EQ(jobs.calls_while_built, 0);
    EXPECT_EQ(jobs.calls, 1);
}

TEST_F(Watcher, DoesNotSpinWhenEventHandlingFails) {
    fake_usb::script(Call::handle_events, std::vector<Step>(4, LIBUSB_ERROR_IO));
    const auto begin = std::chrono::steady_clock::now();
    const LinkClient client(journal, "a", 0);
    EXPECT_TRUE(eventually([] { return fake_usb::calls(Call::handle_events) > 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
}

TEST_F(Watcher, MayStopInTheMiddleOfAListing) {
    Link link(journal);
    ASSERT_TRUE(journal.wait("b+1.5"));
    { const LinkClient another(journal, "c", 1); }
    EXPECT_EQ(test::write("x"), "") << "it is the last client of an interface that stops it";
    const auto stop = [&link, lister = std::this_thread::get_id()] {
        if (std::this_thread::get_id() == lister) link.jobs.reset();
    };
    fake_usb::script(Call::list, {{0, stop}});
    EXPECT_EQ(JovuUsb::list_attached().size(), 1U);
}

TEST_F(Watcher, AClientThatCannotStartTheLinkLeavesNothingBehind) {
    fake_usb::script(Call::init, {LIBUSB_ERROR_OTHER});
    EXPECT_EQ(error_of([] { test::RecordingClient client; }), "Failed to initialize libusb");
    EXPECT_TRUE(JovuUsb::list_connected().empty());
    finish();
    fake_usb::plug(1, 5);
    const test::RecordingClient client;
    EXPECT_TRUE(client.wait_connected(kAddress));
}

}  // namespace
