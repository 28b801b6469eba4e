// SPDX-License-Identifier: Apache-2.0

/// @file
/// The watcher: what goes wrong when devices are opened, and starting and stopping.
#include <map>
#include <stdexcept>

#include "fake_usb/backend_fixture.h"
#include "usb/libusb_owners.h"

namespace test {
namespace {

using fake_usb::Call;
using fake_usb::complete;
using fake_usb::in_flight;
using fake_usb::post;
using fake_usb::Step;
using testing::ElementsAre;

using Watcher = BackendTest;

constexpr int kIo = LIBUSB_ERROR_IO, kAccess = LIBUSB_ERROR_ACCESS, kBusy = LIBUSB_ERROR_BUSY,
              kNoMemory = LIBUSB_ERROR_NO_MEM;

std::string fatal(const std::string& reason) {
    return "Fatal error in hotplug thread - " + reason + ".\n";
}

TEST_F(Watcher, PassesOverWhatCannotBeOpenedNowAndEndsWhenItHasNoTransferForIt) {
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
        std::string next;        ///< Connection, if any.
        std::string error = {};  ///< What ends the watcher, if anything: it failed to do this.
    } cases[] = {
        {"no list", Call::list, {kNoMemory}, "b+1.5"},
        {"no descriptor", Call::descriptor, {kIo}, "b+1.5"},
        {"not to be opened", Call::open, {kAccess, kAccess}, "b+1.5"},
        {"in use", Call::claim, {kBusy, kBusy}, "b+1.5"},
        {"left before the opening", Call::open, {LIBUSB_ERROR_NO_DEVICE}, "b+1.5"},
        {"left before the claim", Call::claim, {LIBUSB_ERROR_NO_DEVICE}, "b+1.5"},
        {"left while it is opened", Call::claim, {{0, leave_for_good}}, "b+1.6"},
        {"left after the claim", Call::alloc, {{0, leave_for_good}}, "b+1.6"},
        {"left before it receives", Call::submit, {{0, leave}}, "b+1.5"},
        {"left before the notifications", Call::submit, {0, {0, leave}}, "b+1.5"},
        {"1st transfer", Call::alloc, {kNoMemory}, "", "allocate rx transfer"},
        {"2nd transfer", Call::alloc, {0, kNoMemory}, "", "allocate rx transfer"},
        {"3rd transfer", Call::alloc, {0, 0, kNoMemory}, "", "allocate tx transfer"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        Journal seen;
        testing::internal::CaptureStdout();
        fake_usb::script(row.call, row.steps);
        {
            const Backend backend(seen, [&](Backend& self) { device = self.device; });
            if (row.next.empty()) {
                EXPECT_TRUE(watcher_ends());
                EXPECT_TRUE(JovuUsb::list_connected().empty() && seen.entries().empty());
            } else {
                EXPECT_TRUE(seen.wait(row.next));
                EXPECT_TRUE(eventually([] {
                    return write("x").empty() || write("x", {1, 6}).empty();
                }));
            }
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  row.error.empty() ? "" : fatal("Failed to " + row.error + "."));
        finish();
    }
}

/// @return the state of each attached device, in the order of their ports: "1-1 open".
std::vector<std::string> states() {
    std::vector<std::string> states;
    for (const JovuDeviceInfo& device : JovuUsb::list_devices())
        states.push_back(device.port + " " + jovu_state_name(device.state));
    std::sort(states.begin(), states.end());
    return states;
}

TEST_F(Watcher, OpensWhatTheFilterMatchesAndReportsWhatItCannotOpen) {
    fake_usb::plug(1, 6, 0x0002, 0x7A1C, 2);
    fake_usb::plug(1, 7, 0x0003, 0x7A1C, 3);
    const auto filter = [] { return JovuDeviceFilter(); };
    {
        EXPECT_THAT(states(), ElementsAre("1-2 waiting", "1-3 other_kind"));
        JovuUsb::set_device_filter(filter().add_port("1-1").add_serial("S"));
        const Backend backend(journal);
        EXPECT_THAT(states(), ElementsAre("1-1 open", "1-2 left_out", "1-3 other_kind"));
        EXPECT_EQ(fake_usb::calls(Call::open), 1U) << "the other one is not opened";

        // The new filter wakes the watcher. A reason is reported again only after another one.
        fake_usb::script(Call::open, {kAccess, kAccess, 0, kIo});
        fake_usb::script(Call::claim, {kBusy});
        JovuUsb::set_device_filter(filter().add_address({1, 6}));
        EXPECT_TRUE(journal.wait("b-1.5") && journal.wait("a!1.6 not_permitted"));
        EXPECT_THAT(states(), ElementsAre("1-1 left_out", "1-2 not_permitted", "1-3 other_kind"));
        EXPECT_TRUE(journal.wait("b+1.6"));

        EXPECT_EQ(error_of([] { JovuUsb::reopen({1, 6}); }), "Reopen failed - Device is open.");
        JovuUsb::close({1, 6});
        EXPECT_EQ(states()[1], "1-2 closed");
        JovuUsb::reopen({1, 6});
        EXPECT_TRUE(journal.wait("b+1.6", 2));
        EXPECT_EQ(error_of([] { JovuUsb::reopen(kAddress); }),
                  "Reopen failed - Device no longer connected.");
        JovuUsb::set_device_filter(JovuDeviceFilter::none());
        EXPECT_TRUE(journal.wait("b-1.6", 2));
        JovuUsb::set_device_filter({});
        EXPECT_TRUE(journal.wait("b+1.6", 3) && journal.wait("b+1.5", 2));
        // The references to devices that are not open end before libusb is left.
        fake_usb::script(Call::open, {kAccess});
        fake_usb::plug(1, 8);
        EXPECT_TRUE(journal.wait("a!1.8 not_permitted"));
    }
    const auto all = journal.entries();
    EXPECT_EQ(std::count(all.begin(), all.end(), "a!1.6 not_permitted"), 1);
    EXPECT_EQ(std::count(all.begin(), all.end(), "a!1.6 in_use"), 1);
    EXPECT_EQ(std::count(all.begin(), all.end(), "a!1.6 failed"), 1);
    for (const char* const port : {"", "1", "1-", "-1", "1-2.", "1-2..3", "1-2-3", "1-1000", "a-1",
                                   "01-1", "1-1.1.1.1.1.1.1.1"}) {
        EXPECT_EQ(error_of([=] { filter().add_port(port); }), std::string("Not a port: ") + port);
    }
}

TEST_F(Watcher, KeepsADeviceThatCannotReceiveClosed) {
    for (const bool first : {true, false}) {
        Journal seen;
        fake_usb::script(Call::submit, first ? std::vector<Step>{kIo} : std::vector<Step>{0, kIo});
        if (!first) fake_usb::script(Call::cancel, {LIBUSB_ERROR_OTHER, LIBUSB_ERROR_OTHER});
        {
            const Backend backend(seen);
            // Last of all, writes are rejected.
            EXPECT_TRUE(eventually(
                [] { return write("x") == "Send failed - Device no longer connected."; }));
            EXPECT_FALSE(in_flight(backend.device, kMessagesIn));
            EXPECT_THAT(states(), ElementsAre("1-1 failed"));
            if (first) fake_usb::unplug(backend.device);
            EXPECT_TRUE(eventually([&] { return JovuUsb::list_connected().empty() == first; }));
        }
        EXPECT_THAT(seen.entries(), ElementsAre("a+1.5", "b+1.5"));
        finish();
    }
}

TEST_F(Watcher, OpensOneKindOnceAndListsAll) {
    fake_usb::plug(1, 6, 0x0003, 0x7A1C, 2);
    fake_usb::plug(1, 7, 0x0099, 0x7A1C, 3);
    fake_usb::plug(1, 8, 0x0002, 0x7A1D, 4);
    {
        const Backend backend(journal);
        EXPECT_EQ(fake_usb::calls(Call::open), 1U);
        JovuUsb::close(kAddress);
        const unsigned scans = fake_usb::calls(Call::list);
        ASSERT_TRUE(eventually([&] { return fake_usb::calls(Call::list) >= scans + 2; }));
        EXPECT_EQ(JovuUsb::list_connected().size(), 1U);
        fake_usb::unplug(backend.device);
        ASSERT_TRUE(eventually([] { return JovuUsb::list_connected().empty(); }));
        libusb_device* const second = fake_usb::plug(1, 5);
        ASSERT_TRUE(journal.wait("b+1.5", 2));
        // One that left unnoticed is reported before the one that has come to its address.
        fake_usb::unplug(second, true);
        fake_usb::plug(1, 5);
        ASSERT_TRUE(journal.wait("b+1.5", 3));
    }
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5", "a+1.5", "b+1.5",
                                               "a-1.5", "b-1.5", "a+1.5", "b+1.5", "a-1.5"));
    std::vector<std::pair<int, int>> kinds;
    for (const JovuUsbDevice& device : JovuUsb::list_attached())
        kinds.emplace_back(device.type, device.port);
    EXPECT_THAT(kinds,
                testing::UnorderedElementsAre(std::pair(1, 1), std::pair(2, 2), std::pair(0, 3)));
}

