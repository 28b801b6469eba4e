// SPDX-License-Identifier: Apache-2.0

/// @file
/// The job channel of the firmware: requests and job data in, status reports out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "firmware/base/host_input.h"
#include "firmware/commands/commands.h"
#include "firmware/machine/machine.h"
#include "firmware/usb/transmit_queue.h"

namespace jovusim {

/// Reads JSON objects and, after an announcement, the announced number of raw bytes. Until the last
/// of them everything is job data. A push whose bytes stop for ten seconds fails.
class JobChannel {
public:
    JobChannel(const Identity& identity, Machine& machine, ResponseFaults& faults,
               ProtocolViolations& violations);

    void receive(const std::uint8_t* data, std::size_t size, Millis now);

    /// Fails an incomplete push or object whose bytes have stopped.
    void tick(Millis now);

    /// Drops an incomplete object and all output, and fails an incomplete push.
    void reset();

    /// Queues that many status reports at once.
    void flood(std::uint64_t reports);

    TransmitQueue& transmit_queue() { return transmit_queue_; }
    const TransmitQueue& transmit_queue() const { return transmit_queue_; }
    Json stats() const;

private:
    /// Finds the end of an object by counting braces outside strings.
    struct ObjectScanner {
        std::string text;
        int depth = 0;
        bool in_string = false;
        bool escaped = false;

        bool take(char c);  ///< returns whether the object is complete
    };

    /// The current or the last push.
    struct Push {
        std::uint64_t size = 0;
        std::uint64_t received = 0;
        std::uint32_t announced_sum = 0;
        std::uint32_t sum = 0;
        bool accepted = false;  ///< false: the machine was busy, the bytes are discarded
        bool verified = false;
    };

    std::size_t take_data(const std::uint8_t* data, std::size_t size);
    void finish_push();
    void end_push();
    void take_text(char c, Millis now);
    void handle(const std::string& text, Millis now);
    void handle_request(const std::string& type, const std::string& text, const Json& object,
                        Millis now);
    void begin_push(const std::string& text, const Json& object);
    void send_status(Millis now);
    std::string status_report() const;
    bool in_push() const { return bytes_remaining_ > 0; }

    const Identity& identity_;
    Machine& machine_;
    ResponseFaults& faults_;
    ProtocolViolations& violations_;
    TransmitQueue transmit_queue_;
    ObjectScanner scanner_;
    bool stray_reported_ = false;
    std::uint64_t bytes_remaining_ = 0;  ///< of the announced size
    Push push_;
    Millis last_byte_ = 0;
    std::uint64_t pushes_ = 0;
    std::map<std::string, std::uint64_t> requests_;
};

}  // namespace jovusim
