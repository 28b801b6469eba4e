#include "bus/usbfs_node.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include "bus/local_socket.h"
#include "bus/usbfs_session.h"

namespace jovusim {

namespace {

/// Out of descriptors or memory: that may pass.
constexpr std::chrono::milliseconds kAcceptPause(10);

}  // namespace

UsbfsNode::UsbfsNode(const std::string& root, const std::string& node) {
    // Where the preloaded library looks for somebody who serves a node.
    const std::string path = root + "/ioctl" + node;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    listener_ = local_socket(0);
    const sockaddr_un address = local_address(path);
    if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_.get(), SOMAXCONN) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot serve " + node);
    }
    acceptor_ = std::thread([this] { accept_files(); });
}

UsbfsNode::~UsbfsNode() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    for (OpenFile& file : files_) {
        file.link.hang_up();
        file.thread.join();
    }
}

void UsbfsNode::accept_files() {
    for (;;) {
        UniqueFd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!socket) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EINVAL) return;  // shut down
            std::perror("jovu-sim: cannot take an open file in");
            std::this_thread::sleep_for(kAcceptPause);
            continue;
        }
        files_.remove_if([](OpenFile& file) {
            if (!file.ended) return false;
            file.thread.join();
            return true;
        });
        OpenFile& file = files_.emplace_back(std::move(socket));
        try {
            file.thread = std::thread([this, &file] { serve(file); });
        } catch (const std::system_error& error) {
            std::fprintf(stderr, "jovu-sim: cannot serve an open file: %s\n", error.what());
            files_.pop_back();
        }
    }
}

void UsbfsNode::serve(OpenFile& file) {
    try {
        UsbfsSession(file.link, device()).run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "jovu-sim: an ioctl failed: %s\n", error.what());
        file.link.hang_up();
    }
    file.ended = true;
}

std::shared_ptr<SimDevice> UsbfsNode::device() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return device_;
}

void UsbfsNode::set_device(std::shared_ptr<SimDevice> device) {
    const std::lock_guard<std::mutex> lock(mutex_);
    device_.swap(device);
}

}  // namespace jovusim
