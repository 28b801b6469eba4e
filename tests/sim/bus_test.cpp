// The simulated bus as a libusb program sees it. Runs inside jovu-sim run --empty.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "firmware_host.h"
#include "libusb_host.h"

namespace jovusim::test {
namespace {

constexpr unsigned char kIn = kMessageIn;
constexpr unsigned char kOut = kMessageOut;
const std::string kStatus = R"({"metadata":{"version":1,"type":"status"}})";

std::string version_request(std::uint32_t id) {
    return FirmwareHost::framed(FirmwareHost::command(id, 0, "bio_get_version"));
}

std::string answer_to(std::uint32_t id) {
    return "\"id\":" + std::to_string(id) + "}";
}

class BusTest : public ::testing::Test {
protected:
    ~BusTest() override {
        const std::string list = sim("list");
        for (std::size_t at = 0; at < list.size();) {
            sim("unplug " + list.substr(at, list.find(' ', at) - at));
            at = list.find(", ", at);
            at = at == std::string::npos ? list.size() : at + 2;
        }
    }

    void plug(int address) {
        sim("plug 1:" + std::to_string(address));
        ASSERT_TRUE(host_.wait_for(address, true));
    }

    static Json stats(int address) {
        return Json::parse(sim("stats 1:" + std::to_string(address)));
    }

