// SPDX-License-Identifier: Apache-2.0
#include "mqtt/mosquitto_library.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <system_error>

#include "mqtt/error.h"

namespace jovu_mqtt {
namespace {

void check_property(int code) {
    if (code == MOSQ_ERR_NOMEM) {
        throw std::bad_alloc();
    }
    if (code != MOSQ_ERR_SUCCESS) {
        throw Error(std::string("invalid message property: ") + mosquitto_strerror(code));
    }
}

/// Frees what the library allocates for the caller.
struct FreeMemory {
    // NOLINTNEXTLINE(cppcoreguidelines-*): the library allocates by malloc().
    void operator()(void* memory) const noexcept { std::free(memory); }
};

std::string read_string(const mosquitto_property* list, int identifier) {
    char* text = nullptr;
    mosquitto_property_read_string(list, identifier, &text, false);
    const std::unique_ptr<char, FreeMemory> owner(text);
    return text != nullptr ? std::string(text) : std::string();
}

void check_readable(const std::string& path, const char* what) {
    if (!path.empty() && access(path.c_str(), R_OK) != 0) {
        throw Error(std::string("cannot read the ") + what + " '" + path +
                    "': " + std::system_category().message(errno));
    }
}

/// Has OpenSSL not ask for a passphrase on the terminal.
int refuse_passphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
    return 0;
}

void initialise_library() {
    // Once, and never cleaned up: clients may exist until the process ends.
    static const int initialised = mosquitto_lib_init();
    static_cast<void>(initialised);
}

void throw_on(int code, const char* what) {
    if (code == MOSQ_ERR_NOMEM) {
        throw std::bad_alloc();
    }
    if (code != MOSQ_ERR_SUCCESS) {
        throw Error(std::string(what) + ": " + error_string(code, errno));
    }
}

void set_tls(mosquitto* handle, const ClientOptions& options) {
    check_readable(options.ca_file, "file of trusted certificates");
    check_readable(options.certificate_file, "client certificate");
    check_readable(options.key_file, "key of the client certificate");
    if (options.certificate_file.empty() != options.key_file.empty()) {
        throw Error("a client certificate needs its key, and a key its certificate");
    }
    const auto or_null = [](const std::string& path) {
        return path.empty() ? nullptr : path.c_str();
    };
    if (options.ca_file.empty()) {
        throw_on(mosquitto_int_option(handle, MOSQ_OPT_TLS_USE_OS_CERTS, 1),
                 "the certificates that the system trusts cannot be used");
    }
    throw_on(mosquitto_tls_set(handle, or_null(options.ca_file),
                               options.ca_file.empty() ? "/etc/ssl/certs" : nullptr,
                               or_null(options.certificate_file), or_null(options.key_file),
                               refuse_passphrase),
             "the TLS files cannot be used");
}

void set_last_will(mosquitto* handle, const ClientOptions& options) {
    if (!options.last_will) {
        return;
    }
    const Message& will = *options.last_will;
    PropertyList properties;
    properties.add(will.properties);
    throw_on(
        mosquitto_will_set_v5(handle, will.topic.c_str(), static_cast<int>(will.payload.size()),
                              will.payload.data(), will.qos, will.retain, properties.release()),
        "the last will cannot be used");
}

void set_connect_properties(mosquitto* handle, const ClientOptions& options) {
    PropertyList properties;
    if (options.session_expiry.count() > 0) {
        properties.add_int32(MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                             static_cast<std::uint32_t>(options.session_expiry.count()));
    }
    if (options.max_packet_size > 0) {
        properties.add_int32(MQTT_PROP_MAXIMUM_PACKET_SIZE, options.max_packet_size);
    }
    // The asynchronous call takes no properties, and the other one connects synchronously. Called
    // without a host, that keeps the properties for later connections and fails.
    const int code = mosquitto_connect_bind_v5(handle, nullptr, options.broker.port,
                                               static_cast<int>(options.keep_alive.count()),
                                               nullptr, properties.get());
    if (code != MOSQ_ERR_INVAL) {
        throw_on(code, "the properties of the connection cannot be used");
    }
}

}  // namespace

