// SPDX-License-Identifier: Apache-2.0
#include "firmware/base/structures.h"
#include "firmware/base/values.h"
#include "firmware/commands/commands.h"

namespace jovusim {

namespace {

Servo* find_servo(CommandContext& context) {
    return context.machine.servos().find(context.arg<std::int32_t>("servo_name"));
}

/// The wire form of a float.
Json single(double value) {
    return static_cast<float>(value);
}

Json config_to_json(const ServoConfig& config) {
    const ServoGains& gains = config.gains;
    return {{"interrupt_frequency", config.interrupt_frequency},
            {"gains",
             {{"kp", single(gains.kp)},
              {"ki", single(gains.ki)},
              {"kd", single(gains.kd)},
              {"ka", single(gains.ka)},
              {"kv", single(gains.kv)},
              {"kf", single(gains.kf)}}},
            {"pwm_cap", config.pwm_cap},
            {"pwm_cap_time", config.pwm_cap_time},
            {"units", config.units},
            {"pos_res_eu_per_mm", single(config.units_per_mm)},
            {"vel_res_mm_per_sec", single(config.velocity_resolution)},
            {"speed_max", single(config.speed_max)},
            {"accel_max", single(config.accel_max)},
            {"move_dist_min_static", config.move_dist_min_static},
            {"move_dist_min_dynamic", config.move_dist_min_dynamic},
            {"trace", config.trace}};
}

ServoConfig config_from_json(const Json& json) {
    const Json& gains = json["gains"];
    ServoConfig config;
    config.interrupt_frequency = json["interrupt_frequency"].get<std::uint16_t>();
    config.gains = {gains["kp"], gains["ki"], gains["kd"], gains["ka"], gains["kv"], gains["kf"]};
    config.pwm_cap = json["pwm_cap"].get<std::int32_t>();
    config.pwm_cap_time = json["pwm_cap_time"].get<std::uint32_t>();
    config.units = json["units"].get<std::uint32_t>();
    config.units_per_mm = json["pos_res_eu_per_mm"].get<double>();
    config.velocity_resolution = json["vel_res_mm_per_sec"].get<double>();
    config.speed_max = json["speed_max"].get<double>();
    config.accel_max = json["accel_max"].get<double>();
    config.move_dist_min_static = json["move_dist_min_static"].get<std::uint32_t>();
    config.move_dist_min_dynamic = json["move_dist_min_dynamic"].get<std::uint32_t>();
    config.trace = json["trace"].get<std::uint32_t>();
    return config;
}

Json order_to_json(const MoveOrder& order) {
    return {{"move_type", order.type},
            {"start_sync", int{order.start_sync}},
            {"target", order.target},
            {"distance", single(order.distance)},
            {"speed_f", single(order.limits.speed)},
            {"accel_f", single(order.limits.accel)},
            {"decel_f", single(order.limits.decel)},
            {"max_cycles", order.max_cycles},
            {"metric_skip", order.metric_skip},
            {"speed_offset_upramp_f", single(0)},
            {"speed_offset_downramp_f", single(0)},
            {"ignore_stalls", int{order.ignore_stalls}},
            {"slaved", int{order.slaved}},
            {"slave_ratio", single(order.slave_ratio)}};
}

/// The speed offsets of the ramps have no effect.
MoveOrder order_from_json(const Json& json) {
    MoveOrder order;
    order.type = json["move_type"].get<std::uint32_t>();
    order.start_sync = json["start_sync"] != 0;
    order.target = json["target"].get<double>();
    order.distance = json["distance"].get<double>();
    order.limits = {json["speed_f"], json["accel_f"], json["decel_f"]};
    order.max_cycles = json["max_cycles"].get<std::uint32_t>();
    order.metric_skip = json["metric_skip"].get<std::uint32_t>();
    order.ignore_stalls = json["ignore_stalls"] != 0;
    order.slaved = json["slaved"] != 0;
    order.slave_ratio = json["slave_ratio"].get<double>();
    return order;
}

MoveModifier modifier_from_json(const Json& json) {
    MoveModifier modifier;
    modifier.type = json["type"].get<std::uint32_t>();
    modifier.position = json["pos"].get<double>();
    modifier.limits = {json["vel"], json["accel"], json["decel"]};
    if (json["use_validation_pos"] != 0) {
        modifier.validation_position = json["validation_pos"].get<double>();
    }
    return modifier;
}

Json servo_dc_config_get(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return config_to_json(servo == nullptr ? ServoConfig() : servo->config());
}

Json servo_dc_config_set(CommandContext& context) {
    Servo* servo = find_servo(context);
    if (servo == nullptr || !servo->configure(config_from_json(context.args["config"]))) {
        context.debug_lines.emplace_back("servo: configuration refused");
    }
    return kNoResult;
}

Json servo_dc_move_default(CommandContext&) {
    return order_to_json(MoveOrder());
}

Json servo_dc_move(CommandContext& context) {
    Servo* servo = find_servo(context);
    if (servo == nullptr) return static_cast<int>(MoveResult::no_servo);
    return static_cast<int>(servo->move(order_from_json(context.args["move_config"][0])));
}

Json servo_dc_move_start_sync(CommandContext& context) {
    context.machine.servos().start_waiting_moves();
    return kNoResult;
}

Json servo_dc_move_active(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return int{servo != nullptr && servo->active()};
}

Json servo_dc_put_idle(CommandContext& context) {
    Servo* servo = find_servo(context);
    if (servo != nullptr) servo->put_idle();
    return int{servo != nullptr};
}

/// Runs work with the modifier. Only one is on the wire, whatever the count is.
ModifyResult with_modifier(CommandContext& context, const char* key,
                           ModifyResult (*work)(Servo&, const MoveModifier&, CommandContext&)) {
    const Json& json = context.args[key][0];
    Servo* servo = context.machine.servos().find(json["servo_name"].get<std::int32_t>());
    if (servo == nullptr) return ModifyResult::no_servo;
    if (json["active"] == 0 || context.args["count"] == 0) return ModifyResult::ok;
    return work(*servo, modifier_from_json(json), context);
}

Json servo_dc_move_modify(CommandContext& context) {
    const auto modify = [](Servo& servo, const MoveModifier& modifier, CommandContext& within) {
        return servo.modify(modifier, within.flag("validate"));
    };
    return static_cast<int>(with_modifier(context, "modifer_data", modify));
}

Json servo_dc_move_modifier_validate(CommandContext& context) {
    const auto check = [](Servo& servo, const MoveModifier& modifier, CommandContext&) {
        return servo.check(modifier);
    };
    return int{with_modifier(context, "modifier_data", check) == ModifyResult::ok};
}

Json servo_dc_move_metrics_get(CommandContext& context) {
    const Servo* servo = find_servo(context);
    const MoveMetrics metrics = servo == nullptr ? MoveMetrics() : servo->metrics();
    return {{"n", metrics.n}, {"mean", single(metrics.mean)}, {"M2", single(metrics.m2)}};
}

Json servo_dc_move_dir_get(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return static_cast<int>(servo == nullptr ? MoveDirection::stationary : servo->direction());
}

Json servo_dc_position_get(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return servo == nullptr ? 0 : servo->to_native(servo->position());
}

Json servo_dc_position_get_client(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return single(servo == nullptr ? 0 : servo->position());
}

Json servo_dc_position_set(CommandContext& context) {
    Servo* servo = find_servo(context);
    if (servo != nullptr) servo->set_position(servo->to_client(context.arg<int>("position")));
    return kNoResult;
}

Json servo_dc_position_set_client(CommandContext& context) {
    Servo* servo = find_servo(context);
    if (servo != nullptr) {
        const int native = servo->to_native(context.arg<double>("position"));
        servo->set_position(servo->to_client(native));
    }
    return kNoResult;
}

Json servo_dc_target_get_client(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return single(servo == nullptr ? 0 : servo->target());
}

Json servo_dc_units_client_to_native(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return servo == nullptr ? 0 : servo->to_native(context.arg<double>("pos_client"));
}

Json servo_dc_units_native_to_client(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return single(servo == nullptr ? 0 : servo->to_client(context.arg<int>("pos_native")));
}

Json servo_dc_name_str_get(CommandContext& context) {
    const Servo* servo = find_servo(context);
    return string_to_json(servo == nullptr ? "" : servo->name());
}

Json servo_dc_backlash_set(CommandContext& context) {
    Servo* servo = find_servo(context);
    if (servo != nullptr) {
        servo->set_backlash(context.arg<int>("backlash_value"), context.flag("flush"));
    }
    return kNoResult;
}

Json servo_dc_trace_enable(CommandContext& context) {
    Servo* servo = find_servo(context);
    if (servo != nullptr) servo->set_trace(context.flag("enable"));
    return kNoResult;
}

constexpr Member kServo{"servo_name", &kServoName};

constexpr Command kServoRows[] = {
    {30, "servo_dc_config_get", servo_dc_config_get, {{kServo}}},
    {31,
     "servo_dc_config_set",
     servo_dc_config_set,
     {{kServo, {"config", &structure::kServoConfig}}}},
    {32, "servo_dc_move_default", servo_dc_move_default, {}},
    {33,
     "servo_dc_move",
     servo_dc_move,
     {{kServo, {"move_config", &structure::kServoMovePointer}}}},
    {34, "servo_dc_move_start_sync", servo_dc_move_start_sync, {}},
    {35, "servo_dc_move_active", servo_dc_move_active, {{kServo}}},
    {36, "servo_dc_put_idle", servo_dc_put_idle, {{kServo}}},
    // "modifer_data" is the spelling on the wire.
    {37,
     "servo_dc_move_modify",
     servo_dc_move_modify,
     {{{"modifer_data", &structure::kServoModifierPointer},
       {"count", &kUnsigned},
       {"validate", &kBoolean}}}},
    {38,
     "servo_dc_move_modifier_validate",
     servo_dc_move_modifier_validate,
     {{{"modifier_data", &structure::kServoModifierPointer}, {"count", &kUnsigned}}}},
    {39, "servo_dc_move_metrics_get", servo_dc_move_metrics_get, {{kServo}}},
    {40, "servo_dc_move_dir_get", servo_dc_move_dir_get, {{kServo}}},
    {41, "servo_dc_position_get", servo_dc_position_get, {{kServo}}},
    {42, "servo_dc_position_get_client", servo_dc_position_get_client, {{kServo}}},
    {43, "servo_dc_position_set", servo_dc_position_set, {{kServo, {"position", &kInt}}}},
    {44,
     "servo_dc_position_set_client",
     servo_dc_position_set_client,
     {{kServo, {"position", &kFloat}}}},
    {45, "servo_dc_target_get_client", servo_dc_target_get_client, {{kServo}}},
    {46,
     "servo_dc_units_client_to_native",
     servo_dc_units_client_to_native,
     {{kServo, {"pos_client", &kFloat}}}},
    {47,
     "servo_dc_units_native_to_client",
     servo_dc_units_native_to_client,
     {{kServo, {"pos_native", &kInt}}}},
    {48, "servo_dc_name_str_get", servo_dc_name_str_get, {{kServo}}},
    {49,
     "servo_dc_backlash_set",
     servo_dc_backlash_set,
     {{kServo, {"backlash_value", &kShort}, {"flush", &kBoolean}}}},
    {50, "servo_dc_trace_enable", servo_dc_trace_enable, {{kServo, {"enable", &kBoolean}}}},
};

}  // namespace

CommandRows servo_commands() {
    return {kServoRows, std::size(kServoRows)};
}

}  // namespace jovusim
