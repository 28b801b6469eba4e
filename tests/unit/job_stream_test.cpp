/// @file
/// The stream of the job channel, and what becomes of it.
#include "jobs/job_stream.h"

#include <algorithm>
#include <random>

#include "fake_usb/link_test.h"
#include "support/heap.h"
#include "support/recording_client.h"

namespace {

std::optional<std::string> append(jovu::JobStream& stream, const std::string& bytes) {
    return stream.append(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

/// Counts all braces that wait, every time; @return what one call of JobStream::append() gives.
std::optional<std::string> cut_simply(std::string& waiting, const std::string& bytes) {
    waiting += bytes;
    int opened = 0;
    int closed = 0;
    for (std::size_t i = 0; i < waiting.size(); ++i) {
        opened += waiting[i] == '{' ? 1 : 0;
        closed += waiting[i] == '}' ? 1 : 0;
        if (closed < opened || closed == 0) continue;
        const std::string head = waiting.substr(0, i + 1);
        waiting.erase(0, i + 1);
        if (closed > opened) return std::nullopt;
        return head;
    }
    return std::nullopt;
}

TEST(JobStream, CutsOneObjectPerCallByItsBracesAsTheSimplestWayDoes) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        std::mt19937 random(seed);
        const auto below = [&random](std::size_t limit) { return random() % limit; };
        const std::string alphabet = seed % 2 == 0 ? "{}a" : "{}{}\"\\ \n1";
        jovu::JobStream stream;
        std::string waiting;
        for (int call = 0; call < 60; ++call) {
            std::string bytes;
            for (std::size_t size = below(seed % 3 == 0 ? 3 : 20); size > 0; --size)
                bytes.push_back(alphabet[below(alphabet.size())]);
            ASSERT_EQ(append(stream, bytes), cut_simply(waiting, bytes)) << "seed " << seed;
            ASSERT_EQ(stream.size(), waiting.size()) << "seed " << seed;
        }
    }
}

TEST(JobStream, KeepsABacklogUpToItsLimitAndThenStartsAfresh) {
    jovu::JobStream stream;
    EXPECT_FALSE(append(stream, "{"));
    const std::string most(jovu::kMaxJobBacklog - 2, 'x');
    for (std::size_t at = 0; at < most.size(); at += 64)
        ASSERT_FALSE(append(stream, most.substr(at, 64)));
    const auto whole = append(stream, "}");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->size(), jovu::kMaxJobBacklog);
    EXPECT_EQ(stream.size(), 0U);

    EXPECT_FALSE(append(stream, "{" + most + "x"));
    EXPECT_EQ(append(stream, "{1}"), "{1}") << "one byte too many drops what waits";
    std::size_t largest = 0;
    for (int i = 0; i < 50000; ++i) {
        EXPECT_EQ(append(stream, "{1}{1}{1}{1}{1}{1}{1}{1}{1}{1}"), "{1}");
        largest = std::max(largest, stream.size());
    }
    EXPECT_LE(largest, jovu::kMaxJobBacklog) << "also when it is all complete objects";
    stream.clear();
    EXPECT_EQ(append(stream, "{2}"), "{2}");
}

using JobInterface = test::LinkTest;

TEST_F(JobInterface, ReceivesWhateverComesAndFreesItWhenTheDeviceLeaves) {
    libusb_device* const device = fake_usb::plug(1, 5);
    test::RecordingClient client;
    ASSERT_TRUE(test::eventually([&] { return fake_usb::in_flight(device, test::kJobsIn); }));
    const auto send = [&](const std::string& bytes) {
        return fake_usb::complete(device, test::kJobsIn, LIBUSB_TRANSFER_COMPLETED, bytes);
    };
    for (const char* const bytes :
         {"}", R"({"metadata":{"type":"other"}})", R"({"metadata":{"type":7}})", "not json {}",
          R"({"metadata":{"type":"status"},"status":{"state":"on"}})"})
        ASSERT_TRUE(send(bytes));
    EXPECT_EQ(client.job_texts().size(), 4U) << "all but the stray brace";
    EXPECT_EQ(client.job_texts().at(2), "not json {}");
    ASSERT_EQ(client.statuses().size(), 1U);
    EXPECT_EQ(client.statuses()[0].state, "on");

    const std::size_t before_data = test::heap_in_use();
    for (int i = 0; i < 2000; ++i)
        ASSERT_TRUE(send("{" + std::string(63, 'x')));
    EXPECT_GT(test::heap_in_use(), before_data + 100000);
    // What comes behind the notification is no part of what the next device sends.
    test::LinkClient last(journal, "c", 1);
    last.on_disconnected = [&] {
        EXPECT_TRUE(fake_usb::post(device, test::kJobsIn, LIBUSB_TRANSFER_COMPLETED, "{late"));
    };
    fake_usb::unplug(device, true);
    ASSERT_TRUE(test::eventually([] { return JovuUsb::list_connected().empty(); }));
    EXPECT_LT(test::heap_in_use(), before_data + 50000);
    libusb_device* const next = fake_usb::plug(1, 5);
    ASSERT_TRUE(test::eventually([&] { return fake_usb::in_flight(next, test::kJobsIn); }));
    ASSERT_TRUE(fake_usb::complete(next, test::kJobsIn, LIBUSB_TRANSFER_COMPLETED, "{1}"));
    EXPECT_EQ(client.job_texts().back(), "{1}");
}

}  // namespace
