// SPDX-License-Identifier: Apache-2.0

/// @file
/// docs/protocol.md against the library: its tables are made from the library's, and its examples
/// are what the library writes and reads.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "commands/catalogue.h"
#include "commands/firmware_command.h"
#include "commands/structures.h"
#include "commands/type_names.h"
#include "core/frame.h"
#include "core/message_attributes.h"
#include "events/event_catalogue.h"
#include "jobs/job_messages.h"
#include "jobs/job_stream.h"
#include "support/protocol_page.h"
#include "support/recording_client.h"
#include "usb/usb_backend.h"
#include "usb/usb_constants.h"

namespace {

/// How a value of type T travels; the page explains the names.
template <class T>
struct Wire {
    static std::string type() {
        if constexpr (std::is_void_v<T>) {
            return "none";
        } else if constexpr (std::is_enum_v<T>) {
            return Wire<std::underlying_type_t<T>>::type() + " `" +
                   std::string(jovu::TypeName<T>::value) + "`";
        } else if constexpr (std::is_same_v<T, bool> || std::is_floating_point_v<T>) {
            return std::string(jovu::TypeName<T>::value);
        } else if constexpr (jovu::is_structure<T>) {
            return "`" + std::string(jovu::Structure<T>::name) + "`";
        } else {
            return (std::is_signed_v<T> ? "i" : "u") + std::to_string(8 * sizeof(T));
        }
    }
};
template <>
struct Wire<std::shared_ptr<char>> {
    static std::string type() { return "string"; }
};
template <class T>
struct Wire<std::shared_ptr<T>> {
    static std::string type() { return Wire<T>::type() + "[]"; }
};

std::string hex(unsigned value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

std::string numbers() {
    std::string out = "| what | value |\n|---|---|\n";
    const auto row = [&out](const std::string& what, const std::string& value) {
        out += "| " + what + " | " + value + " |\n";
    };
    const auto milliseconds = [](auto time) {
        return std::to_string(std::chrono::milliseconds(time).count()) + " ms";
    };
    row("vendor id", hex(JOVU_USB_VENDOR_ID, 4));
    row("product id of a controller that runs its firmware", hex(jovu::kProductOpened, 4));
    row("product id that the library lists but never opens", hex(jovu::kProductListed, 4));
    const std::string channels[] = {"message channel", "job channel"};
    for (std::size_t i = 0; i < jovu::kInterfaceCount; ++i) {
        row(channels[i] + ", device to host", "bulk, " + hex(jovu::kReceiveEndpoint[i], 2));
        row(channels[i] + ", host to device", "bulk, " + hex(jovu::kSendEndpoint[i], 2));
    }
    row("interface that the host claims", std::to_string(jovu::kClaimedInterface));
    row("a transfer that the host reads, at most",
        std::to_string(jovu::kReceiveBufferSize) + " bytes");
    row("time-out of a transfer that the host writes",
        milliseconds(std::chrono::milliseconds(jovu::kSendTimeoutMs)));
    row("repetitions of a transfer that timed out", std::to_string(jovu::kSendRetries));
    row("period of the scans for new devices",
        milliseconds(jovu::UsbBackend::_device_hotplug_refresh_rate));
    row("first byte of a frame",
        std::string("`") + char(jovu::kFrameStart) + "`, " + hex(jovu::kFrameStart, 2));
    row("last byte of a frame",
        std::string("`") + char(jovu::kFrameTerminator) + "`, " + hex(jovu::kFrameTerminator, 2));
    row("header of a frame", std::to_string(jovu::kFrameHeaderSize) + " bytes");
    row("payload of a frame, at most", std::to_string(jovu::kMaxFramePayload) + " bytes");
    row("levels of JSON, at most", std::to_string(jovu::kMaxJsonDepth));
    row("unfinished object of the job channel, at most",
        std::to_string(jovu::kMaxJobBacklog) + " bytes");
    return out;
}

std::string attributes() {
    std::string out = "| word | commands have it | events have it |\n|---|---|---|\n";
    for (const auto& [bit, word] : jovu::kAttributeWords) {
        out += "| `" + std::string(word) + "` |" +
               ((jovu::kCommandFlags & bit) != 0 ? " yes" : "") + " |" +
               ((jovu::kEventFlags & bit) != 0 ? " yes" : "") + " |\n";
    }
    return out;
}

template <class... Arguments>
std::string arguments_of(const std::array<std::string_view, sizeof...(Arguments)>& keys,
                         const std::tuple<Arguments...>* /*types*/) {
    std::string out;
    std::size_t i = 0;
    ((out += (i == 0 ? "`" : ", `") + std::string(keys[i]) + "` " + Wire<Arguments>::type(), ++i),
     ...);
    return out;
}

std::string commands() {
    std::string out =
        "| idx | name | args, in order | result | what it does |\n|---|---|---|---|---|\n";
    const auto add = [&out](const auto& row) {
        using Row = std::decay_t<decltype(row)>;
        out += "| " + std::to_string(row.idx) + " | `" + std::string(row.name) + "` | " +
               arguments_of(row.keys, static_cast<typename Row::Arguments*>(nullptr)) + " | " +
               Wire<typename Row::Result>::type() + " | " + std::string(row.summary) + " |\n";
    };
    std::apply([&](const auto&... row) { (add(row), ...); }, jovu::catalogue);
    return out;
}

template <class S>
std::string structure() {
    std::string out = "| `" + std::string(jovu::Structure<S>::name) + "` | ";
    const auto add = [&out](const auto& member) {
        using Type = typename std::decay_t<decltype(member)>::Type;
        out += (out.back() == ' ' ? "`" : ", `") + std::string(member.key) + "` ";
        if constexpr (std::is_array_v<Type>) {
            using Element = std::remove_extent_t<Type>;
            const bool is_signed =
                member.bytes == jovu::Bytes::by_type && std::is_same_v<Element, char>;
            out += (is_signed ? "i8[" : "u8[") + std::to_string(std::extent_v<Type>) + "]";
        } else {
            out += Wire<Type>::type();
        }
    };
    std::apply([&](const auto&... member) { (add(member), ...); }, jovu::Structure<S>::members);
    return out + " |\n";
}

/// Rows of the structures that the commands carry, those within a structure before it.
struct StructureTable {
    template <class T>
    void add() {
        if constexpr (jovu::is_structure<T>) {
            if (!names.insert(jovu::Structure<T>::name).second) return;
            const auto add_member = [this](const auto& member) {
                add<typename std::decay_t<decltype(member)>::Type>();
            };
            std::apply([&](const auto&... member) { (add_member(member), ...); },
                       jovu::Structure<T>::members);
            rows += structure<T>();
        }
    }
    template <class... T>
    void add_all(const std::tuple<T...>* /*types*/) {
        (add<typename Pointed<T>::Type>(), ...);
    }

    template <class T>
    struct Pointed {
        using Type = T;
    };
    template <class T>
    struct Pointed<std::shared_ptr<T>> {
        using Type = T;
    };

    std::set<std::string_view> names;
    std::string rows;
};

std::string structures() {
    StructureTable table;
    const auto add = [&table](const auto& row) {
        using Row = std::decay_t<decltype(row)>;
        table.add_all(static_cast<typename Row::Arguments*>(nullptr));
        table.add<typename Row::Result>();
    };
    std::apply([&](const auto&... row) { (add(row), ...); }, jovu::catalogue);
    return "| structure | members, in order |\n|---|---|\n" + table.rows;
}

std::string events() {
    std::string out = "| idx | name | first member of args |\n|---|---|---|\n";
    const auto add = [&out](const auto& row) {
        using Argument = typename std::decay_t<decltype(row)>::Argument;
        out += "| " + std::to_string(row.idx) + " | `" + std::string(row.name) + "` | ";
        if constexpr (std::is_class_v<Argument> &&
                      !std::is_same_v<Argument, std::shared_ptr<char>>) {
            out += "object of";
            const auto member = [&out](const auto& field) {
                using Type = std::decay_t<decltype(std::declval<Argument>().*field.field)>;
                out += (out.back() == 'f' ? " `" : ", `") + std::string(field.key) + "` " +
                       Wire<Type>::type();
            };
            std::apply([&](const auto&... field) { (member(field), ...); },
                       jovu::event_members<Argument>);
        } else {
            out += Wire<Argument>::type();
        }
        out += " |\n";
    };
    std::apply([&](const auto&... row) { (add(row), ...); }, jovu::event_catalogue);
    return out;
}

/// With JOVU_UPDATE_MANUAL=1 in the environment, writes the tables into the page.
TEST(ProtocolPage, HasTheTablesOfTheLibrary) {
    const std::string written = test::content_of(JOVU_PROTOCOL_PAGE);
    std::string expected = written;
    const std::pair<const char*, std::string> tables[] = {
        {"numbers", numbers()},       {"attributes", attributes()}, {"commands", commands()},
        {"structures", structures()}, {"events", events()},
    };
    for (const auto& [name, text] : tables) {
        const auto [begin, size] = test::find_block(expected, std::string("table: ") + name);
        ASSERT_NE(begin, 0U);
        expected.replace(begin, size, "\n" + text + "\n");
    }
    if (std::getenv("JOVU_UPDATE_MANUAL") != nullptr)
        std::ofstream(JOVU_PROTOCOL_PAGE, std::ios::binary) << expected;
    EXPECT_EQ(written, expected) << "run this test with JOVU_UPDATE_MANUAL=1 to write it anew";
}

/// The payloads of the frames in transfers on an endpoint.
std::vector<std::string> payloads(const std::vector<test::PageTransfer>& transfers,
                                  unsigned endpoint) {
    std::vector<std::string> out;
    jovu::FrameDecoder decoder;
    for (const auto& [from, bytes] : transfers) {
        if (from != endpoint) continue;
        decoder.feed(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                     [&out](unsigned char* payload, unsigned length) {
                         out.emplace_back(reinterpret_cast<char*>(payload), length);
                     });
    }
    return out;
}

TEST(ProtocolPage, ShowsWhatTheLibraryWritesAndReads) {
    const std::string page = test::content_of(JOVU_PROTOCOL_PAGE);
    test::RecordingClient client;
    JovuFirmwareCommand<short, HEATER_VARS_m, float> command(
        client, "heater_var_set", 16, {HEATER_VARS_m{0}, 21.5F}, {"var_num", "var_val"});
    const auto exchange = test::transfers_of(page, "wire: exchange");
    const std::string request = payloads(exchange, jovu::kSendEndpoint[0]).at(0);
    const std::string own_id = "\"id\":" + std::to_string(command.id()) + "}";
    std::string json = command.compile();
    const std::size_t id = request.find("\"id\":");
    json.replace(json.find(own_id), own_id.size(), request, id, request.find('}', id) + 1 - id);
    const jovu::Frame frame = jovu::make_frame(json);
    EXPECT_EQ(exchange.at(0).bytes, std::string(frame.header, frame.header + sizeof frame.header));
    EXPECT_EQ(exchange.at(1).bytes, frame.body);
    EXPECT_EQ(
        test::objects_of(page, "json: exchange"),
        (std::vector<std::string>{request, payloads(exchange, jovu::kReceiveEndpoint[0]).at(0)}));
    EXPECT_EQ(test::objects_of(page, "json: event"),
              payloads(test::transfers_of(page, "wire: event"), jovu::kReceiveEndpoint[0]));

    const std::string data = "G28\nM104 S210\n";
    const auto sum = static_cast<std::uint32_t>(
        adler32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
    const auto push = test::transfers_of(page, "wire: push");
    EXPECT_EQ(push.at(0).bytes, jovu::job_announcement({data.size(), sum, "", std::nullopt}));
    EXPECT_EQ(push.at(1).bytes, data);
    const auto requests = test::objects_of(page, "json: requests");
    EXPECT_EQ(requests,
              (std::vector<std::string>{jovu::job_request("status"), jovu::job_request("pause"),
                                        jovu::job_request("abort"),
                                        jovu::job_announcement({12000, 1585461636, "", {}})}));
}

/// Each row of the table of the report's members is read, from an object that has only that member.
TEST(ProtocolPage, ListsWhatIsReadOfAReport) {
    const std::string page = test::content_of(JOVU_PROTOCOL_PAGE);
    const auto [begin, size] = test::find_block(page, "table: report");
    std::istringstream lines(page.substr(begin, size));
    const auto text_of = [](const JovuJobInterface::StatusMsg& s) {
        std::ostringstream out;
        for (const std::string& text :
             {s.printer.model_name, s.printer.cpu_id, s.printer.firmware_name,
              s.printer.firmware_version, s.state, s.build_plate, s.filament, s.job_id, s.file})
            out << text << '|';
        out << s.printer.accept_version << '|' << s.extruder_temperature << '|' << s.progress << '|'
            << s.time_elapsed << '|' << s.boot_time << '|' << s.idle_time << '|' << s.error;
        return out.str();
    };
    std::set<std::string> seen{text_of({})};
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("| `", 0) != 0) continue;
        const std::string path = line.substr(3, line.find('`', 3) - 3);
        std::string json = line.find("| string |") != std::string::npos ? "\"7\"" : "7";
        std::istringstream keys(path);
        std::vector<std::string> parts;
        for (std::string key; std::getline(keys, key, '.');)
            parts.push_back(key);
        for (auto key = parts.rbegin(); key != parts.rend(); ++key)
            json = "{\"" + *key + "\":" + json + "}";
        const jovu::JsonTree tree = jovu::parse_json(json);
        JovuJobInterface::StatusMsg status;
        parse_status(tree.get(), status);
        EXPECT_TRUE(seen.insert(text_of(status)).second || path == "errors") << json;
    }
    EXPECT_EQ(seen.size(), 17U) << "all members of StatusMsg";
}

}  // namespace
