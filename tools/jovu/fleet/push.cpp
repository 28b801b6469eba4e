// SPDX-License-Identifier: Apache-2.0

/// @file
/// Jobs that bridges fetch by URL.

#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "cli/failure.h"
#include "fleet/commands.h"
#include "fleet/fleet.h"
#include "fleet/reporter.h"
#include "fleet/requests.h"
#include "posix/files.h"
#include "progress/progress_bar.h"

namespace jovu_cli {
namespace {

struct FreeDigest {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};

bool is_url(const std::string& source) {
    return source.rfind("https://", 0) == 0 || source.rfind("file:///", 0) == 0;
}

bool is_sha256(const std::string& value) {
    return value.size() == 64 &&
           value.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

/// @return a file's absolute path as a URL.
std::string file_url(const std::string& path) {
    std::array<char, PATH_MAX> resolved{};
    if (realpath(path.c_str(), resolved.data()) == nullptr) {
        throw Failure(ExitCode::file_problem, "cannot push " + path + ": it cannot be found");
    }
    static constexpr std::string_view kPlain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
    std::string url = "file://";
    for (const char character : std::string_view(resolved.data())) {
        if (kPlain.find(character) != std::string_view::npos) {
            url += character;
        } else {
            const auto byte = static_cast<unsigned char>(character);
            url += {'%', "0123456789ABCDEF"[byte >> 4U], "0123456789ABCDEF"[byte & 15U]};
        }
    }
    return url;
}

std::string sha256_of(const std::string& path, const StopSource& stop) {
    const std::unique_ptr<EVP_MD_CTX, FreeDigest> context(EVP_MD_CTX_new());
    const FileDescriptor file = open_for_reading(path);
    std::array<char, 64U << 10U> buffer{};
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    bool works =
        context && file.valid() && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1;
    while (works) {
        stop.throw_if_stopped();
        const ssize_t count = read(file.get(), buffer.data(), buffer.size());
        if (count <= 0) {
            works = count == 0 && EVP_DigestFinal_ex(context.get(), digest.data(), &length) == 1;
            break;
        }
        works =
            EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(count)) == 1;
    }
    if (!works) {
        throw Failure(ExitCode::file_problem, "cannot read " + path);
    }
    std::string hex;
    for (unsigned i = 0; i < length; ++i) {
        hex += {"0123456789abcdef"[digest[i] >> 4U], "0123456789abcdef"[digest[i] & 15U]};
    }
    return hex;
}

/// @return the members of the request.
Json job_request(const FleetJob& job, const StopSource& stop) {
    Json body;
    if (is_url(job.source)) {
        if (!job.size || !is_sha256(job.sha256)) {
            throw Failure(ExitCode::usage, "a job by URL needs --size and --sha256",
                          "'stat -c %s FILE' and 'sha256sum FILE' print them");
        }
        body = {{"url", job.source}, {"size", *job.size}, {"sha256", job.sha256}};
        // Without a query, in which some servers expect a secret: everybody may read the name.
        const std::string path = job.source.substr(0, job.source.find_first_of("?#"));
        body["name"] = path.substr(path.rfind('/') + 1);
    } else {
        if (job.source.find("://") != std::string::npos) {
            throw Failure(ExitCode::usage, "not an https or file URL: " + job.source);
        }
        if (job.size || !job.sha256.empty()) {
            throw Failure(ExitCode::usage, "--size and --sha256 are for a job by URL",
                          "those of a file are computed");
        }
        const std::uint64_t size = check_input_file(job.source, "push");
        body = {
            {"url", file_url(job.source)}, {"size", size}, {"sha256", sha256_of(job.source, stop)}};
        body["name"] = job.source.substr(job.source.rfind('/') + 1);
    }
    body["wait"] = job.wait;
    return body;
}

double number_member(const Json& object, const char* key) {
    const auto found = object.is_object() ? object.find(key) : object.end();
    return found != object.end() && found->is_number() ? found->get<double>() : 0;
}

/// Writes the progress of each device's job: the first of each tenth of a phase.
class JobProgress {
public:
    explicit JobProgress(FleetReporter& reporter) : reporter_(reporter) {}

    void take(const FleetResponse& response) {
        const Json& progress = response.member("progress");
        const std::string phase = string_member(progress, "phase");
        const double percent = number_member(progress, "percent");
        if (reporter_.out().quiet() || phase.empty() ||
            !tenths_[response.serial + "/" + phase].reached(percent)) {
            return;
        }
        if (reporter_.out().json()) {
            reporter_.object(response.serial, progress, "progress");
        } else {
            reporter_.line(response.serial,
                           phase + " " + std::to_string(static_cast<int>(percent)) + " %");
        }
    }

private:
    FleetReporter& reporter_;
    std::map<std::string, Tenths> tenths_;
};

}  // namespace

void push_to_fleet(const FleetContext& context, const FleetJob& job) {
    const Json body = job_request(job, context.stop);
    Fleet fleet(context.options, context.stop);
    FleetReporter reporter(context.out, fleet, fleet.choose(Fleet::Unchosen::only_one));
    FleetRequests requests(fleet, context.options);
    for (const std::string& serial : reporter.serials()) {
        requests.add(serial, "job", body);
    }
    JobProgress progress(reporter);
    requests.run([&](const FleetResponse& response) {
        const Json& result = response.member("result");
        if (response.state == "progress") {
            progress.take(response);
        } else if (response.state == "failed") {
            reporter.fail(response);
        } else if (response.state == "done" && context.out.json()) {
            reporter.object(response.serial, result, job.wait ? "finished" : "accepted");
        } else if (response.state == "done") {
            const std::string id = string_member(result, "job_id");
            reporter.line(response.serial, std::string(job.wait ? "finished" : "accepted") +
                                               (id.empty() ? "" : ": job " + id));
        }
    });
    reporter.finish();
}

}  // namespace jovu_cli
