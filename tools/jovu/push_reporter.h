/// @file
/// Shows how a print job comes along, while it is sent and while it is printed: as a bar on a
/// terminal, as a line now and then elsewhere, or as JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "inbox.h"
#include "output.h"
#include "progress_bar.h"

namespace jovu_cli {

/// Decides which steps of a progress are worth a line: each tenth of the way, once.
class Tenths {
public:
    /// @return whether @p percent has reached a tenth that none before it had.
    bool reached(double percent);

private:
    int last_ = -1;
};

/// Writes the progress of one job. Every method throws as Output does.
class PushReporter {
public:
    /// @param file the job's name for people; need not be printable.
    /// @param size of the file in bytes.
    PushReporter(Output& out, JovuDeviceAddress device, const std::string& file,
                 std::uint64_t size);

    /// The file is being sent.
    /// @param sent bytes so far.
    /// @param filler whether it is filler by now, for a push that has been cancelled.
    void sending(double percent, std::uint64_t sent, bool filler);
    /// The device has accepted the job.
    void accepted(const StatusReport& report);
    /// The device is printing the job.
    void printing(const StatusReport& report);
    /// The job is through.
    void finished(const StatusReport& report);
    /// Ends a bar that is being drawn, so that other lines can follow.
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

}  // namespace jovu_cli
