// SPDX-License-Identifier: Apache-2.0

/// @file
/// The messages of the message channel and their JSON.
#pragma once

#include <yajl/yajl_gen.h>
#include <yajl/yajl_tree.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/message_attributes.h"
#include "jovu/device_address.h"

class JovuTransport;

/// A message: an envelope of attributes and an id, and a body under "data".
///
/// Not locked. A request is written by the receiving thread (set_response()) while its sender
/// waits; the transport orders the two.
class JovuMessage {
public:
    /// A message built here, with a fresh id.
    JovuMessage(JovuTransport& transport, unsigned flags, yajl_val data);

    /// A received message.
    /// @param data belongs to the parse tree, which the transport frees after dispatch.
    JovuMessage(JovuTransport& transport, unsigned flags, unsigned id, yajl_val data);

    /// The copy has no response.
    JovuMessage(const JovuMessage& other);

    /// Keeps this message's own response.
    JovuMessage& operator=(const JovuMessage& other);

    virtual ~JovuMessage();

    /// Takes the response to this request. The receiving thread calls it; a class that reads a
    /// result from the response does so in here, for the response's tree is freed afterwards.
    virtual void set_response(std::shared_ptr<JovuMessage>& response);

    /// Writes the value of "data": an empty object.
    virtual void compile_data(yajl_gen g);

    /// Called on the receiving thread for a received message that is not a response: ignored.
    virtual void handle_receive(JovuDeviceAddress address, std::shared_ptr<JovuMessage>& msg);

    /// The command that this message requests, which strict matching compares with the one that a
    /// response names. Empty for anything but a typed command.
    virtual std::string_view command_name() const noexcept { return {}; }

    /// Moves the process's message ids on to a random number, once. A response that a process did
    /// not read before it ended stays in the device, and its id would be met again by a process
    /// that counts from 1 as well.
    /// @throws JovuException when the system has no random numbers.
    static void start_ids_anywhere();

    /// @return the complete JSON text.
    /// @throws JovuException when a value has no JSON form (NaN, an infinity), std::bad_alloc.
    std::string compile();

    /// Sends the message through its transport. Throws nothing: response_available() tells the
    /// outcome.
    void send(JovuDeviceAddress address);

    bool is_parsed() const noexcept { return data_ != nullptr; }
    bool twoway() const noexcept { return (flags_ & jovu::kTwoway) != 0; }
    bool is_response() const noexcept { return (flags_ & jovu::kResponse) != 0; }
    bool response_available() const noexcept { return response_ != nullptr; }
    unsigned id() const noexcept { return id_; }

    /// The body of a received message; null for a message built here, and once it is dispatched.
    yajl_val get_unparsed_data() const noexcept { return data_; }

    /// Forgets the body, because its tree is about to be freed.
    void forget_data() noexcept { data_ = nullptr; }

    /// @name Generator wrappers
    /// Each does what the yajl function of the same name does, whatever the locale, and returns its
    /// status.
    /// @{
    static yajl_gen_status gen_integer(yajl_gen g, long long value);
    static yajl_gen_status gen_double(yajl_gen g, double value);
    static yajl_gen_status gen_number(yajl_gen g, const std::string& literal);
    static yajl_gen_status gen_string(yajl_gen g, std::string_view text);
    static yajl_gen_status gen_null(yajl_gen g);
    static yajl_gen_status gen_bool(yajl_gen g, bool value);
    static yajl_gen_status gen_map_open(yajl_gen g);
    static yajl_gen_status gen_map_close(yajl_gen g);
    static yajl_gen_status gen_array_open(yajl_gen g);
    static yajl_gen_status gen_array_close(yajl_gen g);
    /// @}

    /// Raises a received message to the most specific class for its body: a command, an event
    /// (a body with both is a command) or a plain message.
    static std::shared_ptr<JovuMessage> elevate(const JovuMessage& msg);

protected:
    /// What a message is; the value of a command or event is its index in the body's key table.
    enum Kind : std::int32_t { kPlain = -1, kCommand = 0, kEvent = 1 };

    JovuMessage(const JovuMessage& other, Kind kind);

    JovuTransport* transport() const noexcept { return transport_; }

    std::int32_t kind_ = kPlain;

private:
    /// Ids are process-wide, start at 1 (but see start_ids_anywhere()) and wrap.
    static std::atomic<std::uint32_t> _msg_cnt;

    std::uint32_t flags_;
    std::uint32_t id_;
    JovuTransport* transport_;
    yajl_val data_;
    std::shared_ptr<JovuMessage> response_;
};

/// A message that carries one firmware command.
class JovuCommand : public JovuMessage {
public:
    explicit JovuCommand(JovuTransport& transport);
    explicit JovuCommand(const JovuMessage& msg);

    /// Writes {"command":{...}} around compile_command().
    void compile_data(yajl_gen g) override;

    /// Writes the members of the "command" object: none.
    virtual void compile_command(yajl_gen g);

    /// @name Members of a received command
    /// Null, empty or 0 when the message has no body, or the member is missing or of another kind.
    /// What is returned belongs to the message's tree.
    /// @{
    static yajl_val get_unparsed_command(const std::shared_ptr<JovuMessage>& msg);
    static std::string get_unparsed_cmd_name(const std::shared_ptr<JovuMessage>& msg);
    static int get_unparsed_cmd_idx(const std::shared_ptr<JovuMessage>& msg);
    static yajl_val get_unparsed_args(const std::shared_ptr<JovuMessage>& msg);
    static const char** get_unparsed_arg_keys(const std::shared_ptr<JovuMessage>& msg);
    static yajl_val get_unparsed_return(const std::shared_ptr<JovuMessage>& msg);
    /// @}
};

/// A message that carries one firmware event.
class JovuEvent : public JovuMessage {
public:
    explicit JovuEvent(JovuTransport& transport);
    explicit JovuEvent(const JovuMessage& msg);

    /// Executes the event object that is registered under the event's name, if there is one.
    void handle_receive(JovuDeviceAddress address, std::shared_ptr<JovuMessage>& msg) override;

    /// Decodes the arguments and calls the handler: nothing here.
    virtual void execute(JovuDeviceAddress address, std::shared_ptr<JovuMessage>& msg);

    /// @name Members of a received event; as those of a command
    /// @{
    static yajl_val get_unparsed_args(const std::shared_ptr<JovuMessage>& msg);
    static const char** get_unparsed_arg_keys(const std::shared_ptr<JovuMessage>& msg);
    /// @}
};
