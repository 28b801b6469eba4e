// SPDX-License-Identifier: Apache-2.0

/// @file
/// `jovu push`: sends a print job, waits until it is accepted, and can follow it to its end.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "cli/failure.h"
#include "commands/command.h"
#include "jovu/exception.h"
#include "posix/files.h"
#include "progress/progress_reporters.h"
#include "session/device_names.h"
#include "session/reports.h"
#include "terminal/printable.h"

namespace jovu_cli {
namespace {

struct PushOptions {
    std::string file;
    bool wait = false;
    bool attach = false;
    std::optional<std::uint64_t> size;  ///< Of a job by URL, for a fleet, as sha256.
    std::string sha256;
};

using namespace std::chrono_literals;

/// How long a device may take to verify a job and to show it in its reports.
constexpr auto kAcceptLimit = 10s;
constexpr auto kAcceptPoll = 200ms;
constexpr auto kFollowPoll = 500ms;

/// One push, from the first byte to the last.
class Push {
public:
    Push(const Context& context, Session& session, JovuDeviceAddress address,
         PushReporter& reporter, std::uint64_t size)
        : context_(context),
          session_(session),
          address_(address),
          reporter_(reporter),
          size_(size) {}

    /// Sends the file. A signal cancels the push.
    /// @throws Failure with the number of bytes that the device received; a failure of the output
    /// is
    ///     thrown after the whole push.
    void run(const std::string& path) {
        JovuPushResult result{};
        try {
            result = send(path);
        } catch (const JovuException& error) {
            end_bar();
            fail(error);
        }
        if (stopped() || result != JovuPushResult::completed) {
            end_bar();
            throw_result(result, path);
        }
        if (output_failure_) {
            std::rethrow_exception(output_failure_);
        }
    }

private:
    static constexpr const char* kRestNote =
        "it reads all requests as job data until it gives the job up, is unplugged or is switched "
        "off";
    /// The largest percentage that the library reports before the end.
    static constexpr double kLastPartialPercent = 99.9;

    JovuPushResult send(const std::string& path) {
        JovuPushCancel cancel;
        const StopSource::Action canceller(context_.stop, [&cancel](Stop reason) {
            if (reason == Stop::signal) {
                cancel.cancel();
            }
        });
        context_.stop.throw_if_stopped();
        note_exit("may wait");  // From now on the announcement may be sent.
        return session_.client().SendJobFile(address_, path, &Push::progress, this, false, cancel);
    }

    static void progress(double percent, std::string /*job_id*/, void* user) {
        static_cast<Push*>(user)->advance(percent);
    }

    void note_exit(const std::string& waits) {
        const std::string line = "jovu: ended at once: " + device_name(address_) + " " + waits +
                                 " for the rest of the job (" + kRestNote + ")\n";
        exit_note_.emplace(context_.stop, (context_.out.redraws() ? "\n" : "") + line);
    }

    bool stopped() const { return context_.stop.state() == Stop::signal; }

    void advance(double percent) {
        sent_ =
            static_cast<std::uint64_t>(std::llround(percent / 100 * static_cast<double>(size_)));
        if (!announced_) {
            announced_ = true;
            note_exit("waits");
        }
        if (stopped() && !cancelled_at_ && percent < kLastPartialPercent) {
            cancelled_at_ = percent;
            end_bar();
            print_error("jovu: interrupted: sending filler for the rest of the job, so that " +
                        device_name(address_) + " does not wait for it; Ctrl-C again ends at once");
        }
        report([&] { reporter_.sending(percent, sent_, cancelled_at_.has_value()); });
    }

    /// Keeps a failure of the output until the push is complete: the device must not wait for the
    /// rest.
    template <class Write>
    void report(Write write) {
        try {
            if (!output_failure_) {
                write();
            }
        } catch (const Failure&) {
            output_failure_ = std::current_exception();
        }
    }

