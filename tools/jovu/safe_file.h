/// @file
/// A file that is either complete or not there.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "file_descriptor.h"

namespace jovu_cli {

/// Writes a new file beside the one that is asked for, and renames it when all of it is written.
/// The new file has a random name and is created exclusively, so that nothing that stands in its
/// directory is followed, overwritten or waited for.
///
/// A symbolic link is followed to the file that it names, which is replaced; the mode of that file
/// is kept. What exists and is no regular file, such as a device or a pipe, is written as it is.
class SafeFile {
public:
    /// What becomes of a file that is not finished.
    enum class Unfinished : unsigned char {
        remove,
        keep,  ///< Under its other name, unless nothing is in it.
    };

    /// Opens the file for writing.
    /// @throws Failure file_problem. So do the names of standard output and standard error, which
    ///     carry other text.
    SafeFile(const std::string& path, Unfinished unfinished);
    ~SafeFile();
    SafeFile(const SafeFile&) = delete;
    SafeFile& operator=(const SafeFile&) = delete;

    /// Appends some bytes; they may stay in memory for now.
    /// @throws Failure file_problem.
    void write(std::string_view bytes);

    /// Where the bytes go, for other programs to write to.
    int fd() const noexcept { return fd_.get(); }

    /// Finishes the file: it is complete and has its own name.
    /// @throws Failure file_problem.
    void finish();

    /// The name that the unfinished file has.
    const std::string& unfinished_path() const noexcept { return part_path_; }

private:
    void open_special(const struct stat& seen);
    void create_part(mode_t mode);
    bool flush() noexcept;
    [[noreturn]] void fail(int error, const std::string& hint = {}) const;

    const std::string path_;
    const Unfinished unfinished_;
    std::string final_path_;  ///< With links followed; empty when there is nothing to rename.
    std::string part_path_;
    FileDescriptor fd_;
    std::string buffer_;
};

}  // namespace jovu_cli