    UsbHost host_;
};

TEST_F(BusTest, RunsBothChannels) {
    plug(9);
    Handle handle = host_.claim(9);
    Reception messages(handle.get(), kIn);
    Reception job(handle.get(), kJobIn);
    EXPECT_EQ(write(handle, kOut, version_request(5)), 0);
    EXPECT_TRUE(messages.wait_for(answer_to(5)));
    EXPECT_EQ(write(handle, kJobOut, kStatus), 0);
    EXPECT_TRUE(job.wait_for("\"error\":0}"));
    sim("event 1:9 hi  there");
    EXPECT_TRUE(messages.wait_for(FirmwareHost::bytes_of("hi  there")));
    sim("frame 1:9 {\"x\": 1}");
    EXPECT_TRUE(messages.wait_for(FirmwareHost::framed("{\"x\": 1}")));
    sim("send 1:9 job 007dff");
    EXPECT_TRUE(job.wait_for(std::string("\0}\xff", 3)));
    EXPECT_EQ(messages.cancel(), LIBUSB_TRANSFER_CANCELLED);
    EXPECT_EQ(libusb_release_interface(handle.get(), 0), 0);
    EXPECT_EQ(stats(9)["complaints"]["count"], 0);
    EXPECT_EQ(stats(9)["clients"], 1);
}

TEST_F(BusTest, DescribesTheDevice) {
    plug(9);
    int error = 0;
    Handle handle = host_.open(9, error);
    ASSERT_TRUE(handle);
    libusb_device* device = libusb_get_device(handle.get());
    EXPECT_EQ(libusb_get_bus_number(device), 1);
    EXPECT_EQ(libusb_get_port_number(device), 9);
    unsigned char text[64];
    EXPECT_EQ(libusb_get_string_descriptor_ascii(handle.get(), 3, text, sizeof text), 9);
    EXPECT_EQ(std::string(text, text + 9), "JVS001009");
    libusb_config_descriptor* config = nullptr;
    ASSERT_EQ(libusb_get_active_config_descriptor(device, &config), 0);
    ASSERT_EQ(config->bNumInterfaces, 2);
    const unsigned char endpoints[2][2] = {{0x81, 0x02}, {0x83, 0x04}};
    for (int i = 0; i < 2; ++i) {
        const auto& setting = config->interface[i].altsetting[0];
        ASSERT_EQ(setting.bNumEndpoints, 2);
        for (int k = 0; k < 2; ++k) {
            EXPECT_EQ(setting.endpoint[k].bEndpointAddress, endpoints[i][k]);
            EXPECT_EQ(setting.endpoint[k].wMaxPacketSize, 64);
        }
    }
    libusb_free_config_descriptor(config);
}

TEST_F(BusTest, AProgramThatWaitsDoesNotAsk) {
    plug(9);
    Handle handle = host_.claim(9);
    Reception messages(handle.get(), kIn);
    const auto before = stats(9)["ioctls"].get<int>();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(stats(9)["ioctls"].get<int>(), before);
}

TEST_F(BusTest, UnpluggingEndsTransfersOfThatDeviceOnly) {
    plug(9);
    plug(10);
    Handle handle = host_.claim(9);
    Handle other = host_.claim(10);
    Reception messages(handle.get(), kIn);
    Reception job(handle.get(), kJobIn);
    Reception alive(other.get(), kIn);
    sim("unplug 1:9");
    EXPECT_EQ(messages.wait_for_end(), LIBUSB_TRANSFER_NO_DEVICE);
    EXPECT_EQ(job.wait_for_end(), LIBUSB_TRANSFER_NO_DEVICE);
    EXPECT_TRUE(host_.wait_for(9, false));
    EXPECT_EQ(write(handle, kOut, "x"), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(write(other, kOut, version_request(1)), 0);
    EXPECT_TRUE(alive.wait_for(answer_to(1)));
}

TEST_F(BusTest, AReplacedDeviceIsAnotherOne) {
    plug(9);
    for (int round = 0; round < 5; ++round) {
        Handle old = host_.claim(9);
        Reception messages(old.get(), kIn);
        EXPECT_EQ(write(old, kOut, version_request(1)), 0);
        EXPECT_TRUE(messages.wait_for(answer_to(1)));
        sim("replug 1:9");
        EXPECT_EQ(messages.wait_for_end(), LIBUSB_TRANSFER_NO_DEVICE);
        EXPECT_EQ(write(old, kOut, "x"), LIBUSB_ERROR_NO_DEVICE);
        // Until libusb has taken both notices in, the list may still hold the old one.
        Handle handle;
        for (int tries = 0; !handle && tries < 1000; ++tries) {
            int error = 0;
            Handle candidate = host_.open(9, error);
            if (candidate && libusb_claim_interface(candidate.get(), 0) == 0) {
                handle = std::move(candidate);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        ASSERT_TRUE(handle);
        Reception fresh(handle.get(), kIn);
        EXPECT_EQ(write(handle, kOut, version_request(2)), 0);
        EXPECT_TRUE(fresh.wait_for(answer_to(2)));
        EXPECT_EQ(stats(9)["message"]["answers"], 1);
    }
}

TEST_F(BusTest, UnplugsItselfInTheMiddleOfAWrite) {
    plug(9);
    Handle handle = host_.claim(9);
    Reception messages(handle.get(), kIn);
    sim("fault 1:9 unplug-at 04 6000");
    EXPECT_EQ(write(handle, kJobOut, std::string(5120, '\n')), 0);
    int transferred = 0;
    EXPECT_EQ(write(handle, kJobOut, std::string(5120, '\n'), &transferred),
              LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(messages.wait_for_end(), LIBUSB_TRANSFER_NO_DEVICE);
    EXPECT_TRUE(host_.wait_for(9, false));
    EXPECT_EQ(sim("list"), "");
    plug(9);
    EXPECT_TRUE(host_.claim(9));
}

TEST_F(BusTest, ClaimsArePerOpenFile) {
    plug(9);
    Handle first = host_.claim(9);
    int error = 0;
    Handle second = host_.open(9, error);
    ASSERT_TRUE(second);
    EXPECT_EQ(libusb_claim_interface(second.get(), 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_claim_interface(second.get(), 1), 0);
    EXPECT_EQ(write(first, kJobOut, "\n"), LIBUSB_ERROR_IO);  // interface 1 is the other's
    first.reset();
    EXPECT_EQ(libusb_claim_interface(second.get(), 0), 0);
    EXPECT_EQ(stats(9)["refused_claims"], 2);
}

TEST_F(BusTest, AFileThatWasClosedHoldsNothing) {
    plug(9);
    for (std::uint32_t round = 0; round < 20; ++round) {
        Handle handle = host_.claim(9);
        // Interface 1 is claimed by its first use and never released but by closing.
        Reception job(handle.get(), kJobIn);
        EXPECT_EQ(write(handle, kJobOut, kStatus), 0) << round;
        EXPECT_TRUE(job.wait_for("\"error\":0}")) << round;
    }
    EXPECT_EQ(stats(9)["refused_claims"], 0);
}

TEST_F(BusTest, FaultsOfTheBusReachLibusb) {
    plug(9);
    int error = 0;
    Handle handle = host_.open(9, error);
    sim("fault 1:9 claim EBUSY");
    EXPECT_EQ(libusb_claim_interface(handle.get(), 0), LIBUSB_ERROR_BUSY);
    EXPECT_EQ(libusb_claim_interface(handle.get(), 0), 0);
    const struct {
        const char* fault;
        int result;
    } cases[] = {
        {"submit 02 EIO", LIBUSB_ERROR_IO},           {"submit 02 ENOMEM", LIBUSB_ERROR_NO_MEM},
        {"submit 02 ENODEV", LIBUSB_ERROR_NO_DEVICE}, {"status 02 EPIPE", LIBUSB_ERROR_PIPE},
        {"status 02 EPROTO", LIBUSB_ERROR_IO},        {"never 02", LIBUSB_ERROR_TIMEOUT},
    };
    for (const auto& c : cases) {
        sim(std::string("fault 1:9 ") + c.fault);
        EXPECT_EQ(write(handle, kOut, "\n"), c.result) << c.fault;
        EXPECT_EQ(write(handle, kOut, "\n"), 0) << c.fault;
    }
    for (const auto& [fault, status] : {std::pair("status 81 EPIPE", LIBUSB_TRANSFER_STALL),
                                        std::pair("status 81 ENODEV", LIBUSB_TRANSFER_NO_DEVICE),
                                        std::pair("status 81 EPROTO", LIBUSB_TRANSFER_ERROR)}) {
        sim(std::string("fault 1:9 ") + fault);
        Reception messages(handle.get(), kIn);
        EXPECT_EQ(messages.wait_for_end(), status) << fault;
    }
    sim("fault 1:9 open");
    host_.open(9, error);
    EXPECT_EQ(error, LIBUSB_ERROR_IO);
    sim("fault 1:9 clear");
    EXPECT_TRUE(host_.open(9, error));
}

TEST_F(BusTest, FaultsOfTheFirmwareReachTheHost) {
    plug(9);
    Handle handle = host_.claim(9);
    Reception messages(handle.get(), kIn);
    sim("fault 1:9 delay 200");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(write(handle, kOut, version_request(1)), 0);
    EXPECT_TRUE(messages.wait_for("}}};"));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(199));
    sim("fault 1:9 clear");
    sim("fault 1:9 split 7");
    messages.forget();
    EXPECT_EQ(write(handle, kOut, version_request(2)), 0);
    EXPECT_TRUE(messages.wait_for("}}};"));
    for (const int size : messages.sizes())
        EXPECT_LE(size, 7);
    sim("fault 1:9 clear");
    messages.forget();
    sim("fault 1:9 flood message 200");
    EXPECT_TRUE(messages.wait_for(FirmwareHost::bytes_of("flood 199")));
    EXPECT_EQ(FirmwareHost::messages(messages.received()).size(), 200U);
    messages.forget();
    sim("fault 1:9 garbage message 1000");
    EXPECT_TRUE(messages.wait_for(std::size_t{1000}));
}

TEST_F(BusTest, RefusesBadRequestsNamingTheValue) {
    plug(9);
    const struct {
        const char* request;
        const char* named;
    } cases[] = {
        {"", "request"},
        {"dance", "dance"},
        {"plug 1:9", "1:9"},
        {"plug 0:3", "0:3"},
        {"plug 1:128", "1:128"},
        {"plug 1:", "1:"},
        {"plug 1:3 1:4", "1:4"},
        {"plug product=zz", "zz"},
        {"plug product=10000", "10000"},
        {"unplug", "BUS:ADDR"},
        {"unplug 1:8", "1:8"},
        {"list all", "all"},
        {"stats 9", "9"},
        {"send 1:9 radio 00", "radio"},
        {"send 1:9 job 0", "0"},
        {"send 1:9 job 0g", "0g"},
        {"fault 1:9", "FAULT"},
        {"fault 1:9 dance", "dance"},
        {"fault 1:9 claim EWRONG", "EWRONG"},
        {"fault 1:9 claim 16", "16"},
        {"fault 1:9 submit 05 EIO", "5"},
        {"fault 1:9 submit 02 EIO 0", "0"},
        {"fault 1:9 submit 02 EIO 1 -1", "-1"},
        {"fault 1:9 submit 02 EIO 1 2 3", "3"},
        {"fault 1:9 silent often", "often"},
        {"fault 1:9 delay 1.5", "1.5"},
        {"fault 1:9 split 65", "65"},
        {"fault 1:9 deep 32001", "32001"},
        {"fault 1:9 corrupt all", "all"},
        {"fault 1:9 unplug-at 81 4", "OUT"},
    };
    for (const auto& c : cases) {
        const std::string reply = control(c.request);
        EXPECT_EQ(reply.rfind("error ", 0), 0U) << c.request << ": " << reply;
        EXPECT_NE(reply.find(c.named), std::string::npos) << c.request << ": " << reply;
    }
    EXPECT_EQ(control("event 1:9 " + std::string(12001, 'x')).rfind("error ", 0), 0U);
    EXPECT_EQ(control("frame 1:9 " + std::string(70000, 'x')).rfind("error ", 0), 0U);
    EXPECT_EQ(sim("list"), "1:9 product=0002 serial=JVS001009 clients=0");
}

}  // namespace
}  // namespace jovusim::test
