// SPDX-License-Identifier: Apache-2.0

// The boot loader: downloads, and the ways between it and the application.
#include <gtest/gtest.h>

#include <array>

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

    /// State, status and the time to wait.
    using Status = std::array<int, 3>;
    Status status() {
        const Response response = in(3, 6);
        const std::string& got = response.value();
        const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(got.at(i)); };
        return {byte(4), byte(0), byte(1) | byte(2) << 8 | byte(3) << 16};
    }
    int state() { return status()[0]; }

    /// Waits longer than anything takes. Returns the status after that.
    Status settled() {
        for (int looks = 0; looks < 2; ++looks) {
            status();
            now += 1000;
        }
        return status();
    }

    /// As dfu-util does: returns the status at the first error or at the end.
    Status download_all(const std::string& image) {
        std::uint16_t block = 0;
        for (std::size_t at = 0; at < image.size(); at += 1024, ++block) {
            download(block, image.substr(at, 1024));
            const Status got = settled();
            if (got[0] != kDownloadIdle) return got;
        }
        download(block, "");
        return settled();
    }

    enum State { kIdle = 2, kBusy = 4, kDownloadIdle, kManifest = 7, kWaitReset, kError = 10 };

    DfuDevice device;
    Millis now = 1000;
};

TEST(FirmwareImage, IsCheckedAsAWhole) {
    const std::string longest = std::string(63, '~') + ' ';
    const std::pair<std::string, std::size_t> sizes[] = {
        {"2.0.1", 18}, {"2.0.1", 5000}, {longest, 77}, {"2.0.1", kLargestImage}};
    for (const auto& [version, size] : sizes) {
        const std::string image = make_firmware_image(version, size);
        EXPECT_EQ(image.size(), size);
        EXPECT_EQ(check_firmware_image(image + "more"), ImageError::none);
        EXPECT_EQ(check_firmware_image(image.substr(0, 13)), ImageError::incomplete);
        EXPECT_EQ(check_firmware_image(image.substr(0, 12)), ImageError::foreign);
        const auto with = [image = image](std::size_t at, int byte) {
            return check_firmware_image(
                std::string(image).replace(at, 1, 1, static_cast<char>(byte)));
        };
        EXPECT_EQ(with(12, 65), ImageError::foreign);
        EXPECT_EQ(with(12, 0), ImageError::foreign);
        for (const std::size_t at : {std::size_t{9}, std::size_t{13}, size - 1})
            EXPECT_EQ(with(at, image[at] ^ 1), ImageError::damaged) << at;
    }
    const std::pair<std::string, std::size_t> invalid[] = {
        {"", 5000},      {longest + "x", 5000}, {"1\n", 5000},
        {"1\x7F", 5000}, {"2.0.1", 17},         {"2.0.1", kLargestImage + 1}};
    for (const auto& [version, size] : invalid)
        EXPECT_THROW(make_firmware_image(version, size), std::invalid_argument) << version << size;
}

TEST(Dfu, DoesNotBootWhatIsNotSound) {
    const std::string good = make_firmware_image("2.0.1", 5000);
    const std::string damaged = std::string(good).replace(4500, 1, good[4500] == 'x' ? "y" : "x");
    DfuFaults write_error;
    write_error.write_error = 2;
    const std::tuple<std::string, DfuFaults, int> cases[] = {
        {std::string(3000, 'x'), {}, 0x0A},
        {damaged, {}, 0x07},
        {good.substr(0, 2500), {}, 0x09},
        {good, write_error, 0x03},
    };
    for (const auto& [image, faults, status] : cases) {
        DfuHost host(faults);
        EXPECT_EQ(host.download_all(image), (DfuHost::Status{DfuHost::kError, status, 0}));
        EXPECT_FALSE(host.download(0, "x")) << status;
        host.device.bus_reset(host.now);
        EXPECT_FALSE(host.device.disconnect_due(host.now + 1000)) << "there is nothing to boot";
        host.device.dfu_faults() = {};
        EXPECT_EQ(host.status(), (DfuHost::Status{DfuHost::kIdle, 0, 0})) << status;
        EXPECT_EQ(host.download_all(good)[0], DfuHost::kWaitReset) << status;
    }
}

