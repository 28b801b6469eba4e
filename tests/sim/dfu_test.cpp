// The boot loader: downloads, and the ways between it and the application.
#include <gtest/gtest.h>

#include <functional>

#include "firmware/usb/dfu_device.h"
#include "firmware/usb/firmware_image.h"
#include "firmware_host.h"

namespace jovusim::test {
namespace {

using Response = std::optional<std::string>;

/// A host that speaks DFU, without any bus.
class DfuHost {
public:
    explicit DfuHost(const DfuFaults& faults = {})
        : device({"JVSTEST", kApplicationProduct, 1.0}, faults) {}

    Response out(std::uint8_t request, std::uint16_t value = 0, const std::string& data = "") {
        return device.control({0x21, request, value, 0, static_cast<std::uint16_t>(data.size())},
                              data, now);
    }
    Response in(std::uint8_t request, std::uint16_t length) {
        return device.control({0xA1, request, 0, 0, length}, "", now);
    }

    Response download(std::uint16_t block, const std::string& data) { return out(1, block, data); }

    struct Status {
        int status;
        int wait;
        int state;
    };
    Status status() {
        const Response response = in(3, 6);
        if (!response || response->size() != 6) return {-1, -1, -1};
        const auto byte = [&response](std::size_t i) {
            return static_cast<int>(static_cast<unsigned char>((*response)[i]));
        };
        return {byte(0), byte(1) | byte(2) << 8 | byte(3) << 16, byte(4)};
    }

    /// Waits as long as the device asks for. Returns how it is then.
    Status settled() {
        for (int i = 0; i < 10; ++i) {
            const Status got = status();
            if (got.state != kBusy && got.state != kManifest) return got;
            now += got.wait;
        }
        return {-1, -1, -1};
    }

    /// As dfu-util does: returns the status at the first error or at the end.
    Status download_all(const std::string& image) {
        std::uint16_t block = 0;
        for (std::size_t at = 0; at < image.size(); at += 1024, ++block) {
            if (!download(block, image.substr(at, 1024))) return status();
            const Status got = settled();
            if (got.state != kDownloadIdle) return got;
        }
        download(block, "");
        return settled();
    }

    static constexpr int kIdle = 2;
    static constexpr int kBusy = 4;
    static constexpr int kDownloadIdle = 5;
    static constexpr int kManifest = 7;
    static constexpr int kWaitReset = 8;
    static constexpr int kError = 10;

    DfuDevice device;
    Millis now = 1000;
};

TEST(FirmwareImage, IsCheckedAsAWhole) {
    const std::string good = make_firmware_image("2.0.1", 5000);
    EXPECT_EQ(check_firmware_image(good), ImageError::none);
    EXPECT_EQ(check_firmware_image(good + "more"), ImageError::none);
    for (const std::size_t at : {std::size_t{9}, std::size_t{13}, std::size_t{4999}}) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 1);
        EXPECT_EQ(check_firmware_image(bad), ImageError::damaged) << at;
    }
    const std::string longest = std::string(63, '~') + ' ';
    const std::pair<std::string, std::size_t> sizes[] = {
        {"2.0.1", 18}, {longest, 77}, {"2.0.1", kLargestImage}};
    for (const auto& [version, size] : sizes) {
        std::string image = make_firmware_image(version, size);
        EXPECT_EQ(image.size(), size);
        EXPECT_EQ(check_firmware_image(image), ImageError::none);
        EXPECT_EQ(check_firmware_image(image.substr(0, 13)), ImageError::incomplete);
        EXPECT_EQ(check_firmware_image(image.substr(0, 12)), ImageError::foreign);
        image[12] = 65;
        EXPECT_EQ(check_firmware_image(image), ImageError::foreign);
        image[12] = 0;
        EXPECT_EQ(check_firmware_image(image), ImageError::foreign);
    }
    EXPECT_THROW(make_firmware_image("", 5000), std::invalid_argument);
    EXPECT_THROW(make_firmware_image(longest + "x", 5000), std::invalid_argument);
    EXPECT_THROW(make_firmware_image("1\n", 5000), std::invalid_argument);
    EXPECT_THROW(make_firmware_image("1\x7F", 5000), std::invalid_argument);
    EXPECT_THROW(make_firmware_image("2.0.1", 17), std::invalid_argument);
    EXPECT_THROW(make_firmware_image("2.0.1", kLargestImage + 1), std::invalid_argument);
}

