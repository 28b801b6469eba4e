// SPDX-License-Identifier: Apache-2.0

/// @file
/// Fetches the file of a job by https, or from a permitted folder, and verifies it.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace jovu_bridge {

/// What a requester says of a job's file.
struct JobReference {
    std::string url;     ///< https:, or file: with an absolute path.
    std::uint64_t size;  ///< Bytes; not 0.
    std::string sha256;  ///< 64 hexadecimal digits.
};

/// What the configuration permits.
struct JobLimits {
    std::vector<std::string> folders;  ///< Of file: URLs. Absolute.
    std::string ca_file;               ///< Empty: the system's certificates.
    std::uint64_t max_size = 0;        ///< Bytes.
    std::uint64_t keep_free = 0;       ///< Bytes that stay free on the file system.
    std::chrono::milliseconds connect_timeout{30000};
    std::chrono::milliseconds stall_timeout{60000};  ///< Below 1 KiB/s for so long.
};

/// Why a job's file was not fetched. The text names the URL without its query, and the reason.
class FetchFailure : public std::runtime_error {
public:
    /// @param code of a response: "invalid_request", "not_allowed", "too_large", "fetch_failed",
    ///     "checksum_differs" or "cancelled".
    FetchFailure(const char* code, const std::string& what)
        : std::runtime_error(what), code_(code) {}
    const char* code() const noexcept { return code_; }

private:
    const char* code_;
};

struct CloseFile {
    void operator()(std::FILE* file) const noexcept {
        static_cast<void>(std::fclose(file));  // NOLINT(cppcoreguidelines-owning-memory)
    }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// A path under which this process can open the file as well, as long as it is open.
std::string path_of(const File& file);

/// @return the URL without user, password, query and fragment, for logs and topics; "the URL" if it
///     cannot be read.
std::string shown_url(const std::string& url);

/// Checks a reference without fetching: its parts, the scheme, the size.
/// @throws FetchFailure invalid_request, not_allowed or too_large.
void check_reference(const JobReference& job, const JobLimits& limits);

/// Fetches jobs to disk. The files have no name there, so that no other program can change them,
/// and the system removes them however the process ends.
///
/// Threads: any; fetches may overlap.
class JobSource {
public:
    /// Creates the folder, with access for its owner only, and removes what an earlier process
    /// left.
    /// @throws std::runtime_error when it cannot be used.
    explicit JobSource(std::string folder);

    /// How many bytes have arrived. @return false to end the fetch.
    using Progress = std::function<bool(std::uint64_t received)>;

    /// Fetches a file, checks size and SHA-256 while it arrives, and returns it open, at its start.
    /// Blocks until then; every phase has a time limit.
    /// @param progress called at least once a second; may be empty. What it throws is passed on.
    /// @throws FetchFailure
    File fetch(const JobReference& job, const JobLimits& limits, const Progress& progress) const;

private:
    std::string folder_;
};

}  // namespace jovu_bridge
