#include "job_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "failure.h"
#include "file_descriptor.h"

namespace jovu_cli {
namespace {}  // namespace

std::uint64_t check_whole_file(const std::string& path, const std::string& verb) {
    const auto refuse = [&](const std::string& why) {
        throw Failure(ExitCode::file_problem, "cannot " + verb + " " + path + ": " + why);
    };
    // Without O_NONBLOCK the opening of a named pipe would wait for its writer.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!file.valid() || fstat(file.get(), &info) != 0) {
        refuse(std::generic_category().message(errno));
    }
    if (S_ISDIR(info.st_mode)) {
        refuse("it is a directory");
    }
    if (!S_ISREG(info.st_mode)) {
        refuse("it is not a regular file");
    }
    if (info.st_size == 0) {
        refuse("it is empty");
    }
    return static_cast<std::uint64_t>(info.st_size);
}

}  // namespace jovu_cli
