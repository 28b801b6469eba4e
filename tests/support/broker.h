// SPDX-License-Identifier: Apache-2.0

/// @file
/// A Mosquitto of a test's own.
#pragma once

#include <sys/types.h>

#include <string>

namespace test {

/// A new folder, removed with its contents by the destructor.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return path_; }
    /// Writes a file that its owner alone may read.
    /// @return its path.
    std::string write(const std::string& name, const std::string& contents) const;

private:
    std::string path_;
};

/// @return an address of the loopback network that no other running test program uses, so that a
///     port on it is free, also while the program on it restarts.
std::string own_loopback_address();

/// A broker on own_loopback_address(). The destructor kills it, as does the end of the test
/// program.
class Broker {
public:
    /// Starts it and waits until it accepts connections.
    /// @param settings lines of its configuration besides the listener.
    explicit Broker(std::string settings = "allow_anonymous true\n");
    ~Broker() { end(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    void start();
    /// Kills it; its clients are not notified.
    void end();
    void signal(int number) const;
    pid_t process() const { return pid_; }

    const std::string& host() const { return host_; }
    int port() const { return port_; }
    std::string url() const { return "mqtt://" + host_ + ":" + std::to_string(port_); }
    const TemporaryFolder& folder() const { return folder_; }

private:
    TemporaryFolder folder_;
    std::string host_;
    int port_;
    pid_t pid_ = -1;
};

}  // namespace test
