// SPDX-License-Identifier: Apache-2.0

// Devices on a real kernel: what the host of a device sends, and what no host may cause.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "device/descriptors.h"
#include "firmware_host.h"
#include "support/job_file.h"
#include "usbip/export_bus.h"
#include "usbip/usbip_device.h"
#include "usbip/vhci_bus.h"

namespace jovusim::usbip::test {
namespace {

using ::test::framed;
using Host = jovusim::test::FirmwareHost;

/// The setup packet of a control request.
std::string setup(unsigned type, unsigned request, unsigned value, unsigned index,
                  unsigned length) {
    std::string bytes;
    for (const unsigned byte : {type, request, value & 0xFFU, value >> 8U, index & 0xFFU,
                                index >> 8U, length & 0xFFU, length >> 8U})
        bytes += static_cast<char>(byte);
    return bytes;
}

const std::string kSelect = setup(0, 9, 1, 0, 0);
const std::string kReadDevice = setup(0x80, 6, 0x0100, 0, 64);

std::string command(std::uint32_t code, std::uint32_t sequence, std::uint32_t in,
                    std::uint32_t endpoint, std::uint32_t length, std::uint32_t packets = 0,
                    const std::string& setup_packet = std::string(8, '\0')) {
    std::string out;
    for (const std::uint32_t word :
         {code, sequence, 65538U, in, endpoint, 0U, length, 0U, packets, 0U})
        out += number(word);
    return out + setup_packet;
}

/// One end of a connection to a device: what a kernel does, without one.
class Kernel {
public:
    explicit Kernel(UniqueFd socket) : socket_(std::move(socket)) {}

    /// Writes what the socket takes. Returns how much that is.
    std::size_t write(const std::string& bytes) const {
        const ssize_t size =
            ::send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        return size < 0 ? 0 : static_cast<std::size_t>(size);
    }

    void bulk(std::uint32_t sequence, std::uint8_t endpoint, const std::string& data,
              std::uint32_t room = 64) const {
        const bool in = (endpoint & 0x80U) != 0;
        const auto size = static_cast<std::uint32_t>(data.size());
        write(command(1, sequence, in ? 1 : 0, endpoint & 0xFU, in ? room : size) + data);
    }
    void control(std::uint32_t sequence, const std::string& packet,
                 const std::string& data = "") const {
        const auto length = static_cast<unsigned char>(packet[6]);
        const bool in = (packet[0] & 0x80) != 0 && length > 0;
        write(command(1, sequence, in ? 1 : 0, 0, length, 0, packet) + data);
    }
    void unlink(std::uint32_t sequence, std::uint32_t victim) const {
        std::string out;
        for (const std::uint32_t word : {2U, sequence, 65538U, 0U, 0U, victim})
            out += number(word);
        out.resize(kHeaderSize);
        write(out);
    }

