// SPDX-License-Identifier: Apache-2.0

/// @file
/// The connection between an open file of a device node and this program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "device/file_descriptor.h"

namespace jovusim {

/// The simulator's end of one open file of a device node. umockdev's preloaded library, in the
/// program under test, sends each ioctl here and waits for the result. Until then the program's
/// memory can be read and written: a request is followed by any number of reads and writes and by
/// one completion.
///
/// umockdev has a server of its own for this. It needs several iterations of a main loop and a
/// round trip for each piece of memory, which is too slow for a device that sends continuously.
/// This class sends all writes together with the result.
///
/// Not thread-safe, except hang_up().
class IoctlLink {
public:
    explicit IoctlLink(UniqueFd socket) : socket_(std::move(socket)) {}

    struct Request {
        unsigned long code;
        unsigned long argument;  ///< often an address in the program's memory
    };

    /// Waits for the next ioctl. Returns nothing once the program has closed the file or has ended.
    std::optional<Request> next();

    /// Copies from the program's memory. Returns false when the program has ended.
    bool read(std::uint64_t address, void* to, std::size_t size);

    /// Queues a write to the program's memory, which is sent with the completion.
    void write(std::uint64_t address, const void* from, std::size_t size);

    /// Makes the ioctl return 0, or -1 with that errno.
    void complete(int error);

    /// Makes next() and read() return. Any thread.
    void hang_up();

private:
    void append(std::uint64_t type, std::uint64_t first, std::uint64_t second);
    bool receive(void* to, std::size_t size);
    void flush();

    UniqueFd socket_;
    std::string out_;
};

}  // namespace jovusim
