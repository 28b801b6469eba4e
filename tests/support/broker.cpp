// SPDX-License-Identifier: Apache-2.0
#include "support/broker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/wait.h"

namespace test {
namespace {

/// Below the ports that the system gives out.
std::atomic<int> next_port{18830};

bool accepts(const std::string& host, int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    const bool connected =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return connected;
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "jovu-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& contents) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path, std::ios::binary) << contents;
    chmod(path.c_str(), S_IRUSR | S_IWUSR);
    return path;
}

std::string own_loopback_address() {
    const auto pid = static_cast<unsigned>(getpid());
    // Process numbers have at most 22 bits; the second byte is never 0, as in 127.0.0.1.
    return "127." + std::to_string(64 + (pid >> 16U)) + "." + std::to_string((pid >> 8U) & 255U) +
           "." + std::to_string(pid & 255U);
}

Broker::Broker(std::string settings) : host_(own_loopback_address()), port_(next_port++) {
    folder_.write("mosquitto.conf",
                  "user root\nlistener " + std::to_string(port_) + " " + host_ + "\n" + settings);
    start();
}

void Broker::start() {
    const std::string configuration = folder_.path() + "/mosquitto.conf";
    const std::string log = folder_.path() + "/mosquitto.log";
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        unsetenv("LD_PRELOAD");
        execl("/usr/sbin/mosquitto", "mosquitto", "-c", configuration.c_str(), nullptr);
        _exit(127);
    }
    const bool ready = eventually([this] {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            throw std::runtime_error("mosquitto has ended; see " + folder_.path());
        }
        return accepts(host_, port_);
    });
    if (!ready) throw std::runtime_error("mosquitto accepts no connection");
}

void Broker::end() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void Broker::signal(int number) const {
    kill(pid_, number);
}

}  // namespace test
