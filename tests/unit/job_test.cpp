#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "jobs/job_requests.h"
#include "jobs/job_stream.h"
#include "jobs/status_report.h"
#include "json/json.h"

namespace {

using Status = JovuJobInterface::StatusMsg;

std::optional<std::string> append(jovu::JobStream& stream, const std::string& bytes) {
    return stream.append(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

/// What comes out of each of a row of calls; "-" for nothing.
std::vector<std::string> cut(const std::vector<std::string>& calls) {
    jovu::JobStream stream;
    std::vector<std::string> objects;
    for (const std::string& bytes : calls)
        objects.push_back(append(stream, bytes).value_or("-"));
    return objects;
}

TEST(JobStream, CutsOneObjectPerCallByItsBraces) {
    const struct {
        std::vector<std::string> calls, expected;
    } cases[] = {
        {{"{}"}, {"{}"}},
        {{"{\"a\":{}}"}, {"{\"a\":{}}"}},
        {{"{", "\"a\"", ":1}"}, {"-", "-", "{\"a\":1}"}},
        {{"{1}{2}{3}", "{4}", "", ""}, {"{1}", "{2}", "{3}", "{4}"}},
        {{"}{1}", " "}, {"-", "{1}"}},
        {{"{1}}{2}", "", ""}, {"{1}", "-", "{2}"}},
        {{" \r\n{1}"}, {" \r\n{1}"}},
        {{"{\"{\":1}", "}"}, {"-", "{\"{\":1}}"}},
        {{"[1,2]", "{3}"}, {"-", "[1,2]{3}"}},
    };
    for (const auto& row : cases)
        EXPECT_EQ(cut(row.calls), row.expected) << row.calls[0];
}

/// The same in the simplest way: counts all that waits, every time.
std::optional<std::string> simplest(std::string& waiting, const std::string& bytes) {
    waiting += bytes;
    int opened = 0, closed = 0;
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

TEST(JobStream, CutsWhateverComesAsTheSimplestWayDoes) {
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
            ASSERT_EQ(append(stream, bytes), simplest(waiting, bytes)) << "seed " << seed;
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

std::string read_back(const Status& status) {
    const auto& printer = status.printer;
    std::string text;
    for (const std::string& field :
         {printer.model_name, printer.cpu_id, printer.firmware_name, printer.firmware_version,
          std::to_string(printer.accept_version), status.state, status.build_plate, status.filament,
          std::to_string(status.extruder_temperature), status.job_id,
          std::to_string(status.progress), status.file, std::to_string(status.time_elapsed),
          std::to_string(status.boot_time), std::to_string(status.idle_time),
          std::to_string(status.error)})
        text += field + "|";
    return text;
}

TEST(StatusReport, ReadsWhatIsThereAndOfTheRightKind) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"printer":{"model_name":"m","cpu_id":"c","firmware":{"name":"n","version":"v"},)"
         R"("accept_version":2},"status":{"state":"s","build_plate":"b","filament":"f",)"
         R"("extruder_temperature":215.5},"job":{"id":"i","progress":50,"file":"j",)"
         R"("time_elapsed":60},"time":{"boot":70,"idle":-1},"error":4294967295})",
         "m|c|n|v|2|s|b|f|215.500000|i|50|j|60|70|-1|-1|"},
        {R"({"error":3,"errors":4})", "||||0||||0.000000||0||0|0|0|3|"},
        {R"({"errors":4})", "||||0||||0.000000||0||0|0|0|4|"},
        {R"({"error":"3","errors":4})", "||||0||||0.000000||0||0|0|0|4|"},
        {R"({"job":{"progress":"50","id":7,"file":null},"printer":[],"time":{"boot":{}}})",
         "||||0||||0.000000||0||0|0|0|0|"},
        {R"({"status":{"extruder_temperature":215,"state":{}},"printer":{"firmware":"x"}})",
         "||||0||||215.000000||0||0|0|0|0|"},
        {"[]", "||||0||||0.000000||0||0|0|0|0|"},
    };
    for (const auto& [report, expected] : cases) {
        const jovu::JsonTree tree = jovu::parse_json(report);
        Status status;
        parse_status(tree.get(), status);
        EXPECT_EQ(read_back(status), expected) << report;
    }
}

TEST(JobRequest, IsWrittenAsTheDevicesWantIt) {
    EXPECT_EQ(jovu::job_request("status"), R"({"metadata":{"version":1,"type":"status"}})");
    const std::string head = R"({"metadata":{"version":1,"type":"file_push"},"file_push":{"size":)";
    EXPECT_EQ(jovu::job_announcement({5000000000, 0xFFFFFFFF, "a\"b", std::nullopt}),
              head + R"(5000000000,"adler32":4294967295,"job_id":"a\"b"}})");
    EXPECT_EQ(jovu::job_announcement({0, 0, "", 9}),
              head + R"(0,"adler32":0,"job_id":"","compression":{"algorithm":"deflate",)"
                     R"("decompressed_length":9}}})");
}

}  // namespace
