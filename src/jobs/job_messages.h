// SPDX-License-Identifier: Apache-2.0

/// @file
/// The JSON objects of the job channel: requests are written, status reports are read.
#pragma once

#include <yajl/yajl_tree.h>

#include <cstdint>
#include <optional>
#include <string>

#include "jovu/job_interface.h"

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

/// Stores what a report holds; a node that is missing or of another kind leaves its field as it
/// was.
/// @param report the report's root object.
void parse_status(yajl_val report, JovuJobInterface::StatusMsg& status);
