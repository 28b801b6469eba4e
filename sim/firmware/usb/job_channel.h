/// @file
/// The firmware's end of the job channel: requests, job data, status reports.
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

/// Reads bare JSON objects and, behind an announcement, as many raw bytes as it announced: whatever
/// comes before the last of them is job data, also a request. Bytes that stop coming for ten
/// seconds end the push with an error.
class JobChannel {
public:
    JobChannel(const Identity& identity, Machine& machine, ResponseFaults& faults,
               ProtocolViolations& violations);

    void receive(const std::uint8_t* data, std::size_t size, Millis now);

    /// Gives up on a push or an object whose bytes have stopped coming.
    void tick(Millis now);

    /// Drops an object that has begun and all output, and ends a push that is arriving.
    void reset();

    /// Queues that many status reports at once.
    void flood(std::uint64_t reports);

    TransmitQueue& transmit_queue() { return transmit_queue_; }
    const TransmitQueue& transmit_queue() const { return transmit_queue_; }
    Json stats() const;

private:
    /// Cuts one object out of the stream: braces are counted outside strings only.
    struct ObjectScanner {
        std::string text;
        int depth = 0;
        bool in_string = false;
        bool escaped = false;

        bool take(char c);  ///< returns whether the object is complete
    };

    /// The push that is arriving or has arrived last.
    struct Push {
        std::uint64_t size = 0;
        std::uint64_t received = 0;
        std::uint32_t announced_sum = 0;
        std::uint32_t sum = 0;
        bool accepted = false;  ///< the bytes are kept; otherwise the machine was busy
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
    std::uint64_t bytes_remaining_ = 0;  ///< bytes of the announced size that have not come yet
    Push push_;
    Millis last_byte_ = 0;
    std::uint64_t pushes_ = 0;
    std::map<std::string, std::uint64_t> requests_;
};

}  // namespace jovusim