/// Brings a device into a state: u uploads a byte, 0 downloads the image, 1 ends the download, s
/// asks for the status, w waits as long as the device asks for, e downloads nothing.
void bring(DfuHost& host, const std::string& way) {
    for (const char step : way) {
        if (step == 'u') host.in(2, 1);
        if (step == '0') host.download(0, make_firmware_image("1", 1024));
        if (step == '1') host.download(1, "");
        if (step == 's') host.status();
        if (step == 'w') host.settled();
        if (step == 'e') host.download(0, "");
    }
}

TEST(Dfu, StallsWhatDoesNotFitItsState) {
    const char* const ways[] = {"", "u", "0", "0s", "0w", "0w1", "0w1s", "0w1w", "e"};
    // A request with its value and data; y for each of the ways after which it is carried out.
    const std::tuple<std::uint8_t, std::uint16_t, std::string, std::string> cases[] = {
        {0, 1000, "", "y------y-"},                   // detach
        {1, 1, "", "----y----"},                      // a download without data
        {1, 0, std::string(1024, 'x'), "y--------"},  // a block
        {1, 1, "x", "----y----"},                     // the next block
        {1, 0, std::string(1025, 'x'), "---------"},  // a block too large
        {4, 0, "", "--------y"},                      // clear status
        {6, 0, "", "yyyyyy---"},                      // abort
        {7, 0, "", "---------"},                      // unknown
    };
    for (const auto& [request, value, data, expected] : cases) {
        std::string taken;
        for (const char* const way : ways) {
            DfuHost host;
            bring(host, way);
            host.device.take_violations();
            const bool fits = host.out(request, value, data).has_value();
            taken += fits ? 'y' : '-';
            EXPECT_EQ(host.device.take_violations().size(), fits ? 0U : 1U) << way;
            if (fits) continue;
            EXPECT_EQ(host.status(), (DfuHost::Status{DfuHost::kError, 0x0F, 0})) << way;
            EXPECT_TRUE(host.out(4)) << way;
            EXPECT_EQ(host.status(), (DfuHost::Status{DfuHost::kIdle, 0, 0})) << way;
        }
        EXPECT_EQ(taken, expected) << int{request};
    }
}

TEST(Dfu, KeepsItsTimes) {
    DfuHost host;
    EXPECT_EQ(host.device.identity().interfaces.at(0).extra,
              std::string("\x09\x21\x0B\xE8\x03\x00\x04\x10\x01", 9));
    host.download(0, make_firmware_image("2.5", 1024));
    for (const int left : {2, 1, 0}) {
        const int state = left > 0 ? DfuHost::kBusy : DfuHost::kDownloadIdle;
        EXPECT_EQ(host.status(), (DfuHost::Status{state, 0, left}));
        ++host.now;
    }
    host.download(1, "");
    EXPECT_EQ(host.status(), (DfuHost::Status{DfuHost::kManifest, 0, 100}));
    host.now += 100;
    EXPECT_EQ(host.state(), DfuHost::kWaitReset);
    EXPECT_TRUE(host.out(0));
    EXPECT_FALSE(host.in(5, 1)) << "it starts anew";
    EXPECT_FALSE(host.device.disconnect_due(host.now + 149));
    EXPECT_TRUE(host.device.disconnect_due(host.now + 150));
    EXPECT_EQ(host.device.successor()->stats(host.now)["version"], "2.5");
}

TEST(Dfu, UploadsTheFirmwareThatItHas) {
    DfuHost host;
    std::string image;
    for (std::size_t got = 1000; got == 1000;) {
        const std::string part = host.in(2, 1000).value();
        image += part;
        got = part.size();
    }
    EXPECT_TRUE(image == make_firmware_image("1.0.0"));
    EXPECT_EQ(host.state(), DfuHost::kIdle);
}

}  // namespace
}  // namespace jovusim::test
