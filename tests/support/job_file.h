/// @file
/// A job file to push.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace test {

/// A file that lives as long as the object.
class JobFile {
public:
    /// @param size in bytes, of every value.
    explicit JobFile(std::size_t size) {
        char path[] = "/tmp/jovu-job-XXXXXX";
        ::close(::mkstemp(path));
        path_ = path;
        std::ofstream out(path_, std::ios::binary);
        for (std::size_t i = 0; i < size; ++i)
            out.put(static_cast<char>(i * 31 + i / 256));
    }
    ~JobFile() { ::unlink(path_.c_str()); }
    JobFile(const JobFile&) = delete;
    JobFile& operator=(const JobFile&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace test
