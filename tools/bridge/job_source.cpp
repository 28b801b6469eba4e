// SPDX-License-Identifier: Apache-2.0
#include "bridge/job_source.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <exception>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "posix/files.h"
#include "terminal/printable.h"

namespace jovu_bridge {
namespace {

using jovu_cli::FileDescriptor;

constexpr long kMaxRedirects = 5;
constexpr long kSlowest = 1024;  ///< Bytes per second.
constexpr long kHttpOk = 200;
constexpr std::size_t kMaxUrl = 4096;
constexpr std::size_t kDigestDigits = 64;
constexpr std::size_t kCopySize = 256U << 10U;
/// Of the files on file systems that have none without a name. They lose it at once.
constexpr std::string_view kNamePrefix = "fetch.";

template <auto kFree>
struct ReleaseTransfer {
    template <typename T>
    void operator()(T* object) const noexcept {
        kFree(object);
    }
};
using Url = std::unique_ptr<CURLU, ReleaseTransfer<curl_url_cleanup>>;
using UrlPart = std::unique_ptr<char, ReleaseTransfer<curl_free>>;
using Transfer = std::unique_ptr<CURL, ReleaseTransfer<curl_easy_cleanup>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, ReleaseTransfer<EVP_MD_CTX_free>>;

std::string error_reason(int error) {
    return std::system_category().message(error);
}

[[noreturn]] void fail(const char* code, const std::string& url, const std::string& what) {
    throw FetchFailure(code, shown_url(url) + ": " + what);
}

Url parse_url(const std::string& url) {
    Url parsed(curl_url());
    if (!parsed) {
        throw std::bad_alloc();
    }
    const bool forbidden = std::any_of(url.begin(), url.end(), [](char letter) {
        const auto byte = static_cast<unsigned char>(letter);
        return byte <= ' ' || byte >= 0x7f;
    });
    if (url.empty() || url.size() > kMaxUrl || forbidden ||
        curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
            CURLUE_OK) {
        parsed.reset();
    }
    return parsed;
}

/// A part of a URL; nothing when it has none, or one that contains a zero.
std::optional<std::string> part_of(const Url& url, CURLUPart part, unsigned flags = 0) {
    char* value = nullptr;
    if (curl_url_get(url.get(), part, &value, flags) != CURLUE_OK) {
        return std::nullopt;
    }
    const UrlPart owned(value);
    return std::string(value);
}

bool is_digest(const std::string& digits) {
    return digits.size() == kDigestDigits &&
           std::all_of(digits.begin(), digits.end(),
                       [](unsigned char digit) { return std::isxdigit(digit) != 0; });
}

std::string open_path(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

/// The path of an open file or folder with all links resolved; empty on failure.
std::string real_path(const FileDescriptor& file) {
    std::array<char, PATH_MAX> path{};
    const ssize_t length = ::readlink(open_path(file.get()).c_str(), path.data(), path.size());
    const bool whole = length > 0 && static_cast<std::size_t>(length) < path.size();
    return whole ? std::string(path.data(), static_cast<std::size_t>(length)) : "";
}

/// The file that is being fetched: takes bytes up to the announced size, and computes the digest.
class FetchedFile {
public:
    FetchedFile(const std::string& folder, const JobReference& job, const JobLimits& limits,
                const JobSource::Progress& progress)
        : job_(job), progress_(progress), digest_(EVP_MD_CTX_new()) {
        if (!digest_ || EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr) != 1) {
            throw std::bad_alloc();
        }
        struct statvfs space {};
        if (::statvfs(folder.c_str(), &space) == -1) {
            fail("fetch_failed", job.url,
                 "\"" + folder + "\" cannot be used: " + error_reason(errno));
        }
        const std::uint64_t free = std::uint64_t{space.f_bavail} * space.f_frsize;
        if (free < limits.keep_free || free - limits.keep_free < job.size) {
            fail("fetch_failed", job.url,
                 std::to_string(job.size) + " bytes are needed and " + std::to_string(free) +
                     " free in \"" + folder + "\", of which " + std::to_string(limits.keep_free) +
                     " stay free: remove files, or change jobs.keep_free");
        }
        create(folder);
        // Space that others cannot take meanwhile, where the file system can reserve it.
        if (::fallocate(fd_.get(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(job.size)) == -1 &&
            errno == ENOSPC) {
            fail("fetch_failed", job.url, "no space is left in \"" + folder + "\"");
        }
    }

    /// @return false when the fetch must end: failure() or pass_on() says why.
    bool take(const char* data, std::size_t size) noexcept {
        if (size > job_.size - received_) {
            too_long_ = true;
            return false;
        }
        for (std::size_t written = 0; written < size;) {
            const ssize_t count = ::write(fd_.get(), data + written, size - written);
            if (count == -1 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                write_error_ = errno;
                return false;
            }
            written += static_cast<std::size_t>(count);
        }
        received_ += size;
        return EVP_DigestUpdate(digest_.get(), data, size) == 1;
    }

    /// @return false when the fetch must end.
    bool report() noexcept {
        try {
            cancelled_ = cancelled_ || (progress_ && !progress_(received_));
        } catch (...) {  // Must not pass the C library; finish() throws it.
            thrown_ = std::current_exception();
        }
        return !cancelled_ && !thrown_;
    }

    /// Ends the fetch.
    /// @param problem why the data ended early; empty if its sender ended it.
    /// @return the file, at its start.
    /// @throws FetchFailure, or what the progress function threw.
    File finish(const char* code, const std::string& problem) {
        if (thrown_) {
            std::rethrow_exception(thrown_);
        }
        if (cancelled_) {
            fail("cancelled", job_.url, "cancelled");
        }
        if (too_long_) {
            fail("too_large", job_.url,
                 "is longer than the " + std::to_string(job_.size) + " bytes of the request");
        }
        if (write_error_ != 0) {
            fail("fetch_failed", job_.url, "cannot be stored: " + error_reason(write_error_));
        }
        if (!problem.empty()) {
            fail(code, job_.url, problem);
        }
        if (received_ != job_.size) {
            fail("fetch_failed", job_.url,
                 "ended after " + std::to_string(received_) + " of " + std::to_string(job_.size) +
                     " bytes");
        }
        check_digest();
        File file(::fdopen(fd_.get(), "rb"));
        if (!file) {
            fail("fetch_failed", job_.url, "cannot be opened: " + error_reason(errno));
        }
        fd_.release();
        std::rewind(file.get());
        return file;
    }

private:
    /// A file descriptor that can be handed to a FILE.
    class OwnedDescriptor {
    public:
        OwnedDescriptor() = default;
        OwnedDescriptor(const OwnedDescriptor&) = delete;
        OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;
        ~OwnedDescriptor() {
            if (fd_ != -1) {
                ::close(fd_);
            }
        }
        void set(int fd) noexcept { fd_ = fd; }
        int get() const noexcept { return fd_; }
        void release() noexcept { fd_ = -1; }

    private:
        int fd_ = -1;
    };

    void create(const std::string& folder) {
        constexpr mode_t kOwnerOnly = 0600;
        fd_.set(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | O_EXCL, kOwnerOnly));
        if (fd_.get() == -1) {  // Not every file system has files without a name.
            std::string name = folder + "/" + std::string(kNamePrefix) + "XXXXXX";
            fd_.set(::mkostemp(name.data(), O_CLOEXEC));
            if (fd_.get() == -1 || ::unlink(name.c_str()) == -1) {
                fail("fetch_failed", job_.url,
                     "\"" + folder + "\" cannot be written: " + error_reason(errno));
            }
        }
    }

    void check_digest() {
        std::array<unsigned char, EVP_MAX_MD_SIZE> value{};
        unsigned length = 0;
        if (EVP_DigestFinal_ex(digest_.get(), value.data(), &length) != 1) {
            fail("fetch_failed", job_.url, "its SHA-256 cannot be computed");
        }
        constexpr std::string_view kDigits = "0123456789abcdef";
        std::string digits;
        for (unsigned i = 0; i < length; ++i) {
            digits += kDigits[value[i] >> 4U];
            digits += kDigits[value[i] & 15U];
        }
        const auto same = [](unsigned char a, unsigned char b) { return a == std::tolower(b); };
        if (!std::equal(digits.begin(), digits.end(), job_.sha256.begin(), job_.sha256.end(),
                        same)) {
            fail("checksum_differs", job_.url,
                 "has the SHA-256 " + digits + " instead of " + job_.sha256);
        }
    }

    const JobReference& job_;
    const JobSource::Progress& progress_;
    DigestContext digest_;
    OwnedDescriptor fd_;
    std::uint64_t received_ = 0;
    bool too_long_ = false;
    bool cancelled_ = false;
    int write_error_ = 0;
    std::exception_ptr thrown_;
};

extern "C" std::size_t jovu_take_data(char* data, std::size_t /*one*/, std::size_t size,
                                      void* target) {
    return static_cast<FetchedFile*>(target)->take(data, size) ? size : CURL_WRITEFUNC_ERROR;
}

extern "C" int jovu_report_progress(void* target, curl_off_t /*total*/, curl_off_t /*now*/,
                                    curl_off_t /*upload_total*/, curl_off_t /*upload_now*/) {
    return static_cast<FetchedFile*>(target)->report() ? 0 : 1;
}

/// Sets an option, which fails only without memory or when the library lacks what we build on.
template <typename Value>
void set(const Transfer& transfer, CURLoption option, Value value) {
    const CURLcode result = curl_easy_setopt(transfer.get(), option, value);
    if (result != CURLE_OK) {
        throw std::runtime_error(std::string("libcurl refuses an option: ") +
                                 curl_easy_strerror(result));
    }
}

long whole_seconds(std::chrono::milliseconds time) {
    return static_cast<long>(
        std::max(std::chrono::ceil<std::chrono::seconds>(time), std::chrono::seconds(1)).count());
}

const char* code_of(CURLcode result) {
    switch (result) {
        case CURLE_FILESIZE_EXCEEDED:
            return "too_large";
        case CURLE_UNSUPPORTED_PROTOCOL:
            return "not_allowed";
        default:
            return "fetch_failed";
    }
}

File fetch_https(const JobReference& job, const JobLimits& limits, FetchedFile& target) {
    // Initialises the library; the first call does so for all threads.
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
    const Transfer transfer(ready == CURLE_OK ? curl_easy_init() : nullptr);
    if (!transfer) {
        fail("fetch_failed", job.url, "libcurl cannot be started");
    }
    std::array<char, CURL_ERROR_SIZE> text{};
    set(transfer, CURLOPT_URL, job.url.c_str());
    set(transfer, CURLOPT_NOSIGNAL, 1L);
    set(transfer, CURLOPT_PROTOCOLS_STR, "https");
    set(transfer, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    set(transfer, CURLOPT_FOLLOWLOCATION, 1L);
    set(transfer, CURLOPT_MAXREDIRS, kMaxRedirects);
    set(transfer, CURLOPT_FAILONERROR, 1L);
    set(transfer, CURLOPT_SSL_VERIFYPEER, 1L);
    set(transfer, CURLOPT_SSL_VERIFYHOST, 2L);
    set(transfer, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    if (!limits.ca_file.empty()) {
        set(transfer, CURLOPT_CAINFO, limits.ca_file.c_str());
        set(transfer, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    }
    set(transfer, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limits.connect_timeout.count()));
    set(transfer, CURLOPT_LOW_SPEED_LIMIT, kSlowest);
    set(transfer, CURLOPT_LOW_SPEED_TIME, whole_seconds(limits.stall_timeout));
    set(transfer, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(job.size));
    set(transfer, CURLOPT_ERRORBUFFER, text.data());
    set(transfer, CURLOPT_WRITEFUNCTION, &jovu_take_data);
    set(transfer, CURLOPT_WRITEDATA, static_cast<void*>(&target));
    set(transfer, CURLOPT_XFERINFOFUNCTION, &jovu_report_progress);
    set(transfer, CURLOPT_XFERINFODATA, static_cast<void*>(&target));
    set(transfer, CURLOPT_NOPROGRESS, 0L);
    const CURLcode result = curl_easy_perform(transfer.get());
    std::string problem;
    if (result != CURLE_OK) {
        problem = text[0] != '\0' ? text.data() : curl_easy_strerror(result);
        problem = jovu_cli::printable(problem);
    } else {
        long status = 0;
        curl_easy_getinfo(transfer.get(), CURLINFO_RESPONSE_CODE, &status);
        if (status != kHttpOk) {
            problem = "the server responds with status " + std::to_string(status);
        }
    }
    return target.finish(code_of(result), problem);
}

/// Opens a file below one of the permitted folders. What is checked is the file that was opened, so
/// that a link that is changed meanwhile makes no difference.
FileDescriptor open_permitted(const JobReference& job, const JobLimits& limits) {
    const Url url = parse_url(job.url);
    const std::string path = part_of(url, CURLUPART_PATH, CURLU_URLDECODE).value_or("");
    const FileDescriptor found(::open(path.c_str(), O_PATH | O_CLOEXEC));
    const int error = errno;
    const std::string real = found.valid() ? real_path(found) : "";
    const bool permitted = std::any_of(
        limits.folders.begin(), limits.folders.end(), [&real](const std::string& folder) {
            const FileDescriptor opened(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            const std::string start = opened.valid() ? real_path(opened) + "/" : "";
            return start.size() > 1 && real.compare(0, start.size(), start) == 0;
        });
    // Outside the folders, a file that exists and one that is missing give the same response.
    const bool named =
        std::any_of(limits.folders.begin(), limits.folders.end(), [&path](std::string folder) {
            if (folder.back() != '/') {
                folder += '/';
            }
            return path.compare(0, folder.size(), folder) == 0 &&
                   path.find("/../") == std::string::npos;
        });
    if (!permitted && (found.valid() || !named)) {
        fail("not_allowed", job.url, "is in none of the folders of jobs.folders");
    }
    if (!found.valid()) {
        fail("fetch_failed", job.url, "cannot be opened: " + error_reason(error));
    }
    struct stat seen {};
    if (::fstat(found.get(), &seen) == -1 || !S_ISREG(seen.st_mode)) {
        fail("not_allowed", job.url, "is not a regular file");
    }
    FileDescriptor file(::open(open_path(found.get()).c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        fail("fetch_failed", job.url, "cannot be read: " + error_reason(errno));
    }
    return file;
}

/// Copies the file, so that nobody can change it after its check.
File fetch_file(const JobReference& job, const JobLimits& limits, FetchedFile& target) {
    const FileDescriptor file = open_permitted(job, limits);
    std::string buffer(kCopySize, '\0');
    while (target.report()) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1) {
            return target.finish("fetch_failed", "cannot be read: " + error_reason(errno));
        }
        if (count == 0 || !target.take(buffer.data(), static_cast<std::size_t>(count))) {
            break;
        }
    }
    return target.finish("fetch_failed", "");
}

bool is_file_url(const JobReference& job) {
    return part_of(parse_url(job.url), CURLUPART_SCHEME) == "file";
}

}  // namespace

std::string path_of(const File& file) {
    return open_path(::fileno(file.get()));
}

std::string shown_url(const std::string& url) {
    const Url parsed = parse_url(url);
    if (!parsed) {
        return "the URL";
    }
    std::string shown = part_of(parsed, CURLUPART_SCHEME).value_or("") + "://" +
                        part_of(parsed, CURLUPART_HOST).value_or("");
    if (const std::optional<std::string> port = part_of(parsed, CURLUPART_PORT)) {
        shown += ":" + *port;
    }
    return jovu_cli::printable(shown + part_of(parsed, CURLUPART_PATH).value_or(""));
}

void check_reference(const JobReference& job, const JobLimits& limits) {
    const Url url = parse_url(job.url);
    if (!url) {
        fail("invalid_request", job.url,
             "\"url\" must be a URL of at most 4096 printable ASCII characters");
    }
    if (part_of(url, CURLUPART_USER) || part_of(url, CURLUPART_PASSWORD)) {
        fail("invalid_request", job.url,
             "\"url\" must have no user and no password: everybody who may read requests would "
             "learn them");
    }
    const std::string scheme = part_of(url, CURLUPART_SCHEME).value_or("");
    if (scheme != "https" && scheme != "file") {
        fail("not_allowed", job.url, "the scheme must be https or file");
    }
    if (!part_of(url, CURLUPART_PATH, CURLU_URLDECODE)) {
        fail("invalid_request", job.url, "the path of \"url\" contains a zero byte");
    }
    if (scheme == "file" && limits.folders.empty()) {
        fail("not_allowed", job.url, "jobs.folders of the configuration permits no file: URLs");
    }
    if (!is_digest(job.sha256)) {
        fail("invalid_request", job.url, "\"sha256\" must be 64 hexadecimal digits");
    }
    if (job.size == 0) {
        fail("invalid_request", job.url, "\"size\" must be the number of bytes, at least 1");
    }
    if (job.size > limits.max_size) {
        fail("too_large", job.url,
             std::to_string(job.size) + " bytes are more than jobs.max_size, " +
                 std::to_string(limits.max_size));
    }
}

JobSource::JobSource(std::string folder) : folder_(std::move(folder)) {
    constexpr mode_t kOwnerOnly = 0700;
    if (::mkdir(folder_.c_str(), kOwnerOnly) == -1 && errno != EEXIST) {
        throw std::runtime_error("cannot create \"" + folder_ + "\": " + error_reason(errno));
    }
    std::error_code error;
    std::filesystem::directory_iterator entries(folder_, error);
    if (error || ::faccessat(AT_FDCWD, folder_.c_str(), W_OK | X_OK, AT_EACCESS) == -1) {
        throw std::runtime_error("cannot write \"" + folder_ +
                                 "\": " + (error ? error.message() : error_reason(errno)));
    }
    for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
        const std::string name = entries->path().filename();
        if (name.compare(0, kNamePrefix.size(), kNamePrefix) == 0) {
            std::error_code ignored;  // A file that stays takes space and does no other harm.
            std::filesystem::remove(entries->path(), ignored);
        }
    }
}

File JobSource::fetch(const JobReference& job, const JobLimits& limits,
                      const Progress& progress) const {
    check_reference(job, limits);
    FetchedFile target(folder_, job, limits, progress);
    return is_file_url(job) ? fetch_file(job, limits, target) : fetch_https(job, limits, target);
}

}  // namespace jovu_bridge
