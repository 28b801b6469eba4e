/// @file
/// Pushing a job file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <utility>

#include "jobs/job_requests.h"
#include "jovu/exception.h"
#include "jovu/job_interface.h"
#include "usb/usb.h"

namespace {

/// Bytes per read, and per write to the device.
constexpr std::size_t kPieceSize = 5120;

/// The devices' checksum starts at 0, not at the 1 that is customary for Adler-32.
constexpr uLong kAdlerSeed = 0;

/// What a push reports at most before it is complete.
constexpr double kMaxPartialPercent = 99.9;

struct FileClose {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): this is the owner.
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileClose>;
using Piece = std::array<unsigned char, kPieceSize>;

/// Opens a file that can be read twice: a regular one or a block device. Anything else (a
/// directory, a pipe that nobody may ever write to) could only be announced with a wrong size.
File open_job_file(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) throw JovuException("Failed to open job file.");
    struct stat info {};
    const bool readable_twice =
        ::fstat(descriptor, &info) == 0 && (S_ISREG(info.st_mode) || S_ISBLK(info.st_mode));
    File file(readable_twice ? ::fdopen(descriptor, "rb") : nullptr);
    if (file == nullptr) {
        ::close(descriptor);
        throw JovuException("Failed to open job file.");
    }
    return file;
}

/// Goes back to the start; a stream that cannot would be announced, and then not sent.
void rewind_file(std::FILE* file) {
    if (std::fseek(file, 0, SEEK_SET) != 0) throw JovuException("Failed to rewind job file.");
}

/// First pass: size and checksum, as far as the file can be read.
void measure(std::FILE* file, Piece& piece, jovu::JobAnnouncement& announcement) {
    rewind_file(file);
    if (std::ferror(file) != 0) return;
    uLong checksum = kAdlerSeed;
    while (std::feof(file) == 0 && std::ferror(file) == 0) {
        const std::size_t count = std::fread(piece.data(), 1, piece.size(), file);
        checksum = ::adler32(checksum, piece.data(), static_cast<uInt>(count));
        announcement.size += count;
    }
    announcement.adler32 = static_cast<std::uint32_t>(checksum);
}

double partial_percent(std::uint64_t sent, std::uint64_t size) {
    // In this order the 0 / 0 of an empty file comes out as the cap.
    return std::min(kMaxPartialPercent,
                    static_cast<double>(sent) * 100.0 / static_cast<double>(size));
}

}  // namespace

void JovuJobInterface::SendJobFile(JovuDeviceAddress address, std::string path, Progress progress,
                                   void* user, bool compressed) {
    const File file = open_job_file(path);
    if (compressed) throw JovuException("Compression not supported yet.");
    send_job(address, file.get(), progress, user, "", false, 0);
}

void JovuJobInterface::send_job(JovuDeviceAddress address, std::FILE* file, Progress progress,
                                void* user, std::string job_id, bool compressed,
                                unsigned long decompressed_length) {
    // All of it goes to one opening of the device: pieces that another device at the same address
    // got would be commands to it.
    const JovuUsb::connection_t connection = JovuUsb::connection(address);
    const auto write = [address, connection](const void* data, std::size_t size) {
        JovuUsb::write(static_cast<const unsigned char*>(data), static_cast<unsigned int>(size),
                       address, JovuUsb::JOVU_USB_INTERFACE_JOBS, connection);
    };
    const auto report = [&](double percent) {
        if (progress != nullptr) progress(percent, job_id, user);
    };

    const auto piece = std::make_unique<Piece>();
    jovu::JobAnnouncement announcement;
    announcement.job_id = job_id;
    if (compressed) announcement.decompressed_length = decompressed_length;
    measure(file, *piece, announcement);
    rewind_file(file);
    const std::string text = jovu::job_announcement(announcement);
    write(text.data(), text.size());
    report(0.0);

    std::uint64_t sent = 0;
    while (std::ferror(file) == 0 && std::feof(file) == 0) {
        const std::size_t count = std::fread(piece->data(), 1, piece->size(), file);
        // Nothing past the announced size: in a file that grows meanwhile, the device would take
        // the rest for requests.
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(count, announcement.size - sent));
        write(piece->data(), wanted);
        sent += wanted;
        report(partial_percent(sent, announcement.size));
        if (wanted < count) break;
    }
    report(100.0);
}