    /// @throws Failure for a push that ended incomplete or interrupted, without an error.
    [[noreturn]] void throw_result(JovuPushResult result, const std::string& path) const {
        const std::string filled =
            ": " + device_name(address_) +
            " received filler for the rest of the job and refuses the job by its checksum";
        switch (result) {
            case JovuPushResult::cut_short:
                throw Failure(ExitCode::file_problem,
                              "cannot read " + path + ": it has become shorter" + filled);
            case JovuPushResult::cancelled:
                if (!announced_) {
                    throw Failure(ExitCode::interrupted, "interrupted: nothing was sent");
                }
                throw Failure(ExitCode::interrupted,
                              "interrupted at " +
                                  std::to_string(static_cast<int>(
                                      cancelled_at_.value_or(kLastPartialPercent))) +
                                  " %" + filled);
            case JovuPushResult::completed:
                break;
        }
        throw Failure(ExitCode::interrupted,
                      "interrupted: " + device_name(address_) + " received the whole job",
                      "'jovu status' shows it, 'jovu abort' ends it");
    }

    [[noreturn]] void fail(const JovuException& error) const {
        const Failure failure = exchange_failure("push to " + device_name(address_), error);
        const ExitCode code = stopped() ? ExitCode::interrupted : failure.code();
        if (!announced_) {
            throw Failure(code, failure.what(), failure.hint());
        }
        const std::string hint = failure.hint().empty() ? kRestNote : failure.hint();
        throw Failure(code,
                      std::string(failure.what()) + "; it received " + std::to_string(sent_) +
                          " of " + std::to_string(size_) + " bytes",
                      hint);
    }

    void end_bar() {
        report([this] { reporter_.end_bar(); });
    }

