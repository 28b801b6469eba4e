/// @file
/// Files that are sent to devices.
#pragma once

#include <cstdint>
#include <string>

namespace jovu_cli {

/// Looks whether a file can be sent as a whole: a regular file that is not empty and that may be
/// read.
/// @param verb what is to be done with it, for the message "cannot VERB FILE".
/// @return its size in bytes.
/// @throws Failure file_problem.
std::uint64_t check_whole_file(const std::string& path, const std::string& verb);

}  // namespace jovu_cli
