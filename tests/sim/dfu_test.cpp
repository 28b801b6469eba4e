// The boot loader: downloads, and the ways between it and the application.
#include <gtest/gtest.h>

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
            std::string changed = image;
            changed[at] = static_cast<char>(byte);
            return check_firmware_image(changed);
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
    std::string damaged = good;
    damaged[4500] = static_cast<char>(damaged[4500] ^ 1);
    DfuFaults write_error;
    write_error.write_error = 2;
    const struct {
        std::string image;
        DfuFaults faults;
        int status;
    } cases[] = {
        {std::string(3000, 'x'), {}, 0x0A},
        {damaged, {}, 0x07},
        {good.substr(0, 2500), {}, 0x09},
        {good, write_error, 0x03},
    };
    for (const auto& c : cases) {
        DfuHost host(c.faults);
        const auto end = host.download_all(c.image);
        EXPECT_EQ(end.state, DfuHost::kError) << c.status;
        EXPECT_EQ(end.status, c.status) << c.status;
        EXPECT_FALSE(host.download(0, "x")) << c.status;
        host.device.bus_reset(host.now);
        EXPECT_FALSE(host.device.next_tick()) << c.status << ": there is nothing to boot";
        host.device.dfu_faults() = {};
        EXPECT_EQ(host.status().state, DfuHost::kIdle) << c.status;
        EXPECT_EQ(host.download_all(good).state, DfuHost::kWaitReset) << c.status;
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
    const struct {
        std::uint8_t request;
        std::uint16_t value;
        std::string data;
        const char* taken;  ///< y for each of the ways
    } cases[] = {
        {0, 1000, "", "y------y-"},                   // detach
        {1, 1, "", "----y----"},                      // a download without data
        {1, 0, std::string(1024, 'x'), "y--------"},  // a block
        {1, 1, "x", "----y----"},                     // the next block
        {1, 0, std::string(1025, 'x'), "---------"},  // a block too large
        {4, 0, "", "--------y"},                      // clear status
        {6, 0, "", "yyyyyy---"},                      // abort
        {7, 0, "", "---------"},                      // unknown
    };
    for (const auto& c : cases) {
        std::string taken;
        for (const char* const way : ways) {
            DfuHost host;
            bring(host, way);
            host.device.take_violations();
            const bool fits = host.out(c.request, c.value, c.data).has_value();
            taken += fits ? 'y' : '-';
            EXPECT_EQ(host.device.take_violations().size(), fits ? 0U : 1U) << way;
            if (fits) continue;
            EXPECT_EQ(host.status().state, DfuHost::kError) << way;
            EXPECT_EQ(host.status().status, 0x0F) << way;
            EXPECT_TRUE(host.out(4)) << way;
            EXPECT_EQ(host.status().state, DfuHost::kIdle) << way;
        }
        EXPECT_EQ(taken, c.taken) << &c - cases;
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