TEST_F(Watcher, AClosingThreadWaitsForTheConnectedNotifications) {
    std::future<void> closing;
    {
        const Backend backend(journal, [&](Backend& self) {
            self.messages.then = [&](char what, unsigned char*) {
                if (what != '+') return;
                closing = std::async(std::launch::async, [] { JovuUsb::close(kAddress); });
                EXPECT_TRUE(waits(closing));
            };
        });
        ASSERT_TRUE(journal.wait("b-1.5"));
        closing.get();
        EXPECT_FALSE(in_flight(backend.device, kMessagesIn));
    }
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5", "a-1.5", "b-1.5"));
}

TEST_F(Watcher, ADeviceThatTakesNoDataIsSilentOnceItsCloseIsNotifiedAndDelaysNoOther) {
    Backend backend(journal);
    backend.messages.then = [](char what, unsigned char*) {
        if (what == '<') JovuUsb::close(kAddress);
    };
    fake_usb::hold_bulk(true);
    auto stuck = std::async(std::launch::async, [] { return write("x"); });
    ASSERT_TRUE(eventually([] { return !fake_usb::sent().empty(); }));
    ASSERT_TRUE(complete(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "close"));
    ASSERT_TRUE(journal.wait("b-1.5"));
    libusb_device* const healthy = fake_usb::plug(1, 6);
    ASSERT_TRUE(journal.wait("b+1.6"));
    EXPECT_TRUE(eventually([&] { return !in_flight(backend.device, kMessagesIn); }));
    EXPECT_TRUE(in_flight(healthy, kMessagesIn));
    EXPECT_TRUE(waits(stuck));
    EXPECT_EQ(write("y"), "Send failed - Device no longer connected.");
    JovuUsb::close({1, 6});
    fake_usb::hold_bulk(false);
    EXPECT_EQ(stuck.get(), "");
}