    /// Reads the responses that have come: "SEQUENCE STATUS[ DATA]" of transfers, with the number
    /// of bytes sent instead of DATA for OUT, and "unlink SEQUENCE STATUS".
    /// @param in the sequence numbers whose data arrives
    std::vector<std::string> read(const std::vector<std::uint32_t>& in = {}) {
        std::array<char, 65536> buffer;
        for (ssize_t size = 0;
             (size = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;)
            in_.append(buffer.data(), static_cast<std::size_t>(size));
        std::vector<std::string> out;
        while (in_.size() >= kHeaderSize) {
            const std::uint32_t sequence = word(4);
            const std::string status = std::to_string(static_cast<std::int32_t>(word(20)));
            if (word(0) == 4) {
                out.push_back("unlink " + std::to_string(sequence) + " " + status);
                in_.erase(0, kHeaderSize);
                continue;
            }
            EXPECT_EQ(word(0), 3U);
            const std::size_t actual = word(24);
            std::string line = std::to_string(sequence) + " " + status;
            const bool data = std::find(in.begin(), in.end(), sequence) != in.end();
            if (data && in_.size() < kHeaderSize + actual) break;
            if (actual > 0) {
                line += " " + (data ? in_.substr(kHeaderSize, actual) : std::to_string(actual));
            }
            out.push_back(line);
            in_.erase(0, kHeaderSize + (data ? actual : 0));
        }
        return out;
    }

    void close() { socket_.reset(); }

private:
    std::uint32_t word(std::size_t at) const {
        std::uint32_t value = 0;
        for (std::size_t i = at; i < at + 4; ++i)
            value = value << 8U | static_cast<unsigned char>(in_[i]);
        return value;
    }

    UniqueFd socket_;
    std::string in_;
};

std::pair<UniqueFd, UniqueFd> connection() {
    int pair[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    return {UniqueFd(pair[0]), UniqueFd(pair[1])};
}

/// A device and its host.
struct Attached {
    explicit Attached(std::uint16_t product = kApplicationProduct, UsbSpeed speed = UsbSpeed::full)
        : Attached(product, speed, connection()) {}
    Attached(std::uint16_t product, UsbSpeed speed, std::pair<UniqueFd, UniqueFd> ends)
        : kernel(std::move(ends.first)),
          device("1-1", {1, 2}, speed, make_function({product}, "S", 1.0),
                 [] { return std::nullopt; }, {}) {
        device.connect(Stream(std::move(ends.second)));
    }

    /// Lets the device carry out what has been sent.
    std::vector<std::string> responses(const std::vector<std::uint32_t>& in = {}) {
        device.serve(POLLIN | POLLOUT);
        return kernel.read(in);
    }
    void enumerate() {
        kernel.control(1, kReadDevice);
        kernel.control(2, kSelect);
        EXPECT_EQ(responses({1}).size(), 2U);
    }

    Kernel kernel;
    UsbipDevice device;
};

using Lines = std::vector<std::string>;

TEST(Usbip, DescriptorsAndStandardRequestsAreThoseOfTheSpeed) {
    for (const UsbSpeed speed : {UsbSpeed::full, UsbSpeed::high}) {
        const bool high = speed == UsbSpeed::high;
        Attached host(kApplicationProduct, speed);
        // Until a configuration is selected only endpoint 0 works.
        host.kernel.bulk(1, kMessageOut, "x");
        EXPECT_EQ(host.responses(), (Lines{"1 " + std::to_string(-EPROTO)}));
        const std::string qualifier("\x0A\x06\0\2\0\0\0\x40\1\0", 10);
        const std::string stall = std::to_string(-EPIPE);
        const std::pair<std::string, std::string> cases[] = {
            {setup(0x80, 8, 0, 0, 1), std::string("0 \0", 3)},
            {setup(0x80, 6, 0x0600, 0, 10), high ? "0 " + qualifier : stall},
            {setup(0x81, 10, 0, 0, 1), stall},
            {setup(0x00, 9, 1, 0, 0), "0"},
            {setup(0x80, 8, 0, 0, 1), "0 \1"},
            {setup(0x81, 0, 0, 1, 2), std::string("0 \0\0", 4)},
            {setup(0x81, 10, 0, 1, 1), std::string("0 \0", 3)},
            {setup(0x01, 11, 0, 1, 0), "0"},
            {setup(0x01, 11, 1, 1, 0), stall},
            {setup(0x01, 11, 0, 2, 0), stall},
            {setup(0x82, 0, 0, 0x05, 2), stall},
            {setup(0x02, 3, 1, 0x02, 0), stall},
            {setup(0x02, 3, 0, 0x02, 0), "0"},
            {setup(0x82, 0, 0, 0x02, 2), std::string("0 \1\0", 4)},
            {setup(0x00, 3, 1, 0, 0), stall},
        };
        std::uint32_t sequence = 10;
        for (const auto& [packet, response] : cases) {
            host.kernel.control(++sequence, packet);
            EXPECT_EQ(host.responses({sequence}),
                      (Lines{std::to_string(sequence) + " " + response}))
                << ::testing::PrintToString(packet) << high;
        }
        // The endpoint is halted until the host clears that.
        host.kernel.bulk(40, kMessageOut, "x");
        host.kernel.control(41, setup(0x02, 1, 0, 0x02, 0));
        host.kernel.bulk(42, kMessageOut, "x");
        EXPECT_EQ(host.responses(), (Lines{"40 " + stall, "41 0", "42 0 1"}));
        const auto configuration = find_descriptor(host.device.identity(), speed, 2, 0).value();
        host.kernel.control(43, setup(0x80, 6, 0x0200, 0, 255));
        EXPECT_EQ(host.responses({43}), (Lines{"43 0 " + configuration}));
        EXPECT_EQ(configuration.substr(22, 2), std::string(high ? "\0\2" : "\x40\0", 2));
    }
}

TEST(Usbip, ExchangesAndTheProgramsThatMakeThem) {
    for (const UsbSpeed speed : {UsbSpeed::full, UsbSpeed::high}) {
        Attached host(kApplicationProduct, speed);
        host.enumerate();
        EXPECT_EQ(host.device.open_clients(), 0U);
        const std::string request = framed(Host::command(7, 0, "bio_get_version"));
        host.kernel.bulk(3, kMessageIn, "");
        host.kernel.bulk(4, kJobIn, "");
        host.kernel.bulk(5, kMessageOut, request);
        EXPECT_EQ(host.device.stats()["clients"], 0);
        std::string received;
        Lines lines = host.responses({3});
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(host.device.open_clients(), 1U);
        EXPECT_EQ(lines[0], "5 0 " + std::to_string(request.size()));
        received = lines[1].substr(4);
        EXPECT_EQ(received.size(), 64U) << "packets have 64 bytes at any speed";
        for (std::uint32_t sequence = 6; received.back() != ';'; ++sequence) {
            host.kernel.bulk(sequence, kMessageIn, "", 4096);
            lines = host.responses({sequence});
            ASSERT_EQ(lines.size(), 1U);
            received += lines[0].substr(lines[0].find(' ', 4) == 3 ? 4 : lines[0].find(" 0 ") + 3);
        }
        EXPECT_EQ(Host::messages(received).at(0)["transport"]["id"], 7);
        // The program leaves: its last receive transfer is cancelled.
        host.kernel.bulk(90, kMessageIn, "");
        host.kernel.unlink(91, 90);
        host.kernel.unlink(92, 90);
        const std::string cancelled = std::to_string(-ECONNRESET);
        EXPECT_EQ(host.responses(), (Lines{"unlink 91 " + cancelled, "unlink 92 0"}));
        EXPECT_EQ(host.device.open_clients(), 1U) << "the other one is in flight";
        host.kernel.unlink(93, 4);
        EXPECT_EQ(host.responses(), (Lines{"unlink 93 " + cancelled}));
        EXPECT_EQ(host.device.open_clients(), 0U);
    }
}

TEST(Usbip, ATransferThatHasEndedIsAnsweredBeforeItsUnlink) {
    Attached host;
    host.enumerate();
    host.device.with_faults([](FaultTable& faults) {
        faults.add(BusFault::never, kJobOut, 0, 1, 0);
        faults.add(BusFault::status, kJobOut, EPROTO, 1, 0);
    });
    host.kernel.bulk(3, kMessageIn, "");
    host.kernel.bulk(4, kJobOut, "lost");
    EXPECT_EQ(host.responses(), (Lines{"4 " + std::to_string(-EPROTO)}));
    host.kernel.bulk(5, kJobOut, "kept");
    host.kernel.bulk(6, kMessageOut, framed("{}"));
    host.kernel.unlink(7, 5);
    EXPECT_EQ(host.responses(), (Lines{"6 0 8", "unlink 7 " + std::to_string(-ECONNRESET)}));
    host.device.with_function([](UsbFunction& function, Millis now) {
        dynamic_cast<Controller&>(function).send_raw(Channel::message, "yes", now);
    });
    host.kernel.unlink(8, 3);
    EXPECT_EQ(host.responses({3}), (Lines{"3 0 yes", "unlink 8 0"}));
    host.device.with_faults([](FaultTable& faults) { faults.unplug_after(kJobOut, 2); });
    host.kernel.bulk(9, kJobOut, "abc");
    host.kernel.bulk(10, kJobOut, "abc");
    EXPECT_EQ(host.responses(), Lines{});
    EXPECT_TRUE(host.device.unplugged());
    EXPECT_EQ(host.device.stats()["endpoints"]["04"]["bytes"], 2) << "and nothing after it";
}

TEST(Usbip, ABusResetIsADescriptorReadBeforeTheConfiguration) {
    Attached host(kDfuProduct);
    host.enumerate();
    host.kernel.control(3, kSelect);  // by a program
    EXPECT_EQ(host.responses(), (Lines{"3 0"}));
    EXPECT_EQ(host.device.stats()["resets"], 0);
    EXPECT_FALSE(host.device.next_due()) << "nothing but a reset starts the firmware";
    host.enumerate();
    EXPECT_EQ(host.device.stats()["resets"], 1);
    while (!host.device.unplugged()) {
        ASSERT_TRUE(host.device.next_due());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        host.device.tick();
    }
    EXPECT_EQ(host.device.take_successor()->identity().product, kApplicationProduct);
}

TEST(Usbip, WhatIsNotTheProtocolEndsTheConnection) {
    const std::pair<const char*, std::string> cases[] = {
        {"command", command(5, 9, 0, 2, 1)},
        {"a response", command(3, 9, 0, 2, 1)},
        {"direction", command(1, 9, 2, 2, 1)},
        {"endpoint", command(1, 9, 1, 16, 1)},
        {"longest", command(1, 9, 1, 1, UsbipDevice::kLongestTransfer + 1)},
        {"length", command(1, 9, 0, 2, 0xFFFFFFFF)},
        {"isochronous", command(1, 9, 1, 1, 64, 3)},
        {"in flight", command(1, 3, 1, 1, 64)},
        {"in flight, direction", command(1, 3, 0, 0, 0, 0, kReadDevice)},
        {"text", std::string(kHeaderSize, 'x')},
    };
    for (const auto& [what, bytes] : cases) {
        Attached host;
        host.enumerate();
        host.kernel.bulk(3, kMessageIn, "");
        host.kernel.write(bytes);
        host.responses();
        EXPECT_TRUE(host.device.host_gone()) << what;
        host.device.disconnect();
        EXPECT_EQ(host.device.stats()["endpoints"]["81"]["in_flight"], 0) << what;
    }
    // Odd, but within the protocol.
    Attached host;
    host.enumerate();
    host.kernel.write(command(1, 3, 1, 5, 64));  // no such endpoint
    host.kernel.write(command(1, 4, 0, 0, 0, 0, setup(0x80, 6, 0x0100, 0, 18)));  // direction
    host.kernel.write(command(1, 5, 1, 1, 64, 0xFFFFFFFF));
    host.kernel.unlink(6, 4711);
    EXPECT_EQ(host.responses(),
              (Lines{"3 " + std::to_string(-EPROTO), "4 " + std::to_string(-EPIPE), "unlink 6 0"}));
    host.kernel.write(command(1, 7, 0, 2, 100).substr(0, 47));
    EXPECT_EQ(host.responses(), Lines{});
    EXPECT_FALSE(host.device.host_gone()) << "the rest may come";
    host.kernel.close();
    host.device.serve(POLLIN);
    EXPECT_TRUE(host.device.host_gone()) << "in the middle of a command";
}

TEST(Usbip, AHostCannotMakeADeviceGrow) {
    Attached host;
    host.enumerate();
    std::size_t refused = 0;
    for (std::uint32_t i = 0; i < UsbipDevice::kMostTransfers + 50; ++i) {
        host.kernel.bulk(100 + i, kMessageIn, "");
        for (const std::string& line : host.responses())
            refused += line == std::to_string(100 + i) + " " + std::to_string(-ENOMEM) ? 1 : 0;
    }
    EXPECT_EQ(refused, 50U);
    Attached large;
    large.enumerate();
    large.kernel.bulk(3, kMessageIn, "", UsbipDevice::kLongestTransfer);
    large.kernel.bulk(4, kMessageIn, "", UsbipDevice::kLongestTransfer);
    large.kernel.bulk(5, kMessageIn, "", 64);
    EXPECT_EQ(large.responses(), (Lines{"5 " + std::to_string(-ENOMEM)}));

    // A host that never reads: its commands wait in its own socket.
    Attached slow;
    slow.enumerate();
    const std::string request =
        command(1, 0, 1, 0, 255, 0, setup(0x80, 6, 0x0200, 0, 255)).substr(8);
    std::uint32_t sent = 0;
    for (std::string rest; sent < 200'000;) {
        if (rest.empty()) rest = number(1) + number(10 + sent++) + request;
        const std::size_t size = slow.kernel.write(rest);
        rest.erase(0, size);
        if (size == 0 && (slow.device.events() & POLLIN) == 0) break;
        slow.device.serve(static_cast<short>(slow.device.events() & POLLIN));
    }
    EXPECT_LT(sent, 50'000U);
    EXPECT_EQ(slow.device.events(), POLLOUT);
    EXPECT_TRUE(slow.device.next_due()) << "it is disconnected after a while";
    std::vector<std::uint32_t> all(sent);
    for (std::uint32_t i = 0; i < sent; ++i)
        all[i] = 10 + i;
    std::size_t answered = 0;
    for (int i = 0; i < 1000 && answered + 1 < sent; ++i)
        answered += slow.responses(all).size();
    EXPECT_GE(answered + 1, sent) << "but nothing is lost when it reads";
}

/// A client of an ExportBus.
class Client {
public:
    explicit Client(ExportBus& bus) : bus_(bus), fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        const std::string address = bus.address();
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port =
            htons(static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    }

    static void serve(ExportBus& bus) {
        for (int i = 0; i < 4; ++i) {
            std::vector<pollfd> waits;
            bus.add_to(waits);
            ::poll(waits.data(), waits.size(), 5);
            bus.serve(waits);
            bus.service();
        }
    }

    /// What comes back; "end" is appended when the connection has ended.
    std::string ask(const std::string& bytes) {
        EXPECT_EQ(::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        serve(bus_);
        std::string out(65536, '\0');
        std::size_t size = 0;
        ssize_t got = 0;
        while ((got = ::recv(fd_.get(), out.data() + size, out.size() - size, MSG_DONTWAIT)) > 0)
            size += static_cast<std::size_t>(got);
        out.resize(size);
        return got == 0 ? out + "end" : out;
    }
    std::string list() { return ask(std::string("\1\x11\x80\5\0\0\0\0", 8)); }
    std::string import(std::string bus_id) {
        bus_id.resize(kBusIdSize);
        return ask(std::string("\1\x11\x80\3\0\0\0\0", 8) + bus_id);
    }
    UniqueFd release() { return std::move(fd_); }

private:
    ExportBus& bus_;
    UniqueFd fd_;
};

TEST(ExportBus, ADeviceHasOneHostAndStaysExported) {
    ExportBus bus("127.0.0.1:0", {1.0, UsbSpeed::high, nullptr});
    EXPECT_EQ(bus.plug(std::nullopt, PlugRequest{kDfuProduct}), "1-1");
    EXPECT_EQ(bus.plug("1-4", {}), "1-4");
    EXPECT_THROW(bus.plug("1-4", {}), std::runtime_error);
    EXPECT_THROW(bus.plug("2-1", {}), std::runtime_error);
    EXPECT_EQ(bus.at("1:5")->name(), "1-4");
    const auto header = [](char code, char status) {
        return std::string("\1\x11\0", 3) + code + std::string(3, '\0') + status;
    };
    const auto product = [](const std::string& record) {
        return record.substr(256 + 32 + 12 + 2, 2);
    };
    const std::string both = Client(bus).list();
    EXPECT_EQ(both.substr(0, 12), header(5, 0) + number(2));
    EXPECT_EQ(both.size(), 12U + 312 + 4 + 312 + 8 + 3) << "records, interfaces and the end";
    EXPECT_EQ(both.substr(12 + 256, 4), std::string("1-1\0", 4));
    EXPECT_EQ(product(both.substr(12)), std::string("\0\xDF", 2));
    EXPECT_EQ(both.substr(12 + 288, 12), number(1) + number(2) + number(3));
    EXPECT_EQ(Client(bus).import("1-2"), header(3, 4) + "end");
    EXPECT_EQ(Client(bus).import(std::string(kBusIdSize, '1')), header(3, 4) + "end");
    {
        Client first(bus);
        EXPECT_EQ(first.import("1-1"), header(3, 0) + both.substr(12, 312));
        EXPECT_EQ(Client(bus).import("1-1"), header(3, 2) + "end") << "busy";
        EXPECT_EQ(Client(bus).list().substr(8, 4), number(1));
        Kernel kernel(first.release());
        kernel.control(1, kReadDevice);
        kernel.control(2, kSelect);
        Client::serve(bus);
        EXPECT_EQ(kernel.read({1}).size(), 2U);
    }
    Client::serve(bus);
    EXPECT_EQ(Client(bus).list().substr(8, 4), number(2)) << "the host has left";
    // Another one updates the firmware, so that the device restarts.
    bus.unplug("1-4");
    Client second(bus);
    EXPECT_EQ(second.import("1-1").size(), 8U + 312);
    Kernel kernel(second.release());
    for (const std::uint32_t sequence : {1U, 3U}) {
        kernel.control(sequence, kReadDevice);
        kernel.control(sequence + 1, kSelect);
    }
    std::string back;
    for (int i = 0; i < 200 && back.substr(0, 4) != number(1); ++i) {
        Client::serve(bus);
        back = Client(bus).list().substr(8);
    }
    ASSERT_GT(back.size(), 312U);
    EXPECT_EQ(product(back.substr(4)), std::string("\0\2", 2));
    EXPECT_EQ(back.substr(4 + 256, 4), std::string("1-1\0", 4)) << "under the same name";
}

TEST(ExportBus, StrangersAreTurnedAway) {
    ExportBus bus("127.0.0.1:0", {});
    bus.plug(std::nullopt, {});
    const std::string cases[] = {
        std::string("\1\6\x80\5\0\0\0\0", 8),
        std::string("\1\x11\0\5\0\0\0\0", 8),
        "GET / HTTP/1.1\r\n\r\n",
    };
    for (const std::string& bytes : cases)
        EXPECT_EQ(Client(bus).ask(bytes), "end") << bytes;
    std::list<Client> idle;
    for (std::size_t i = 0; i < ExportBus::kMostClients + 5; ++i) {
        idle.emplace_back(bus);
        if (i % 32 == 0) Client::serve(bus);
    }
    EXPECT_EQ(idle.front().ask("\1"), "") << "the rest may come";
    Client::serve(bus);
    std::vector<pollfd> waits;
    bus.add_to(waits);
    EXPECT_EQ(waits.size(), ExportBus::kMostClients) << "others wait";
    EXPECT_TRUE(bus.next_due()) << "until the time of one has passed";
    for (const char* const address :
         {"3240", ":3240", "1.2.3.4:", "::1:3240", "1.2.3.4:x", "127.0.0.1:65536", "127.0.0.1: 0"})
        EXPECT_THROW(ExportBus(address, {}), std::runtime_error) << address;
}

TEST(VhciPorts, AreReadFromSysfs) {
    namespace fs = std::filesystem;
    const fs::path root = fs::temp_directory_path() / ("vhci." + std::to_string(::getpid()));
    const auto put = [&root](const fs::path& file, const std::string& text) {
        fs::create_directories((root / file).parent_path());
        std::ofstream(root / file) << text;
    };
    const auto refusal = [&root]() -> std::string {
        try {
            VhciPorts{root};
            return "";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    };
    EXPECT_NE(refusal().find("modprobe vhci-hcd"), std::string::npos);
    put("attach", "");
    put("status",
        "hub port sta spd dev      sockfd local_busid\n"
        "hs  0000 006 003 00010002 000003 5-1\n"
        "hs  0001 004 000 00000000 000000 0-0\n"
        "ss  0002 004 000 00000000 000000 0-0\n");
    EXPECT_NE(refusal().find("no port"), std::string::npos);
    put("usb5/speed", "480\n");
    put("usb5/busnum", "5\n");
    put("usb6/speed", "5000\n");
    put("usb5/5-2/devnum", "17\n");
    {
        VhciBus bus(VhciPorts{root}, {1.0, UsbSpeed::high, nullptr});
        EXPECT_EQ(bus.plug(std::nullopt, {}), "5-2") << "the first one is in use";
        EXPECT_THROW(bus.plug(std::nullopt, {}), std::runtime_error);
        EXPECT_EQ(bus.at("5:17")->address_attribute(), " address=5:17");
        unsigned port = 0, socket = 0, device = 0, speed = 0;
        EXPECT_EQ(std::sscanf(::test::content_of(root / "attach").c_str(), "%u %u %u %u", &port,
                              &socket, &device, &speed),
                  4);
        EXPECT_EQ(std::vector({port, device, speed}), std::vector({1U, 5U << 16U | 3U, 3U}));
        EXPECT_FALSE(bus.can_inject(BusFault::claim));
        EXPECT_THROW(bus.block_open("5-2", true), std::runtime_error);
    }
    fs::remove_all(root);
}

}  // namespace
}  // namespace jovusim::usbip::test
