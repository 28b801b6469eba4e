#include "jobs/job_messages.h"

#include <gtest/gtest.h>

#include "json/json.h"

namespace {

using Status = JovuJobInterface::StatusMsg;

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

}  // namespace
