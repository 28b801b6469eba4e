/// @file
/// Whose a testbed's directory is, and removing those that nobody owns any more.
#pragma once

#include <string>

#include "bus/unique_fd.h"

namespace jovusim {

/// Marks a testbed's directory as this process's for as long as it runs: a locked file in it. The
/// lock goes with the process, however it ends.
class DirectoryOwnership {
public:
    /// @throws std::system_error
    explicit DirectoryOwnership(const std::string& directory);

private:
    UniqueFd lock_;
};

/// Removes the testbeds under a directory for temporary files that simulators of this kind have
/// left behind without cleaning up. Others' testbeds, and those of simulators that run, stay.
void remove_stale_testbeds(const std::string& temporary);

}  // namespace jovusim
