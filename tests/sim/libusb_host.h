/// @file
/// A plain libusb program's view of the simulated bus, and its way to the control socket.
#pragma once

#include <libusb-1.0/libusb.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace jovusim::test {

/// Sends a request to the simulator; the reply with its "ok" or "error".
std::string control(const std::string& request);

/// The same for a request that must succeed: what follows "ok". @throws std::runtime_error
std::string sim(const std::string& request);

struct HandleCloser {
    void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};
using Handle = std::unique_ptr<libusb_device_handle, HandleCloser>;

/// A context with a thread that handles its events.
class UsbHost {
public:
    UsbHost();
    UsbHost(const UsbHost&) = delete;
    UsbHost& operator=(const UsbHost&) = delete;
    ~UsbHost();

    /// The addresses of the controllers on bus 1, in no particular order.
    std::vector<int> addresses() const;

    /// Waits until a device is, or is not, on the list. Returns whether that came about.
    bool wait_for(int address, bool present) const;

    /// Opens a device. @param error gets libusb's result
    Handle open(int address, int& error) const;

    /// Opens a device and claims interface 0; null with a test failure if that fails.
    Handle claim(int address) const;

private:
    libusb_context* context_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread events_;
};

/// One transfer for an IN endpoint, submitted again after each packet.
class Reception {
public:
    Reception(libusb_device_handle* handle, unsigned char endpoint);
    Reception(const Reception&) = delete;
    Reception& operator=(const Reception&) = delete;

    /// Cancels the transfer and waits for its end.
    ~Reception();

    /// Waits for a text among the bytes that have come.
    bool wait_for(const std::string& text);

    /// Waits until that many bytes have come.
    bool wait_for(std::size_t size);

    /// Waits for the end of the transfer. Returns its status, or -1 when it does not end.
    int wait_for_end();

    /// Cancels the transfer and returns how it ended.
    int cancel();

    std::string received();
    std::vector<int> sizes();
    void forget();

private:
    static void LIBUSB_CALL on_completion(libusb_transfer* transfer);
    bool wait(const std::function<bool()>& condition);

    libusb_transfer* transfer_;
    std::array<unsigned char, 64> buffer_{};
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string received_;
    std::vector<int> sizes_;
    int status_ = -1;
    bool ended_ = false;
};

/// A bulk write with the time limit of 1.5 s. Returns libusb's result.
int write(const Handle& handle, unsigned char endpoint, const std::string& bytes,
          int* transferred = nullptr);

}  // namespace jovusim::test
