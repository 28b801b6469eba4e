// SPDX-License-Identifier: Apache-2.0

/// @file
/// Requests as they arrive from the broker, read and checked without a device or a broker.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "bridge/job_source.h"
#include "cli/json.h"
#include "mqtt/topics.h"

namespace jovu_cli {
struct FirmwareCommand;
}

namespace jovu_bridge {

/// A message as it arrives.
struct IncomingMessage {
    std::string topic;
    std::string payload;
    std::string response_topic;  ///< Empty for none.
    std::string correlation;     ///< Any bytes; empty for none.
    bool retained = false;
    std::optional<std::chrono::seconds> expiry;  ///< Time that is left of the message's life.
};

/// What the configuration permits.
struct RequestRules {
    jovu_mqtt::Topics topics;
    /// Patterns of commands, as matches_any() takes them.
    std::vector<std::string> commands{"*", "!Enter_dfu_mode", "!Reset_printer"};
    std::vector<std::string> read_only;  ///< Patterns of serial numbers.
    std::size_t max_payload = 65536;     ///< Bytes.
    std::size_t max_lines = 1000;
    std::chrono::milliseconds max_trace{60000};
};

/// Where a response goes.
struct ReplyTo {
    std::string topic;  ///< Empty: no response is sent.
    std::string correlation;
};

/// Calls one of the firmware's commands.
struct CallRequest {
    const jovu_cli::FirmwareCommand* command = nullptr;
    std::shared_ptr<const jovu_cli::Json> arguments;  ///< Checked, for FirmwareCommand::call().
    std::optional<std::chrono::milliseconds> timeout;
};

/// Runs lines of gcode.
struct GcodeRequest {
    std::vector<std::string> lines;    ///< Without comments; none is blank.
    std::vector<std::size_t> numbers;  ///< Of each line within the request, from 1.
    bool keep_going = false;
};

/// Requests about the running job, and for a status report.
enum class Control { pause, resume, abort, status };

/// Fetches and sends a job.
struct JobRequest {
    JobReference reference;
    std::string name;   ///< For people; at most 255 bytes.
    bool wait = false;  ///< The response follows at the end of the job.
};

/// Traces a servo.
struct TraceRequest {
    std::uint32_t servo = 0;
    std::chrono::milliseconds length{};
};

/// A request that is well-formed and permitted.
struct Request {
    std::string device;     ///< The serial number, or what stands for it.
    std::string operation;  ///< "call/NAME", "gcode", "pause", "resume", "abort", "status", "job"
                            ///< or "trace".
    std::string id;         ///< Empty only if it is reading and has none.
    bool reading = false;   ///< It changes nothing, and so may be carried out again.
    std::string digest;     ///< Of operation and content, 64 hexadecimal digits.
    ReplyTo reply;
    std::optional<std::chrono::seconds> expiry;
    std::variant<CallRequest, GcodeRequest, Control, JobRequest, TraceRequest> content;
};

/// A request that is not carried out.
struct Refusal {
    std::string device;     ///< Empty when the topic is none of a request.
    std::string operation;  ///< Likewise.
    std::string id;         ///< Empty when it cannot be read.
    ReplyTo reply;          ///< No topic when that of the request is not permitted.
    std::string code;     ///< "invalid_request", "unknown_operation", "not_allowed", "read_only" or
                          ///< "too_large".
    std::string message;  ///< Names the value.
};

/// Reads a request. Allocates in proportion to the message, and throws only std::bad_alloc.
std::variant<Request, Refusal> parse_request(const IncomingMessage& message,
                                             const RequestRules& rules);

/// Whether a command of the firmware changes nothing.
bool is_reading(std::string_view command);

}  // namespace jovu_bridge
