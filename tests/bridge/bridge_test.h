// SPDX-License-Identifier: Apache-2.0

/// @file
/// What the tests of the bridge share: folders that go with the test, and certificates.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace jovu_bridge {

/// A new folder, removed with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string name = std::filesystem::temp_directory_path() / "jovu-bridge.XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("cannot create " + name);
        }
        path_ = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string path(const std::string& name) const { return path_ + "/" + name; }

    void write(const std::string& name, const std::string& content, mode_t mode) const {
        std::ofstream(path(name), std::ios::binary) << content;
        ASSERT_EQ(::chmod(path(name).c_str(), mode), 0);
    }

private:
    std::string path_;
};

/// Writes PATH.pem, a self-signed certificate for a host, and PATH.key.
inline void make_certificate(const std::string& path, const std::string& host) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "
        "/CN=" +
        host + " -addext subjectAltName=DNS:" + host + " -keyout " + path + ".key -out " + path +
        ".pem 2>/dev/null && chmod 600 " + path + ".key";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

}  // namespace jovu_bridge
