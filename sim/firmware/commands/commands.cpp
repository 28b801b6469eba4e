// SPDX-License-Identifier: Apache-2.0
#include "firmware/commands/commands.h"

#include <limits>

#include "firmware/base/host_input.h"

namespace jovusim {

std::size_t Command::argument_count() const {
    std::size_t count = 0;
    while (count < arguments.size() && arguments[count].key != nullptr)
        ++count;
    return count;
}

const Command* find_command(const std::string& name) {
    for (const auto family :
         {system_commands, heater_commands, wifi_commands, servo_commands, storage_commands}) {
        for (const Command& command : family()) {
            if (name == command.name) return &command;
        }
    }
    return nullptr;
}

namespace {

constexpr const char* kMessageChannel = "message channel: ";

const Json* member(const Json& object, const char* key) {
    const auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

Json member_or_null(const Json& object, const char* key) {
    const Json* value = member(object, key);
    return value == nullptr ? Json() : *value;
}

/// Reads the envelope. Returns whether there is an id.
bool read_envelope(const Json& transport, Request& request, ProtocolViolations& violations) {
    if (!has_members(transport, {"attrs", "id"})) {
        violations.add(kMessageChannel +
                       std::string("the members of \"transport\" are not attrs, id: ") +
                       excerpt(transport.dump()));
    }
    const Json attrs = member_or_null(transport, "attrs");
    if (attrs != Json::array({"request", "twoway"})) {
        violations.add(kMessageChannel + std::string("the attrs of a command are ") + attrs.dump());
    }
    if (attrs.is_array()) {
        for (const Json& word : attrs) {
            if (word == "oneway") request.response_wanted = false;
        }
    }
    const Json* id = member(transport, "id");
    if (id == nullptr || !id->is_number_unsigned() ||
        *id > std::numeric_limits<std::uint32_t>::max()) {
        violations.add(kMessageChannel + std::string("the id of a request is ") +
                       (id == nullptr ? "missing" : excerpt(id->dump())));
        return false;
    }
    request.id = id->get<std::uint32_t>();
    return true;
}

std::string argument_violation(const std::string& who, const std::string& key,
                               const std::string& what) {
    return who + "argument \"" + key + "\"" + what;
}

/// Checks the arguments of a request. Returns whether the command can be carried out with them.
bool arguments_fit(const Command& command, const Json& body, ProtocolViolations& violations) {
    const std::string who = kMessageChannel + std::string(command.name) + ": ";
    const Json* args = member(body, "args");
    if (command.argument_count() == 0) {
        if (args == nullptr) return true;
        violations.add(who + "takes no arguments and came with \"args\"");
        return false;
    }
    if (args == nullptr || !args->is_object() || args->size() != command.argument_count()) {
        violations.add(who + "\"args\" is " +
                       (args == nullptr ? "missing" : excerpt(args->dump())));
        return false;
    }
    bool fit = true;
    auto rule = command.arguments.begin();
    for (const auto& [key, value] : args->items()) {
        if (key != rule->key) {
            violations.add(argument_violation(who, excerpt(key),
                                              std::string(" instead of \"") + rule->key + "\""));
            fit = false;
        } else if (const auto fault = check_value(value, *rule->rule)) {
            const bool nested = fault->front() == '[' || fault->front() == '.';
            violations.add(argument_violation(who, key, (nested ? "" : " ") + *fault));
            fit = false;
        }
        ++rule;
    }
    return fit;
}

const Command* read_command(const Json& body, Request& request, ProtocolViolations& violations) {
    request.idx = member_or_null(body, "idx");
    request.name = member_or_null(body, "name");
    request.args = member_or_null(body, "args");
    if (!has_members(body, {"idx", "name"}) && !has_members(body, {"idx", "name", "args"})) {
        violations.add(kMessageChannel +
                       std::string("the members of \"command\" are not idx, name, args: ") +
                       excerpt(body.dump()));
    }
    const Command* command =
        request.name.is_string() ? find_command(request.name.get<std::string>()) : nullptr;
    if (command == nullptr) {
        violations.add(kMessageChannel + std::string("unknown command: ") +
                       excerpt(request.name.dump()));
        return nullptr;
    }
    if (request.idx != command->idx || !request.idx.is_number_integer()) {
        violations.add(kMessageChannel + std::string(command->name) + ": idx is " +
                       request.idx.dump() + ", not " + std::to_string(command->idx));
        return nullptr;
    }
    return arguments_fit(*command, body, violations) ? command : nullptr;
}

}  // namespace

std::optional<Request> read_request(const std::string& payload, ProtocolViolations& violations) {
    const Json root = parse_json(payload);
    if (root.is_discarded()) {
        violations.add(kMessageChannel + std::string("not JSON, or nested too deeply: ") +
                       excerpt(payload));
        return std::nullopt;
    }
    if (!root.is_object()) {
        violations.add(kMessageChannel + std::string("not an object: ") + excerpt(payload));
        return std::nullopt;
    }
    if (has_blanks(payload)) {
        violations.add(kMessageChannel + std::string("blanks in the JSON: ") + excerpt(payload));
    }
    if (!has_members(root, {"transport", "data"})) {
        violations.add(kMessageChannel +
                       std::string("the members of a message are not transport, data: ") +
                       excerpt(payload));
    }
    const Json transport = member_or_null(root, "transport");
    const Json data = member_or_null(root, "data");
    const Json* body = data.is_object() ? member(data, "command") : nullptr;
    if (!transport.is_object() || body == nullptr || !body->is_object()) {
        violations.add(kMessageChannel + std::string("no command: ") + excerpt(payload));
        return std::nullopt;
    }
    if (data.size() != 1) {
        violations.add(kMessageChannel + std::string("more than a command in \"data\": ") +
                       excerpt(payload));
    }
    Request request;
    if (!read_envelope(transport, request, violations)) return std::nullopt;
    request.command = read_command(*body, request, violations);
    return request;
}

}  // namespace jovusim
