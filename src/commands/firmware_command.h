// SPDX-License-Identifier: Apache-2.0

/// @file
/// A command with typed arguments and a typed result.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "commands/structure_codec.h"
#include "core/message.h"

/// Writes a tuple of arguments, each under its key.
struct CmdArgSerializer {
    /// @param keys as many as the tuple has elements.
    template <class... Args>
    static void for_each(yajl_gen gen, std::tuple<Args...>& args, std::vector<std::string>& keys) {
        for_each(gen, args, keys, std::index_sequence_for<Args...>());
    }

private:
    template <class Tuple, std::size_t... I>
    static void for_each(yajl_gen gen, Tuple& args, std::vector<std::string>& keys,
                         std::index_sequence<I...> /*indices*/) {
        (cmd_ifc_serialize_type(gen, keys[I].c_str(), std::get<I>(args)), ...);
    }
};

/// Reads a tuple of arguments by position: the i-th member of an object is the i-th argument,
/// whatever its key.
struct CmdArgDeserializer {
    /// Members that are missing or of another kind leave their argument as it was.
    /// @param keys the object's keys, @p count of them.
    template <class... Args>
    static void for_each(const char** keys, std::size_t count, yajl_val args,
                         std::tuple<Args...>& out, std::vector<std::string>& keys_out) {
        for_each(keys, count, args, out, keys_out, std::index_sequence_for<Args...>());
    }

private:
    template <class Tuple, std::size_t... I>
    static void for_each(const char** keys, std::size_t count, yajl_val args, Tuple& out,
                         std::vector<std::string>& keys_out,
                         std::index_sequence<I...> /*indices*/) {
        (deserialize_arg(I < count ? keys[I] : nullptr, args, std::get<I>(out), keys_out[I]), ...);
    }

    template <class T>
    static void deserialize_arg(const char* key, yajl_val args, T& out, std::string& key_out) {
        if (key == nullptr) return;
        key_out = key;
        cmd_ifc_deserialize_type(args, key, out);
    }
};

/// One exchange of one command: built on the caller's stack, sent once, read, destroyed.
/// @tparam R the type of the reply's "__return__".
/// @tparam Args the argument types.
template <class R, class... Args>
class JovuFirmwareCommand : public JovuCommand {
public:
    /// @param name the command's name on the wire.
    /// @param idx the command's fixed index.
    /// @param args copied; a shared pointer is shared, not copied deeply.
    /// @param keys one per argument.
    JovuFirmwareCommand(JovuTransport& transport, std::string name, int idx,
                        std::tuple<Args...> args, std::vector<std::string> keys)
        : JovuCommand(transport),
          args_(std::move(args)),
          arg_keys_(std::move(keys)),
          name_(std::move(name)),
          idx_(idx) {}

    std::string_view command_name() const noexcept override { return name_; }

    /// The form without arguments.
    JovuFirmwareCommand(JovuTransport& transport, std::string name, int idx)
        : JovuFirmwareCommand(transport, std::move(name), idx, std::tuple<Args...>(), {}) {}

    /// Writes "idx", "name" and, if there are arguments, "args".
    void compile_command(yajl_gen g) override {
        gen_string(g, "idx");
        gen_integer(g, idx_);
        gen_string(g, "name");
        gen_string(g, name_);
        if (arg_keys_.empty()) return;
        gen_string(g, "args");
        gen_map_open(g);
        CmdArgSerializer::for_each(g, args_, arg_keys_);
        gen_map_close(g);
    }

    /// Reads the result, and keeps the reply as a typed command of its own with the arguments that
    /// the device echoed; the caller's argument buffers are never written. A reply without a result
    /// leaves the result zero; one whose result is of another kind counts as no reply, unless the
    /// command discards its result.
    void set_response(std::shared_ptr<JovuMessage>& reply) override {
        const yajl_val command = get_unparsed_command(reply);
        const bool returned = command != nullptr && get_unparsed_return(reply) != nullptr;
        R result{};
        if (returned && !cmd_ifc_deserialize_type(command, "__return__", result) &&
            !discards_result_) {
            return;
        }
        std::tuple<Args...> echoed{};
        std::vector<std::string> keys(sizeof...(Args));
        const yajl_val args = get_unparsed_args(reply);
        if (args != nullptr) {
            CmdArgDeserializer::for_each(get_unparsed_arg_keys(reply), YAJL_GET_OBJECT(args)->len,
                                         args, echoed, keys);
        }
        std::shared_ptr<JovuMessage> typed = std::make_shared<JovuFirmwareCommand>(
            *transport(), get_unparsed_cmd_name(reply), get_unparsed_cmd_idx(reply),
            std::move(echoed), std::move(keys));
        JovuCommand::set_response(typed);
        // Last, when memory can run out no more: a failed exchange must not have a result.
        if (returned) result_ = std::move(result);
    }

    /// What the device returned; zero-initialised until then. Read it after send() has returned.
    R& result() noexcept { return result_; }

    const std::tuple<Args...>& args() const noexcept { return args_; }

protected:
    /// For a command whose result nobody reads: any kind of "__return__" will do, such as null.
    void discard_result() noexcept { discards_result_ = true; }

private:
    std::tuple<Args...> args_;
    std::vector<std::string> arg_keys_;
    std::string name_;
    std::int32_t idx_;
    R result_{};
    bool discards_result_ = false;
};

/// A command without arguments. The `int` is a dummy that is never sent.
template <class R>
class JovuFirmwareCommandNoArg : public JovuFirmwareCommand<R, int> {
public:
    JovuFirmwareCommandNoArg(JovuTransport& transport, std::string name, int idx)
        : JovuFirmwareCommand<R, int>(transport, std::move(name), idx) {}
};

/// A command whose result is read and discarded.
template <class... Args>
class VoidJovuFirmwareCommand : public JovuFirmwareCommand<int, Args...> {
public:
    VoidJovuFirmwareCommand(JovuTransport& transport, std::string name, int idx,
                            std::tuple<Args...> args, std::vector<std::string> keys)
        : JovuFirmwareCommand<int, Args...>(transport, std::move(name), idx, std::move(args),
                                            std::move(keys)) {
        this->discard_result();
    }
};

/// A command without arguments whose result is read and discarded.
class VoidJovuFirmwareCommandNoArg : public JovuFirmwareCommand<int, int> {
public:
    VoidJovuFirmwareCommandNoArg(JovuTransport& transport, std::string name, int idx)
        : JovuFirmwareCommand<int, int>(transport, std::move(name), idx) {
        discard_result();
    }
};
