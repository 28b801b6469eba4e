// SPDX-License-Identifier: Apache-2.0

/// @file
/// Pushing a job file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "jobs/job_interface_state.h"
#include "jobs/job_messages.h"
#include "jovu/exception.h"
#include "jovu/job_interface.h"
#include "usb/usb.h"

namespace {

/// Bytes per read, and per write to the device.
constexpr std::size_t kPieceSize = 5120;

/// Bytes that the system is asked for at once; a multiple of kPieceSize.
constexpr std::size_t kReadBuffer = 16 * kPieceSize;

/// The devices' checksum starts at 0, not at the 1 that is customary for Adler-32.
constexpr uLong kAdlerSeed = 0;

/// The half of an Adler-32 that is the sum of all bytes, modulo 65521.
constexpr uLong kByteSum = 0xFFFF;

/// What a push reports at most before it is complete.
constexpr double kMaxPartialPercent = 99.9;

struct FileClose {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): this is the owner.
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
    std::unique_ptr<std::array<char, kReadBuffer>> buffer;  ///< The stream's own, until it closes.
};
using File = std::unique_ptr<std::FILE, FileClose>;
using Piece = std::array<unsigned char, kPieceSize>;
/// The plain callback as a function object.
struct PlainCallback {
    JovuJobInterface::Progress progress;
    void* user;

    void operator()(const JovuPushProgress& now) const {
        if (progress != nullptr) progress(now.percent, now.job_id, user);
    }
};

[[noreturn]] void fail_reading(const char* message) {
    throw JovuException(message, JovuError::file_unreadable);
}

/// Opens a file that can be read twice: a regular one or a block device. Anything else (a
/// directory, a pipe that nobody may ever write to) could only be announced with a wrong size.
File open_job_file(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor == -1) fail_reading("Failed to open job file.");
    struct stat info {};
    const bool readable_twice =
        ::fstat(descriptor, &info) == 0 && (S_ISREG(info.st_mode) || S_ISBLK(info.st_mode));
    File file(readable_twice ? ::fdopen(descriptor, "rb") : nullptr);
    if (file == nullptr) {
        ::close(descriptor);
        fail_reading("Failed to open job file.");
    }
    // Pieces are no multiple of the usual buffer, so each would cost two reads.
    auto& buffer = file.get_deleter().buffer;
    buffer = std::make_unique<std::array<char, kReadBuffer>>();
    std::setvbuf(file.get(), buffer->data(), _IOFBF, buffer->size());
    return file;
}

/// Goes back to the start; a stream that cannot would be announced, and then not sent.
void rewind_file(std::FILE* file) {
    if (std::fseek(file, 0, SEEK_SET) != 0) fail_reading("Failed to rewind job file.");
}

/// One push: measures the file, announces it and streams it.
class Push {
public:
    /// @param report refers to what outlives this object, as @p calls and @p cancel do.
    /// @param cancel null for a push that cannot be cancelled.
    Push(jovu::CallsInProgress& calls, JovuDeviceAddress address, JovuPushObserver report,
         std::string job_id, const JovuPushCancel* cancel)
        : calls_(calls),
          call_(calls),
          connection_(JovuUsb::connection(address)),
          report_(report),
          cancel_(cancel) {
        progress_.job_id = std::move(job_id);
    }

    /// @param file a stream that can be sought.
    JovuPushResult run(std::FILE* file, std::optional<unsigned long> decompressed_length) {
        check_open();
        if (!measure(file)) return JovuPushResult::cancelled;
        rewind_file(file);
        const std::string text = jovu::job_announcement(
            {progress_.total, announced_checksum_, progress_.job_id, decompressed_length});
        write(text.data(), text.size());
        report(0.0);
        const JovuPushResult result = stream(file);
        report(100.0);
        return result;
    }

private:
    bool cancelled() const { return cancel_ != nullptr && cancel_->cancelled(); }

    /// @throws JovuException after the client's shutdown().
    void check_open() const {
        if (!call_ || calls_.closed())
            throw JovuException(jovu::kJobClientShutDown, JovuError::shut_down);
    }

    void report(double percent) {
        progress_.percent = percent;
        report_(progress_);
    }

    /// All of it goes to one connection: pieces that reached another device at the same address
    /// would be requests to it.
    void write(const void* data, std::size_t size) const {
        check_open();
        if (connection_ == nullptr) {
            throw JovuException("Send failed - Device no longer connected.",
                                JovuError::disconnected);
        }
        try {
            connection_->write(
                {{static_cast<const unsigned char*>(data), static_cast<unsigned int>(size)}},
                JovuUsb::JOVU_USB_INTERFACE_JOBS, jovu::Connection::Follow::writes);
        } catch (const JovuException&) {
            check_open();  // A shutdown that stops the USB backend closes the device first.
            throw;
        }
    }

