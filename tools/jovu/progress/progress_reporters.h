// SPDX-License-Identifier: Apache-2.0

/// @file
/// Show the progress of a push and of a firmware update: as a bar on a terminal, as lines
/// elsewhere, or as JSON. A quiet output shows the outcome alone.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "progress/progress_bar.h"
#include "session/notification_queue.h"
#include "terminal/output.h"

namespace jovu_cli {

/// Writes the progress of one print job. Every method throws as Output does.
class PushReporter {
public:
    /// @param file the job's name; need not be printable.
    /// @param size of the file in bytes.
    PushReporter(Output& out, JovuDeviceAddress device, const std::string& file,
                 std::uint64_t size);

    /// Reports bytes that were sent.
    /// @param sent bytes so far.
    /// @param filler whether filler is sent, after the push was cancelled.
    void sending(double percent, std::uint64_t sent, bool filler);
    /// Reports that the device has accepted the job.
    void accepted(const StatusReport& report);
    /// Reports how much of the job is printed.
    void printing(const StatusReport& report);
    /// Reports that the job is complete.
    void finished(const StatusReport& report);
    /// Ends the line of a bar, so that other lines can follow.
    void end_bar();

private:
    void object(const char* event, const StatusReport& report);

    Output& out_;
    const JovuDeviceAddress device_;
    const std::string file_;
    const std::uint64_t size_;
    RateMeter meter_;
    Tenths sent_tenths_;
    Tenths printed_tenths_;
    std::string last_state_;
    std::optional<ProgressBar> bar_;
};

/// Writes the steps of one update.
class UpdateReporter {
public:
    explicit UpdateReporter(Output& out) : out_(out) {
        if (out.redraws() && !out.quiet()) {
            bar_.emplace(out);
        }
    }

    /// Reports a step.
    /// @param event the step's name in JSON.
    /// @param line the step for people.
    /// @throws as Output.
    void step(const char* event, const std::string& serial, const std::string& line);

    /// Reports the percentage that was written. Keeps an error of the output for end_download(), as
    /// the download must not be interrupted.
    void downloading(const std::string& serial, double percent) noexcept;

    /// Ends the bar.
    /// @throws the error that downloading() kept.
    void end_download();

    /// Reports that the device runs a firmware again.
    /// @param before the version before the update; empty when it is unknown.
    /// @throws as Output.
    void done(const std::string& device, const std::string& serial, const std::string& before,
              const std::string& now);

private:
    Output& out_;
    Tenths tenths_;
    std::optional<ProgressBar> bar_;
    std::exception_ptr output_failure_;
};

}  // namespace jovu_cli