    const Context& context_;
    Session& session_;
    const JovuDeviceAddress address_;
    PushReporter& reporter_;
    const std::uint64_t size_;
    std::uint64_t sent_ = 0;                         ///< Bytes, filler included.
    std::optional<double> cancelled_at_;             ///< Percent.
    bool announced_ = false;                         ///< The device has received the announcement.
    std::optional<StopSource::ExitNote> exit_note_;  ///< Set before the announcement is sent.
    std::exception_ptr output_failure_;
};

Failure refused(JovuDeviceAddress address, const std::string& what, const StatusReport& report) {
    return Failure(ExitCode::device_refused,
                   device_name(address) + " " + what + ": " + describe_error(report));
}

bool has_job(const StatusReport& report) {
    const JobPhase phase = state_phase(report.state);
    return phase == JobPhase::active || phase == JobPhase::paused || phase == JobPhase::receiving;
}

void check_free(JovuDeviceAddress address, const StatusReport& report) {
    if (has_job(report)) {
        throw Failure(ExitCode::device_refused,
                      device_name(address) + " is busy with another job: " + report.state + ", " +
                          std::to_string(report.progress) + " %",
                      "nothing was sent; 'jovu abort' ends that job");
    }
}

/// Whether a report shows another job than the report before the push.
bool shows_new_job(const StatusReport& before, const StatusReport& now) {
    const JobPhase phase = state_phase(now.state);
    return now.job_id != before.job_id || now.file != before.file || phase == JobPhase::active ||
           phase == JobPhase::paused;
}

/// Waits until the device shows the job or refuses it. An error from before the push counts only
/// when it lasts until the deadline.
StatusReport wait_accepted(Session& session, JovuDeviceAddress address,
                           const StatusReport& before) {
    const auto deadline = NotificationQueue::Clock::now() + kAcceptLimit;
    for (;;) {
        StatusReport now = session.request_status(address);
        const JobPhase phase = job_phase(now);
        const bool new_job = shows_new_job(before, now);
        const bool late = NotificationQueue::Clock::now() >= deadline;
        if (phase == JobPhase::error && (new_job || now.error != before.error || late)) {
            throw refused(address, "refused the job", now);
        }
        if (new_job && phase != JobPhase::error && phase != JobPhase::receiving) {
            return now;
        }
        if (late) {
            throw refused(address, "does not show the job", now);
        }
        session.wait_until(address, NotificationQueue::Clock::now() + kAcceptPoll);
    }
}

/// Follows the job until it has ended.
/// @return the last report, of a complete job.
StatusReport wait_finished(Session& session, JovuDeviceAddress address, PushReporter& reporter,
                           StatusReport report) {
    for (;;) {
        switch (job_phase(report)) {
            case JobPhase::finished:
                return report;
            case JobPhase::error:
                throw refused(address, "did not finish the job", report);
            case JobPhase::aborted:
                throw Failure(ExitCode::device_refused, "job was aborted at " +
                                                            std::to_string(report.progress) +
                                                            " %: " + report.job_id);
            case JobPhase::idle:
                if (report.progress >= 100) {
                    return report;
                }
                throw Failure(ExitCode::device_refused, "job ended early, at " +
                                                            std::to_string(report.progress) +
                                                            " %: " + report.job_id);
            case JobPhase::receiving:
            case JobPhase::active:
            case JobPhase::paused:
                break;
        }
        reporter.printing(report);
        session.wait_until(address, NotificationQueue::Clock::now() + kFollowPoll);
        report = session.request_status(address);
    }
}

void follow(const Context& context, Session& session, JovuDeviceAddress address,
            PushReporter& reporter, const StatusReport& report) {
    try {
        reporter.finished(wait_finished(session, address, reporter, report));
    } catch (const Failure& failure) {
        if (failure.code() == ExitCode::output_closed) {
            throw;
        }
        reporter.end_bar();
        if (failure.code() == ExitCode::interrupted) {
            throw Failure(ExitCode::interrupted,
                          "interrupted: " + device_name(address) + " continues the job",
                          "'jovu abort' ends it");
        }
        throw;
    }
    context.stop.throw_if_stopped();
}

/// Follows the job that a device has.
void attach(const Context& context) {
    const SessionLease lease(context, Interest{true, false});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const StatusReport report = session.request_status(address);
    if (!has_job(report)) {
        throw Failure(ExitCode::device_refused, "no job to follow: " + device_name(address) +
                                                    " reports the state " + state_string(report));
    }
    PushReporter reporter(context.out, address, report.file, 0);
    follow(context, session, address, reporter, report);
}

void run_push(const Context& context, const PushOptions& options) {
    if (const auto fleet = fleet_context(context)) {
        if (options.attach) {
            throw Failure(ExitCode::usage, "--attach is not available with --fleet",
                          "'jovu status --watch' and 'jovu monitor' show the jobs");
        }
        push_to_fleet(*fleet, {options.file, options.size, options.sha256, options.wait});
        return;
    }
    if (options.size || !options.sha256.empty()) {
        throw Failure(ExitCode::usage, "--size and --sha256 need --fleet");
    }
    if (options.attach) {
        attach(context);
        return;
    }
    const std::uint64_t size = check_input_file(options.file, "push");
    const SessionLease lease(context, Interest{true, false});
    Session& session = lease.session();
    const JovuDeviceAddress address = session.pick_device();
    const StatusReport before = session.request_status(address);
    check_free(address, before);

    PushReporter reporter(context.out, address, options.file, size);
    Push(context, session, address, reporter, size).run(options.file);
    const StatusReport report = wait_accepted(session, address, before);
    reporter.accepted(report);
    if (options.wait) {
        follow(context, session, address, reporter, report);
    }
}

Run define_push(CLI::App& app) {
    const auto options = std::make_shared<PushOptions>();
    const CLI::Option* file =
        app.add_option("FILE", options->file, "The job file; must not be empty")->type_name("");
    app.add_flag("--wait", options->wait, "Follow the job to its end");
    const CLI::Option* attaches =
        app.add_flag("--attach", options->attach, "Send nothing; follow the job that runs already");
    app.add_option("--size", options->size, "Size of a job by URL, with --fleet")
        ->type_name("BYTES");
    app.add_option("--sha256", options->sha256, "Its SHA-256, 64 hexadecimal digits")
        ->type_name("HEX");
    app.callback([file, attaches] {
        if ((file->count() == 0) == (attaches->count() == 0)) {
            throw CLI::ValidationError("either FILE or --attach is needed");
        }
    });
    app.footer(
        "Waits until the device has accepted the job, at most 10 seconds. Ctrl-C cancels the\n"
        "push: it sends filler for the rest of the job, and the device refuses the job. A second\n"
        "Ctrl-C ends at once and leaves the device waiting for the rest.\n\n"
        "With --fleet, the bridge of each device fetches the job: FILE is an https or file URL\n"
        "with --size and --sha256, or a file in a folder that this computer and the bridges\n"
        "share under the same path.");
    return [options](const Context& context) { run_push(context, *options); };
}

}  // namespace

const Command kPushCommand{"push", "Send a print job", define_push, FleetUse::works};

}  // namespace jovu_cli