    /// First pass: size and checksum, as far as the file can be read.
    /// @return false when the push has been cancelled.
    bool measure(std::FILE* file) {
        rewind_file(file);
        uLong checksum = kAdlerSeed;
        while (std::feof(file) == 0 && std::ferror(file) == 0) {
            if (cancelled()) return false;
            check_open();
            const std::size_t count = std::fread(piece_->data(), 1, piece_->size(), file);
            checksum = ::adler32(checksum, piece_->data(), static_cast<uInt>(count));
            progress_.total += count;
        }
        announced_checksum_ = static_cast<std::uint32_t>(checksum);
        return !cancelled();
    }

    /// Second pass.
    JovuPushResult stream(std::FILE* file) {
        while (std::ferror(file) == 0 && std::feof(file) == 0) {
            if (cancelled() && unsent() > 0) {
                fill();
                return JovuPushResult::cancelled;
            }
            const std::size_t count = std::fread(piece_->data(), 1, piece_->size(), file);
            // Nothing past the announced size: in a file that grows meanwhile, the device would
            // take the rest for requests.
            const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(count, unsent()));
            send(wanted);
            if (wanted < count) break;
        }
        if (cancel_ == nullptr || unsent() == 0) return JovuPushResult::completed;
        fill();
        return JovuPushResult::cut_short;
    }

    /// Sends filler up to the announced size, with which the checksum cannot be the announced one.
    ///
    /// The low half of an Adler-32 is the sum of the bytes, modulo 65521. Filler of zeros leaves it
    /// as it is after the bytes that have been sent. If that is the announced half, a last byte of
    /// 1 makes it another one, for x + 1 and x differ modulo 65521; if it is not, it stays another
    /// one. The whole checksum then differs from the announced one, whatever its high half is. At
    /// least one byte is left to be sent, so there is a last byte.
    void fill() {
        const bool same_sum = (checksum_ & kByteSum) == (announced_checksum_ & kByteSum);
        progress_.filler = true;
        while (const std::uint64_t left = unsent()) {
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left, kPieceSize));
            piece_->fill(0);
            if (same_sum && count == left) (*piece_)[count - 1] = 1;
            send(count);
        }
    }

    /// Sends the first bytes of the piece.
    void send(std::size_t count) {
        write(piece_->data(), count);
        checksum_ = ::adler32(checksum_, piece_->data(), static_cast<uInt>(count));
        progress_.sent += count;
        // In this order the 0 / 0 of an empty file comes out as the cap.
        report(std::min(kMaxPartialPercent, static_cast<double>(progress_.sent) * 100.0 /
                                                static_cast<double>(progress_.total)));
    }

    std::uint64_t unsent() const noexcept { return progress_.total - progress_.sent; }

    jovu::CallsInProgress& calls_;
    const jovu::CallsInProgress::Call call_;
    const std::shared_ptr<jovu::Connection> connection_;  ///< Null: there was no device.
    const JovuPushObserver report_;
    const JovuPushCancel* const cancel_;
    JovuPushProgress progress_;
    std::uint32_t announced_checksum_ = 0;
    const std::unique_ptr<Piece> piece_ = std::make_unique<Piece>();
    uLong checksum_ = kAdlerSeed;  ///< Of what has been sent.
};

}  // namespace

void JovuJobInterface::SendJobFile(JovuDeviceAddress address, std::string path, Progress progress,
                                   void* user, bool compressed) {
    const File file = open_job_file(path);
    if (compressed) throw JovuException("Compression not supported yet.", JovuError::rejected);
    send_job(address, file.get(), progress, user, "", false, 0);
}

JovuPushResult JovuJobInterface::SendJobFile(JovuDeviceAddress address, std::string path,
                                             Progress progress, void* user, bool compressed,
                                             const JovuPushCancel& cancel) {
    const File file = open_job_file(path);
    if (compressed) throw JovuException("Compression not supported yet.", JovuError::rejected);
    return Push(state_->calls, address, PlainCallback{progress, user}, "", &cancel)
        .run(file.get(), std::nullopt);
}

JovuPushResult JovuJobInterface::SendJobFile(JovuDeviceAddress address, const std::string& path,
                                             JovuPushObserver progress,
                                             const JovuPushCancel& cancel) {
    const File file = open_job_file(path);
    return Push(state_->calls, address, progress, "", &cancel).run(file.get(), std::nullopt);
}

void JovuJobInterface::send_job(JovuDeviceAddress address, std::FILE* file, Progress progress,
                                void* user, std::string job_id, bool compressed,
                                unsigned long decompressed_length) {
    Push(state_->calls, address, PlainCallback{progress, user}, std::move(job_id), nullptr)
        .run(file, compressed ? std::optional(decompressed_length) : std::nullopt);
}
