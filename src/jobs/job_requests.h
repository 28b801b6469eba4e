/// @file
/// The JSON objects that go out on the job channel.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace jovu {

/// A request without a body: "status", "pause" or "abort".
std::string job_request(const char* type);

/// What a file push tells the device before the bytes come.
struct JobAnnouncement {
    std::uint64_t size = 0;  ///< Bytes.
    std::uint32_t adler32 = 0;
    std::string job_id;
    /// Present when the content is said to be deflated: its length before, in bytes.
    std::optional<unsigned long> decompressed_length;
};

std::string job_announcement(const JobAnnouncement& announcement);

}  // namespace jovu
