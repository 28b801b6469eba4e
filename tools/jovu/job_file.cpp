#include "job_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "failure.h"
#include "file_descriptor.h"

namespace jovu_cli {
namespace {

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw Failure(ExitCode::file_problem, "cannot push " + path + ": " + why);
}

}  // namespace

std::uint64_t check_job_file(const std::string& path) {
    // Without O_NONBLOCK the opening of a named pipe would wait for its writer.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!file.valid() || fstat(file.get(), &info) != 0) {
        refuse(path, std::generic_category().message(errno));
    }
    if (S_ISDIR(info.st_mode)) {
        refuse(path, "it is a directory");
    }
    if (!S_ISREG(info.st_mode)) {
        refuse(path, "it is not a regular file, and a job is read twice");
    }
    if (info.st_size == 0) {
        refuse(path, "it is empty");
    }
    return static_cast<std::uint64_t>(info.st_size);
}

}  // namespace jovu_cli
