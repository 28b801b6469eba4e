// SPDX-License-Identifier: Apache-2.0

/// @file
/// How the response to a command is read.
#include "commands/firmware_command.h"

#include <gtest/gtest.h>

#include <limits>
#include <sstream>

#include "json/json_tree.h"
#include "support/recording_client.h"

namespace {

using String = std::shared_ptr<char>;

void show(std::ostream& out, const wifi_scan_network_t& network) {
    out << std::string(network.ssid, strnlen(network.ssid, sizeof network.ssid)) << ':'
        << +network.encryption << ':' << +network.strength << ' ';
}
template <class T>
void show(std::ostream& out, T element) {
    out << +element << ' ';
}

/// Gives a command that returns @p R a response with this "command".
/// @return the result, of a buffer that many elements; "none" stands behind it if the response did
///     not count.
template <class R, std::size_t elements = 0>
std::string read(JovuTransport& transport, const std::string& response) {
    JovuFirmwareCommand<R, int> command(transport, "n", 1, {3}, {"k"});
    const jovu::JsonTree tree(R"({"command":)" + response + "}");
    auto message = std::make_shared<JovuMessage>(transport, 2U, command.id(), tree.get());
    command.set_response(message);
    std::ostringstream out;
    out.precision(std::numeric_limits<float>::max_digits10);
    const R& result = command.result();
    if constexpr (std::is_arithmetic_v<R> || jovu::is_structure<R>) {
        show(out, result);
    } else if (result == nullptr) {
        out << "null ";
    } else if constexpr (std::is_same_v<R, String>) {
        out << result.get() << ' ';
    } else {
        for (std::size_t i = 0; i < elements; ++i)
            show(out, result.get()[i]);
    }
    return out.str() + (command.response_available() ? "" : "none");
}

TEST(FirmwareCommand, ReadsItsResultAndTakesABrokenResponseForNone) {
    using Floats = std::shared_ptr<float>;
    using Bytes = std::shared_ptr<unsigned char>;
    using Network = wifi_scan_network_t;
    using Networks = std::shared_ptr<Network>;
    const auto value = [](const std::string& text) { return R"({"__return__":)" + text + "}"; };
    constexpr std::size_t kLongest = sizeof(Network::ssid);
    const std::string full_ssid = std::string(kLongest, 'a') + ":0:0 ";
    std::string full = "97";
    for (std::size_t i = 1; i < kLongest; ++i)
        full += ",97";
    struct Row {
        std::string (*read)(JovuTransport&, const std::string&);
        std::string response;
        std::string result;
    };
    std::vector<Row> rows{
        {read<short>, R"({"__return__":70000,"args":{}})", "4464 "},
        {read<short>, R"({"idx":1,"name":"n"})", "0 "},
        {read<short>, R"({"idx":"1","name":1,"args":[1]})", "0 "},
        {read<short>, R"({"idx":true,"name":null,"args":null})", "0 "},
        {read<short>, "{}", "0 "},
        {read<short>, "[]", "0 "},
        {read<float>, value("-0.5"), "-0.5 "},
        {read<float>, value("-1e39"), "-inf "},
        {read<float>, value("3.4028235e38"), "3.40282347e+38 "},
        {read<float>, value("-3.40282356779733e38"), "-3.40282347e+38 "},
        {read<float>, value("3.4028235677973366e38"), "inf "},
        {read<float>, value("\"1\""), "0 none"},
        {read<Floats, 3>, value("[1.5,-2,1e39]"), "1.5 -2 inf "},
        {read<Bytes, 4>, value("[255,256,-1]"), "255 0 255 0 "},
        // One more than there are.
        {read<Networks, 3>, value(R"([{"strength":-7},{"ssid":[98]}])"), ":0:-7 b:0:0 :0:0 "},
        {read<Floats>, value("[]"), ""},
        {read<Networks>, value("[]"), ""},
        {read<String>, value("[72,105]"), "Hi "},
        {read<String>, value("[]"), " "},
        {read<String>, value("[-23,489]"), "\xE9\xE9 "},
        {read<String>, value(R"([72,"i"])"), "null none"},
        {read<String>, value(R"("Hi")"), "null none"},
        // What is wrong in a structure costs that member alone.
        {read<Network>, value("{}"), ":0:0 "},
        {read<Network>, value(R"({"ssid":[)" + full + "]}"), full_ssid},
        {read<Network>, value(R"({"ssid":[)" + full + ",98]}"), full_ssid},
        {read<Network>, value(R"({"ssid":[1,"e"],"encryption":1e99,"strength":[5]})"), ":-1:0 "},
        {read<Network>, value(R"({"ssid":"net","encryption":true,"strength":-1.9})"), ":0:-1 "},
        {read<Network>, value(R"({"ssid":{"0":1},"strength":133,"strength":6})"), ":0:-123 "},
    };
    for (const char* const broken : {"\"5\"", "null", "true", "[5]"}) {
        rows.push_back({read<short>, value(broken), "0 none"});
        rows.push_back({read<Network>, value(broken), ":0:0 none"});
    }
    for (const char* const broken : {"1.5", "[1,\"2\"]", "[[1]]", "null", "[{},1]"}) {
        for (const auto reader : {read<Floats>, read<Bytes>, read<Networks>})
            rows.push_back({reader, value(broken), "null none"});
    }
    test::RecordingClient client;
    for (const Row& row : rows)
        EXPECT_EQ(row.read(client, row.response), row.result) << row.response;
}

TEST(EchoedArguments, AreReadByPositionWhateverTheirKeys) {
    const std::pair<const char*, const char*> rows[] = {
        {R"({"a":4,"b":1,"c":[72,0]})", "a=4 b=1 c=H"},
        {R"({"z":4,"y":0,"x":[72]})", "z=4 y=0 x=H"},
        {R"({"b":1,"a":4})", "b=1 a=1 =null"},
        {R"({"a":4,"b":1,"c":[],"d":5})", "a=4 b=1 c="},
        {R"({"a":"4","b":{},"c":72})", "a=0 b=0 c=null"},
        {R"({})", "=0 =0 =null"},
    };
    for (const auto& [text, expected] : rows) {
        const jovu::JsonTree tree(text);
        std::tuple<int, bool, String> args{};
        std::vector<std::string> keys(3);
        CmdArgDeserializer::for_each(tree.get()->u.object.keys, tree.get()->u.object.len,
                                     tree.get(), args, keys);
        const auto& [number, flag, string] = args;
        std::ostringstream out;
        out << keys[0] << '=' << number << ' ' << keys[1] << '=' << flag << ' ' << keys[2] << '='
            << (string == nullptr ? "null" : string.get());
        EXPECT_EQ(out.str(), expected) << text;
    }
}

}  // namespace
