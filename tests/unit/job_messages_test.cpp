#include "jobs/job_messages.h"

#include <gtest/gtest.h>

#include <sstream>

#include "json/json.h"

namespace {

using Status = JovuJobInterface::StatusMsg;

std::string read_back(const Status& status) {
    const auto& [model, cpu, firmware, version, accepted] = status.printer;
    std::ostringstream text;
    text << model << '|' << cpu << '|' << firmware << '|' << version << '|' << accepted << '|'
         << status.state << '|' << status.build_plate << '|' << status.filament << '|'
         << status.extruder_temperature << '|' << status.job_id << '|' << status.progress << '|'
         << status.file << '|' << status.time_elapsed << '|' << status.boot_time << '|'
         << status.idle_time << '|' << status.error;
    return text.str();
}

TEST(StatusReport, ReadsWhatIsThereAndOfTheRightKind) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"printer":{"model_name":"m","cpu_id":"c","firmware":{"name":"n","version":"v"},)"
         R"("accept_version":2},"status":{"state":"s","build_plate":"b","filament":"f",)"
         R"("extruder_temperature":215.5},"job":{"id":"i","progress":50,"file":"j",)"
         R"("time_elapsed":60},"time":{"boot":70,"idle":-1},"error":4294967295})",
         "m|c|n|v|2|s|b|f|215.5|i|50|j|60|70|-1|-1"},
        {R"({"error":3,"errors":4})", "||||0||||0||0||0|0|0|3"},
        {R"({"errors":4})", "||||0||||0||0||0|0|0|4"},
        {R"({"error":"3","errors":4})", "||||0||||0||0||0|0|0|4"},
        {R"({"job":{"progress":"50","id":7,"file":null},"printer":[],"time":{"boot":{}}})",
         "||||0||||0||0||0|0|0|0"},
        {R"({"status":{"extruder_temperature":215,"state":{}},"printer":{"firmware":"x"}})",
         "||||0||||215||0||0|0|0|0"},
        {"[]", "||||0||||0||0||0|0|0|0"},
    };
    for (const auto& [report, expected] : cases) {
        const jovu::JsonTree tree = jovu::parse_json(report);
        Status status;
        parse_status(tree.get(), status);
        EXPECT_EQ(read_back(status), expected) << report;
    }
}

}  // namespace
