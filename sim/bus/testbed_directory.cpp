#include "bus/testbed_directory.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace jovusim {

namespace {
constexpr char kLockName[] = "/jovu-sim.lock";
}

DirectoryOwnership::DirectoryOwnership(const std::string& directory) {
    // Locked before it gets its name: nobody ever sees it without its lock.
    const std::string name = directory + kLockName;
    const std::string unnamed = name + ".new";
    lock_.reset(::open(unnamed.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!lock_ || ::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0 ||
        ::rename(unnamed.c_str(), name.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot mark " + directory);
    }
}

void remove_stale_testbeds(const std::string& temporary) {
    glob_t found{};
    const std::string pattern = temporary + "/umockdev.??????" + kLockName;
    if (::glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0) {
        for (char** path = found.gl_pathv; *path != nullptr; ++path) {
            const UniqueFd lock(::open(*path, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
            struct stat status {};
            ::fstat(lock.get(), &status);  // fails, as what follows does, without the file
            if (status.st_uid != ::geteuid()) continue;
            if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) continue;
            // Somebody else may be at it too; what is gone already is no error.
            std::error_code ignored;
            std::filesystem::remove_all(std::filesystem::path(*path).parent_path(), ignored);
        }
    }
    ::globfree(&found);
}

}  // namespace jovusim