Handle make_handle(const ClientOptions& options, void* user) {
    initialise_library();
    Handle owner(mosquitto_new(options.client_id.c_str(), options.clean_start, user));
    mosquitto* const handle = owner.get();
    if (handle == nullptr) {
        throw Error("the MQTT client id '" + options.client_id +
                    "' cannot be used: " + std::system_category().message(errno));
    }
    throw_on(mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5),
             "MQTT 5 is not available");
    // Otherwise a second small message waits for the acknowledgement of the first: 40 ms.
    throw_on(mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1),
             "cannot prepare the MQTT client");
    // Not a thread of the library: publishing queues a packet, and serve() writes it.
    throw_on(mosquitto_threaded_set(handle, true), "cannot prepare the MQTT client");
    if (!options.user.empty()) {
        throw_on(mosquitto_username_pw_set(
                     handle, options.user.c_str(),
                     options.password.empty() ? nullptr : options.password.c_str()),
                 "the user name or the password cannot be used");
    }
    if (options.broker.tls) {
        set_tls(handle, options);
    }
    set_last_will(handle, options);
    set_connect_properties(handle, options);
    return owner;
}

void PropertyList::add_int32(int identifier, std::uint32_t value) {
    check_property(mosquitto_property_add_int32(&head_, identifier, value));
}

void PropertyList::add_string(int identifier, const std::string& value) {
    if (!value.empty()) {
        check_property(mosquitto_property_add_string(&head_, identifier, value.c_str()));
    }
}

void PropertyList::add_binary(int identifier, const std::string& value) {
    if (!value.empty()) {
        check_property(mosquitto_property_add_binary(
            &head_, identifier, value.data(),
            static_cast<std::uint16_t>(std::min<std::size_t>(value.size(), 65535))));
    }
}

void PropertyList::add(const Properties& properties) {
    add_string(MQTT_PROP_RESPONSE_TOPIC, properties.response_topic);
    add_binary(MQTT_PROP_CORRELATION_DATA, properties.correlation_data);
    add_string(MQTT_PROP_CONTENT_TYPE, properties.content_type);
    if (properties.expiry) {
        add_int32(MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                  static_cast<std::uint32_t>(properties.expiry->count()));
    }
}

Properties read_properties(const mosquitto_property* list) {
    Properties properties;
    properties.response_topic = read_string(list, MQTT_PROP_RESPONSE_TOPIC);
    properties.content_type = read_string(list, MQTT_PROP_CONTENT_TYPE);
    void* bytes = nullptr;
    std::uint16_t length = 0;
    mosquitto_property_read_binary(list, MQTT_PROP_CORRELATION_DATA, &bytes, &length, false);
    const std::unique_ptr<void, FreeMemory> owner(bytes);
    if (bytes != nullptr) {
        properties.correlation_data.assign(static_cast<const char*>(bytes), length);
    }
    std::uint32_t seconds = 0;
    if (mosquitto_property_read_int32(list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &seconds, false) !=
        nullptr) {
        properties.expiry = std::chrono::seconds(seconds);
    }
    return properties;
}

std::string error_string(int code, int error_number) {
    if (code >= kFirstErrorReason) {
        return mosquitto_reason_string(code);
    }
    if (code == MOSQ_ERR_KEEPALIVE) {  // The library has no text for it.
        return "the broker no longer responds";
    }
    if (code == MOSQ_ERR_ERRNO) {
        return std::system_category().message(error_number);
    }
    std::string text = mosquitto_strerror(code);
    while (!text.empty() && text.back() == '.') {
        text.pop_back();
    }
    return text;
}

}  // namespace jovu_mqtt
