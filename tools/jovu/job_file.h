/// @file
/// A file that can be pushed.
#pragma once

#include <cstdint>
#include <string>

namespace jovu_cli {

/// Looks whether a file can be pushed: a regular file that is not empty and that may be read.
/// @return its size in bytes.
/// @throws Failure file_problem.
std::uint64_t check_job_file(const std::string& path);

}  // namespace jovu_cli