TEST(Dfu, DoesNotBootWhatIsNotSound) {
    const std::string good = make_firmware_image("2.0.1", 5000);
    std::string damaged = good;
    damaged[4500] = static_cast<char>(damaged[4500] ^ 1);
    DfuFaults write_error;
    write_error.write_error = 2;
    const struct {
        const char* what;
        std::string image;
        DfuFaults faults;
        int status;
    } cases[] = {
        {"no image", std::string(3000, 'x'), {}, 0x0A},
        {"a damaged one", damaged, {}, 0x07},
        {"half of one", good.substr(0, 2500), {}, 0x09},
        {"a block that cannot be written", good, write_error, 0x03},
    };
    for (const auto& c : cases) {
        DfuHost host(c.faults);
        const auto end = host.download_all(c.image);
        EXPECT_EQ(end.state, DfuHost::kError) << c.what;
        EXPECT_EQ(end.status, c.status) << c.what;
        EXPECT_FALSE(host.download(0, "x")) << c.what;
        host.device.bus_reset(host.now);
        EXPECT_FALSE(host.device.next_tick()) << c.what << ": there is nothing to boot";
        host.device.dfu_faults() = {};
        EXPECT_EQ(host.status().state, DfuHost::kIdle) << c.what;
        EXPECT_EQ(host.download_all(good).state, DfuHost::kWaitReset) << c.what;
    }
}

TEST(Dfu, StallsWhatDoesNotFitItsState) {
    const std::string image = make_firmware_image("1", 1024);
    const std::function<void(DfuHost&)> ways[] = {
        [](DfuHost&) {},
        [](DfuHost& host) { host.in(2, 1); },
        [&](DfuHost& host) { host.download(0, image); },
        [&](DfuHost& host) { host.download(0, image), host.status(); },
        [&](DfuHost& host) { host.download(0, image), host.settled(); },
        [&](DfuHost& host) { host.download(0, image), host.settled(), host.download(1, ""); },
        [&](DfuHost& host) {
            host.download(0, image), host.settled(), host.download(1, ""), host.status();
        },
        [&](DfuHost& host) { host.download_all(image); },
        [](DfuHost& host) { host.download(0, ""); },
    };
    const struct {
        const char* what;
        std::uint8_t request;
        std::uint16_t value;
        std::string data;
        const char* taken;  ///< y for each of the ways
    } cases[] = {
        {"detach", 0, 1000, "", "y------y-"},
        {"a download without data", 1, 1, "", "----y----"},
        {"a block", 1, 0, std::string(1024, 'x'), "y--------"},
        {"the next block", 1, 1, "x", "----y----"},
        {"a block too large", 1, 0, std::string(1025, 'x'), "---------"},
        {"clear status", 4, 0, "", "--------y"},
        {"abort", 6, 0, "", "yyyyyy---"},
        {"no such request", 7, 0, "", "---------"},
    };
    for (const auto& c : cases) {
        std::string taken;
        for (const auto& way : ways) {
            DfuHost host;
            way(host);
            host.device.take_violations();
            const bool fits = host.out(c.request, c.value, c.data).has_value();
            taken += fits ? 'y' : '-';
            EXPECT_EQ(host.device.take_violations().size(), fits ? 0U : 1U) << c.what;
            if (fits) continue;
            EXPECT_EQ(host.status().state, DfuHost::kError) << c.what;
            EXPECT_EQ(host.status().status, 0x0F) << c.what;
            EXPECT_TRUE(host.out(4)) << c.what;
            EXPECT_EQ(host.status().state, DfuHost::kIdle) << c.what;
        }
        EXPECT_EQ(taken, c.taken) << c.what;
    }
}

TEST(Dfu, KeepsItsTimes) {
    DfuHost host;
    EXPECT_EQ(host.device.identity().interfaces.at(0).extra,
              std::string("\x09\x21\x0B\xE8\x03\x00\x04\x10\x01", 9));
    host.download(0, make_firmware_image("2.5", 1024));
    const Millis begin = host.now;
    const int states[] = {DfuHost::kBusy, DfuHost::kBusy, DfuHost::kDownloadIdle};
    for (const int state : states) {
        const DfuHost::Status got = host.status();
        EXPECT_EQ(got.state, state);
        EXPECT_EQ(got.wait, begin + 2 - host.now++);
    }
    host.download(1, "");
    EXPECT_EQ(host.status().wait, 100);
    host.now += 100;
    EXPECT_EQ(host.status().state, DfuHost::kWaitReset);
    EXPECT_TRUE(host.out(0));
    EXPECT_FALSE(host.in(5, 1)) << "it starts anew";
    EXPECT_FALSE(host.device.disconnect_due(host.now + 149));
    EXPECT_TRUE(host.device.disconnect_due(host.now + 150));
    EXPECT_EQ(host.device.successor()->stats(host.now)["version"], "2.5");
}

TEST(Dfu, UploadsTheFirmwareThatItHas) {
    DfuHost host;
    std::string image;
    for (;;) {
        const Response part = host.in(2, 1000);
        ASSERT_TRUE(part);
        image += *part;
        if (part->size() < 1000) break;
    }
    EXPECT_TRUE(image == make_firmware_image("1.0.0"));
    EXPECT_EQ(host.status().state, DfuHost::kIdle);
}

}  // namespace
}  // namespace jovusim::test
