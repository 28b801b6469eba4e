// SPDX-License-Identifier: Apache-2.0

/// @file
/// docs/protocol.md against the library: its tables are made from the library's, and its examples
/// are what the library writes and reads.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>
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
#include "json/json_tree.h"
#include "support/protocol_page.h"
#include "support/recording_client.h"
#include "usb/usb_backend.h"
#include "usb/usb_constants.h"

namespace {

/// Rows of the structures that have been named so far, those within a structure before it.
std::vector<std::pair<std::string_view, std::string>> structure_rows;

/// How a value of type T travels; the page explains the names.
template <class T>
std::string wire_type(const T* type = nullptr);

std::string wire_type(const std::shared_ptr<char>* /*type*/) {
    return "string";
}

template <class T>
std::string wire_type(const std::shared_ptr<T>* /*type*/) {
    return wire_type(static_cast<const T*>(nullptr)) + "[]";
}

/// Adds "`KEY` TYPE" to a list.
template <class T>
void add_key(std::string& list, std::string_view key, const T* type) {
    list += (list.empty() ? "`" : ", `") + std::string(key) + "` " + wire_type(type);
}

template <class S>
std::string named_structure() {
    const std::string_view name = jovu::Structure<S>::name;
    const auto is_it = [name](const auto& row) { return row.first == name; };
    if (std::none_of(structure_rows.begin(), structure_rows.end(), is_it)) {
        std::string list;
        const auto add = [&list](const auto& member) {
            using Type = typename std::decay_t<decltype(member)>::Type;
            using Element = std::remove_extent_t<Type>;
            if constexpr (!std::is_array_v<Type>) {
                add_key(list, member.key, static_cast<const Type*>(nullptr));
            } else if (member.bytes == jovu::Bytes::by_type && std::is_same_v<Element, char>) {
                add_key(list, member.key, static_cast<const signed char*>(nullptr));
            } else {
                add_key(list, member.key, static_cast<const unsigned char*>(nullptr));
            }
            if (std::is_array_v<Type>) list += "[" + std::to_string(std::extent_v<Type>) + "]";
        };
        std::apply([&](const auto&... member) { (add(member), ...); }, jovu::Structure<S>::members);
        structure_rows.emplace_back(name, list);
    }
    return "`" + std::string(name) + "`";
}

template <class T>
std::string wire_type(const T* /*type*/) {
    if constexpr (std::is_void_v<T>) {
        return "none";
    } else if constexpr (std::is_enum_v<T>) {
        const std::underlying_type_t<T>* const number = nullptr;
        return wire_type(number) + " `" + std::string(jovu::TypeName<T>::value) + "`";
    } else if constexpr (std::is_same_v<T, bool> || std::is_floating_point_v<T>) {
        return std::string(jovu::TypeName<T>::value);
    } else if constexpr (jovu::is_structure<T>) {
        return named_structure<T>();
    } else {
        return (std::is_signed_v<T> ? "i" : "u") + std::to_string(8 * sizeof(T));
    }
}

/// A table in Markdown. @param row called as row(cells...)
template <class Fill>
std::string table(const std::string& head, Fill fill) {
    std::string out = "\n" + head + "\n" + std::regex_replace(head, std::regex("[^|]+"), "---");
    fill([&out](const auto&... cell) {
        out += "\n|";
        ((out += " " + std::string(cell) + " |"), ...);
    });
    return out + "\n\n";
}

std::string hex(unsigned value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

std::string numbers() {
    return table("| what | value |", [](const auto& row) {
        const auto amount = [](auto value, const char* unit) {
            return std::to_string(value) + " " + unit;
        };
        const auto symbol = [](unsigned char c) {
            return std::string("`") + char(c) + "`, " + hex(c, 2);
        };
        row("vendor id", hex(JOVU_USB_VENDOR_ID, 4));
        row("product id of a controller that runs its firmware", hex(jovu::kProductOpened, 4));
        row("product id that the library lists but never opens", hex(jovu::kProductListed, 4));
        row("message channel, device to host", "bulk, " + hex(jovu::kReceiveEndpoint[0], 2));
        row("message channel, host to device", "bulk, " + hex(jovu::kSendEndpoint[0], 2));
        row("job channel, device to host", "bulk, " + hex(jovu::kReceiveEndpoint[1], 2));
        row("job channel, host to device", "bulk, " + hex(jovu::kSendEndpoint[1], 2));
        row("interface that the host claims", std::to_string(jovu::kClaimedInterface));
        row("a transfer that the host reads, at most", amount(jovu::kReceiveBufferSize, "bytes"));
        row("time-out of a transfer that the host writes", amount(jovu::kSendTimeoutMs, "ms"));
        row("repetitions of a transfer that timed out", std::to_string(jovu::kSendRetries));
        row("period of the scans for new devices",
            amount(jovu::UsbBackend::_device_hotplug_refresh_rate.count(), "ms"));
        row("first byte of a frame", symbol(jovu::kFrameStart));
        row("last byte of a frame", symbol(jovu::kFrameTerminator));
        row("header of a frame", amount(jovu::kFrameHeaderSize, "bytes"));
        row("payload of a frame, at most", amount(jovu::kMaxFramePayload, "bytes"));
        row("levels of JSON, at most", std::to_string(jovu::kMaxJsonDepth));
        row("unfinished object of the job channel, at most", amount(jovu::kMaxJobBacklog, "bytes"));
    });
}

std::string attributes() {
    return table("| word | commands have it | events have it |", [](const auto& row) {
        for (const auto& [bit, word] : jovu::kAttributeWords)
            row("`" + std::string(word) + "`", (jovu::kCommandFlags & bit) != 0 ? "yes" : "",
                (jovu::kEventFlags & bit) != 0 ? "yes" : "");
    });
}

template <class Keys, class... Arguments, std::size_t... i>
std::string arguments_of(const Keys& keys, const std::tuple<Arguments...>* /*types*/,
                         std::index_sequence<i...> /*places*/) {
    std::string list;
    (add_key(list, keys[i], static_cast<const Arguments*>(nullptr)), ...);
    return list;
}

std::string commands() {
    return table("| idx | name | args, in order | result | what it does |", [](const auto& row) {
        const auto add = [&row](const auto& c) {
            using Command = std::decay_t<decltype(c)>;
            const typename Command::Arguments* const arguments = nullptr;
            const typename Command::Result* const result = nullptr;
            row(std::to_string(c.idx), "`" + std::string(c.name) + "`",
                arguments_of(c.keys, arguments, std::make_index_sequence<Command::kArguments>()),
                wire_type(result), c.summary);
        };
        std::apply([&](const auto&... command) { (add(command), ...); }, jovu::catalogue);
    });
}

/// Those that the commands have named.
std::string structures() {
    return table("| structure | members, in order |", [](const auto& row) {
        for (const auto& [name, members] : structure_rows)
            row("`" + std::string(name) + "`", members);
    });
}

std::string events() {
    return table("| idx | name | first member of args |", [](const auto& row) {
        const auto add = [&row](const auto& event) {
            using Argument = typename std::decay_t<decltype(event)>::Argument;
            std::string type;
            if constexpr (std::is_same_v<Argument, servo_trace_msg>) {
                const auto member = [&type](const auto& field) {
                    const Argument sample{};
                    add_key(type, field.key, &(sample.*field.field));
                };
                std::apply([&](const auto&... field) { (member(field), ...); },
                           jovu::event_members<Argument>);
                type = "object of " + type;
            } else {
                type = wire_type(static_cast<const Argument*>(nullptr));
            }
            row(std::to_string(event.idx), "`" + std::string(event.name) + "`", type);
        };
        std::apply([&](const auto&... event) { (add(event), ...); }, jovu::event_catalogue);
    });
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
        expected.replace(begin, size, text);
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
    int rows = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("| `", 0) != 0) continue;
        ++rows;
        const bool is_string = line.find("| string |") != std::string::npos;
        std::string path = line.substr(3, line.find('`', 3) - 3);
        std::string json = is_string ? "\"7\"}" : "7}";
        for (std::size_t dot = 0; (dot = path.rfind('.')) != std::string::npos; path.resize(dot))
            json = "{\"" + path.substr(dot + 1) + "\":" + json + "}";
        json = "{\"" + path + "\":" + json;
        const jovu::JsonTree tree(json);
        JovuJobInterface::StatusMsg s;
        parse_status(tree.get(), s);
        const auto& [model, cpu, name, version, accepted] = s.printer;
        EXPECT_EQ(
            model + cpu + name + version + s.state + s.build_plate + s.filament + s.job_id + s.file,
            is_string ? "7" : "")
            << json;
        EXPECT_EQ(accepted + s.extruder_temperature + s.progress + s.time_elapsed + s.boot_time +
                      s.idle_time + s.error,
                  is_string ? 0 : 7)
            << json;
    }
    EXPECT_EQ(rows, 17) << "all members of StatusMsg, and the error's other name";
}

}  // namespace
