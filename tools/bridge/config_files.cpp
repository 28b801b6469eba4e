// SPDX-License-Identifier: Apache-2.0

/// @file
/// The files of the configuration: reading it, and checking the files that it names.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "bridge/config.h"
#include "mqtt/broker_url.h"
#include "mqtt/error.h"
#include "posix/child_process.h"
#include "posix/files.h"

namespace jovu_bridge {
namespace {

constexpr std::size_t kMaxConfig = 1U << 20U;

template <auto kFree>
struct Release {
    template <typename T>
    void operator()(T* object) const noexcept {
        kFree(object);
    }
};
using Bio = std::unique_ptr<BIO, Release<BIO_free_all>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

std::string reason(int error) {
    return std::system_category().message(error);
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

/// Reads a regular file of at most kMaxConfig bytes.
/// @param secret whether other users must have no access to it.
/// @throws std::runtime_error with the reason.
std::string read_whole(const std::string& path, bool secret) {
    const jovu_cli::FileDescriptor file = jovu_cli::open_for_reading(path);
    struct stat seen {};
    if (!file.valid() || ::fstat(file.get(), &seen) == -1) {
        throw std::runtime_error("cannot be read: " + reason(errno));
    }
    if (!S_ISREG(seen.st_mode)) {
        throw std::runtime_error("is not a file");
    }
    if (secret && (seen.st_mode & S_IRWXO) != 0) {
        throw std::runtime_error("can be used by every user of this computer: 'chmod o= FILE'");
    }
    std::string content;
    std::array<char, 4096> part{};
    for (;;) {
        const ssize_t count = ::read(file.get(), part.data(), part.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1) {
            throw std::runtime_error("cannot be read: " + reason(errno));
        }
        if (count == 0) {
            return content;
        }
        content.append(part.data(), static_cast<std::size_t>(count));
        if (content.size() > kMaxConfig) {
            throw std::runtime_error("is larger than 1 MiB");
        }
    }
}

Bio bio_of(const std::string& content) {
    return Bio(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
}

Certificate read_certificate(const std::string& path) {
    const std::string content = read_whole(path, false);
    Certificate certificate(PEM_read_bio_X509(bio_of(content).get(), nullptr, nullptr, nullptr));
    ERR_clear_error();
    if (!certificate) {
        throw std::runtime_error("holds no certificate in PEM format");
    }
    if (X509_cmp_current_time(X509_get0_notAfter(certificate.get())) < 0) {
        throw std::runtime_error("has expired");
    }
    return certificate;
}

/// Refuses to ask for a passphrase, which nobody could enter.
int no_passphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user*/) {
    return 0;
}

Key read_key(const std::string& path) {
    const std::string content = read_whole(path, true);
    Key key(PEM_read_bio_PrivateKey(bio_of(content).get(), nullptr, no_passphrase, nullptr));
    ERR_clear_error();
    if (!key) {
        throw std::runtime_error("holds no private key in PEM format without a passphrase");
    }
    return key;
}

/// Whether a folder can be written, or could be created.
void check_folder(const std::string& path) {
    struct stat seen {};
    if (::stat(path.c_str(), &seen) == -1) {
        if (errno == ENOENT &&
            ::faccessat(AT_FDCWD, folder_of(path).c_str(), W_OK | X_OK, AT_EACCESS) == 0) {
            return;
        }
        throw std::runtime_error("cannot be used: " + reason(errno));
    }
    if (!S_ISDIR(seen.st_mode)) {
        throw std::runtime_error("is not a folder");
    }
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK | W_OK | X_OK, AT_EACCESS) == -1) {
        throw std::runtime_error("cannot be written: " + reason(errno));
    }
    if ((seen.st_mode & S_IWOTH) != 0) {
        throw std::runtime_error(
            "can be written by every user of this computer: 'chmod o-w FOLDER'");
    }
}

void check_job_folder(const std::string& path) {
    struct stat seen {};
    if (::stat(path.c_str(), &seen) == -1) {
        throw std::runtime_error("cannot be used: " + reason(errno));
    }
    if (!S_ISDIR(seen.st_mode)) {
        throw std::runtime_error("is not a folder");
    }
}

}  // namespace

ReadConfig read_config(const std::string& file) {
    std::error_code missing;
    const std::filesystem::path resolved = std::filesystem::canonical(file, missing);
    const std::string path = missing ? file : resolved.string();
    try {
        ReadConfig read = parse_config(read_whole(path, false), file);
        read.file = path;
        read.config.jobs.ca_file = resolve_file(path, read.config.jobs.ca_file);
        return read;
    } catch (const std::runtime_error& error) {
        ReadConfig read;
        read.file = path;
        read.problems.push_back({file, 0, 0, error.what()});
        return read;
    }
}

std::string resolve_file(const std::string& config_file, const std::string& value) {
    if (value.empty() || value.front() == '/') {
        return value;
    }
    const std::string credentials = jovu_cli::environment("CREDENTIALS_DIRECTORY");
    if (!credentials.empty() && value.find('/') == std::string::npos) {
        std::string path = credentials + "/" + value;
        if (::faccessat(AT_FDCWD, path.c_str(), F_OK, 0) == 0) {
            return path;
        }
    }
    return folder_of(config_file) + "/" + value;
}

std::string read_password(const ReadConfig& read) {
    const std::string path = resolve_file(read.file, read.config.broker.password_file);
    if (path.empty()) {
        return "";
    }
    return jovu_mqtt::read_password_file(path);
}

std::vector<ConfigProblem> check_files(const ReadConfig& read) {
    std::vector<ConfigProblem> problems;
    const auto problem = [&](const std::string& key, const std::string& what) {
        const auto place = read.places.find(key);
        const ConfigPlace at = place == read.places.end() ? ConfigPlace{} : place->second;
        problems.push_back({read.file, at.line, at.column, key + ": " + what});
    };
    const auto check = [&](const std::string& key, const std::string& path, auto&& work) {
        try {
            work();
        } catch (const jovu_mqtt::Error& error) {  // Names the file.
            problem(key, error.what() + (error.hint().empty() ? "" : ": " + error.hint()));
        } catch (const std::runtime_error& error) {
            problem(key, "\"" + path + "\" " + error.what());
        }
    };
    const auto check_file = [&](const std::string& key, const std::string& value, auto&& work) {
        if (!value.empty()) {
            const std::string path = resolve_file(read.file, value);
            check(key, path, [&] { work(path); });
        }
    };
    const Config& config = read.config;
    const Config::Broker& broker = config.broker;
    check_file("broker.password_file", broker.password_file, jovu_mqtt::read_password_file);
    check_file("broker.ca_file", broker.ca_file, read_certificate);
    Certificate certificate;
    check_file("broker.certificate_file", broker.certificate_file,
               [&](const std::string& path) { certificate = read_certificate(path); });
    check_file("broker.key_file", broker.key_file, [&](const std::string& path) {
        const Key key = read_key(path);
        if (certificate && X509_check_private_key(certificate.get(), key.get()) != 1) {
            ERR_clear_error();
            throw std::runtime_error("does not belong to the certificate broker.certificate_file");
        }
    });
    check_file("jobs.ca_file", config.jobs.ca_file, read_certificate);
    check("state_folder", config.state_folder, [&] { check_folder(config.state_folder); });
    for (const std::string& folder : config.jobs.folders) {
        check("jobs.folders", folder, [&] { check_job_folder(folder); });
    }
    return problems;
}

}  // namespace jovu_bridge
