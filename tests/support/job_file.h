// SPDX-License-Identifier: Apache-2.0

/// @file
/// Files that tests make, and what is in a job file.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace test {

/// A file among the temporary ones, removed with this object.
class TemporaryFile {
public:
    TemporaryFile(const std::string& name, const std::string& content)
        : path_(std::filesystem::temp_directory_path() / (std::to_string(getpid()) + "-" + name)) {
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~TemporaryFile() { std::remove(path_.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

/// All of a file.
inline std::string content_of(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

/// A job file's content, in which every byte value occurs.
inline std::string job_content(std::size_t size) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        content[i] = static_cast<char>(i * 31 % 251 + i / 256);
    return content;
}

}  // namespace test
