/// @file
/// The wire between an open file of a device node and this program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "bus/file_descriptor.h"

namespace jovusim {

/// The simulator's end of one open file of a device node, in a program with the testbed's library
/// preloaded. The library sends each ioctl here and waits, lending its memory until it is told the
/// result: a request is followed by any number of reads and by one completion.
///
/// The testbed brings a server of its own for this. It takes several turns of a main loop and a
/// round trip for each piece of memory, which is too slow for a device that talks all the time;
/// here everything that is written travels together with the result.
///
/// For one thread, but for hang_up().
class IoctlLink {
public:
    explicit IoctlLink(UniqueFd socket) : socket_(std::move(socket)) {}

    struct Request {
        unsigned long code;
        unsigned long argument;  ///< often an address in the program's memory
    };

    /// The next ioctl; nothing once the program has closed the file or has died.
    std::optional<Request> next();

    /// Copies from the program's memory. Returns false when the program has died.
    bool read(std::uint64_t address, void* to, std::size_t size);

    /// Writes to the program's memory, together with the completion.
    void write(std::uint64_t address, const void* from, std::size_t size);

    /// Lets the ioctl return: 0, or -1 with that errno.
    void complete(int error);

    /// Ends next() and read(). Any thread, as long as the object exists.
    void hang_up();

private:
    void append(std::uint64_t type, std::uint64_t first, std::uint64_t second);
    bool receive(void* to, std::size_t size);
    void flush();

    UniqueFd socket_;
    std::string out_;
};

}  // namespace jovusim