TEST_F(Watcher, EndsWithWhatAClientThrowsAndNotifiesTheOthersOfADisconnection) {
    const struct {
        char callback;  ///< As in the journal.
        std::function<void()> thrower;
        const char* error;
    } rows[] = {
        {'<', [] { throw std::runtime_error(write("x")); }, "Send failed - libusb error: -6"},
        {'<', [] { throw JovuException(write("") + "not now"); }, "not now"},
        {'<', [] { throw 42; }, "UNKNOWN"},
        {'-', [] { throw JovuException(); }, "Unknown JoVu Error"},
        {'+',
         [] {
             Journal other;
             throw JovuException(error_of([&other] { BackendClient(other, "d", 0); }));
         },
         "Register failed - called from inside a callback."},
    };
    std::map<char, std::vector<std::string>> entries{
        {'<', {"a+1.5", "c+1.5", "b+1.5", "a<1.5 x", "a-1.5", "c-1.5"}},
        {'-', {"a+1.5", "c+1.5", "b+1.5", "a-1.5", "c-1.5", "b-1.5"}},
        {'+', {"a+1.5", "a-1.5", "c-1.5", "b-1.5"}},
    };
    for (const auto& [callback, thrower, error] : rows) {
        Journal seen;
        testing::internal::CaptureStdout();
        {
            std::optional<BackendClient> another;
            const Backend backend(seen, [&, callback = callback, thrower = thrower](Backend& self) {
                self.messages.then = [=](char what, unsigned char*) {
                    if (what == callback) thrower();
                };
                another.emplace(seen, "c", 0);
            });
            EXPECT_TRUE(callback == '+' || seen.wait("b+1.5"));
            if (callback == '-') fake_usb::unplug(backend.device);
            complete(backend.device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x");
            EXPECT_TRUE(watcher_ends());
            EXPECT_FALSE(in_flight(backend.device, kMessagesIn)) << "not resubmitted";
            EXPECT_EQ(JovuUsb::list_connected().size(), callback == '<' ? 1U : 0U);
        }
        EXPECT_EQ(testing::internal::GetCapturedStdout(), fatal(error));
        EXPECT_EQ(seen.entries(), entries[callback]);
        finish();
    }
}

/// The pause begins in the middle of a scan; or of an opening, which it waits for.
TEST_F(Watcher, OpensNothingDuringAScanPause) {
    for (const Call call : {Call::list, Call::claim}) {
        Journal seen;
        std::optional<JovuScanPause> pause;
        std::vector<std::string> before;
        std::future<void> pausing;
        const auto begin_pause = [&] {
            pausing = std::async(std::launch::async, [&] {
                pause.emplace();
                before = seen.entries();
            });
            if (call == Call::list) return pausing.wait();
            EXPECT_TRUE(waits(pausing));
        };
        fake_usb::script(call, {{0, begin_pause}});
        fake_usb::plug(1, 5);
        std::optional<BackendClient> client(std::in_place, seen, "a", 0);
        ASSERT_TRUE(eventually([] { return fake_usb::calls(Call::handle_events) > 5; }));
        pausing.get();
        const unsigned scans = fake_usb::calls(Call::list);
        // Waits of 2 ms, for longer than the time between two scans.
        const unsigned waits_so_far = fake_usb::calls(Call::handle_events);
        ASSERT_TRUE(
            eventually([&] { return fake_usb::calls(Call::handle_events) > waits_so_far + 300; }));
        EXPECT_EQ(fake_usb::calls(Call::list), scans);
        EXPECT_EQ(seen.entries(), before);
        pause.reset();
        EXPECT_TRUE(seen.wait("a+1.5"));
        client.reset();
        finish();
    }
}

TEST_F(Watcher, IsWokenFromAnEventWaitByHotPlugToCloseAndToStop) {
    for (const bool with_device : {false, true}) {
        fake_usb::endless_event_waits = true;
        std::optional<BackendClient> client(std::in_place, journal, "a", 0);
        if (with_device) {
            // The first scan has found nothing, and no other one would be made.
            EXPECT_TRUE(eventually([] { return fake_usb::calls(Call::handle_events) > 0; }));
            libusb_device* const device = fake_usb::plug(1, 5);
            EXPECT_TRUE(journal.wait("a+1.5"));
            client->then = [](char what, unsigned char*) {
                if (what == '<') JovuUsb::close(kAddress);
            };
            EXPECT_TRUE(eventually(
                [&] { return post(device, kMessagesIn, LIBUSB_TRANSFER_COMPLETED, "x"); }));
            EXPECT_TRUE(journal.wait("a-1.5")) << "not at the next scan only";
        }
        client.reset();
        finish();
    }
}

TEST_F(Watcher, ScansAgainForANoticeThatAnotherThreadHandledDuringAScan) {
    fake_usb::plug(1, 5);
    fake_usb::script(Call::open, {{0, [] {
                                       fake_usb::plug(1, 6);
                                       // Runs the notice, then consumes its interrupt.
                                       for (int i = 0; i < 2; ++i) {
                                           jovu::handle_events(jovu::current_context(),
                                                               std::chrono::milliseconds(0),
                                                               nullptr);
                                       }
                                   }}});
    fake_usb::endless_event_waits = true;
    std::optional<BackendClient> client(std::in_place, journal, "a", 0);
    EXPECT_TRUE(journal.wait("a+1.6"));
    client.reset();
    finish();
}

TEST_F(Watcher, DoesNotSpinWhenEventHandlingFails) {
    fake_usb::script(Call::handle_events, std::vector<Step>(4, kIo));
    const auto begin = std::chrono::steady_clock::now();
    const BackendClient client(journal, "a", 0);
    EXPECT_TRUE(eventually([] { return fake_usb::calls(Call::handle_events) > 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
}

TEST_F(Watcher, MayStopInTheMiddleOfAListing) {
    Backend backend(journal);
    { const BackendClient another(journal, "c", 1); }
    EXPECT_EQ(write("x"), "") << "it is the last client of an interface that stops it";
    const auto stop = [&backend, lister = std::this_thread::get_id()] {
        if (std::this_thread::get_id() == lister) backend.jobs.reset();
    };
    fake_usb::script(Call::list, {{0, stop}});
    EXPECT_EQ(JovuUsb::list_attached().size(), 1U);
}

TEST_F(Watcher, AClientThatCannotStartTheBackendLeavesNothingBehind) {
    fake_usb::script(Call::init, {LIBUSB_ERROR_OTHER});
    EXPECT_EQ(error_of([&] { BackendClient(journal, "a", 0); }), "Failed to initialize libusb");
    EXPECT_TRUE(JovuUsb::list_connected().empty());
    const Backend backend(journal);
    EXPECT_THAT(journal.entries(), ElementsAre("a+1.5", "b+1.5"));
}

}  // namespace
}  // namespace test
