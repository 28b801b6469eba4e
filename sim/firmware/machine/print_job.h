// SPDX-License-Identifier: Apache-2.0

/// @file
/// A print job, from its announcement to its end.
#pragma once

#include <cstdint>
#include <string>

#include "firmware/base/types.h"

namespace jovusim {

/// States of the job.
enum class JobState : std::uint8_t {
    idle,       ///< no job since power-on
    receiving,  ///< announced, not all bytes have arrived
    printing,
    paused,
    finished,
    aborted,
    error,  ///< see PrintJob::error()
};

/// The name of a state in a status report.
const char* to_string(JobState state);

/// The last error; reset by the next job that arrives intact, and by an abort.
enum class JobError : std::uint8_t {
    none = 0,
    incomplete = 1,    ///< the bytes stopped before the announced size
    checksum = 2,      ///< the Adler-32 differs from the announced one
    announcement = 3,  ///< a file_push with missing or mistyped members
    busy = 4,          ///< a push while another job runs; its bytes are discarded
    request = 5,       ///< an object that is not a request of this channel
};

/// One job at a time. Times are machine seconds.
class PrintJob {
public:
    /// Begins a push. @param id empty: the machine assigns one
    void announce(const std::string& id);

    /// Begins printing: the announced bytes have arrived intact.
    void start();

    /// Pauses a printing job, resumes a paused one.
    void toggle_pause();

    /// Ends a printing or paused job.
    void abort();

    /// Records an error. A running job continues; otherwise the state becomes error.
    void fail(JobError error);

    void advance(double seconds);

    bool running() const { return state_ == JobState::printing || state_ == JobState::paused; }
    JobState state() const { return state_; }
    JobError error() const { return error_; }
    const std::string& id() const { return id_; }
    const std::string& file() const { return file_; }
    int progress() const;         ///< percent, 0 to 100
    int elapsed_seconds() const;  ///< of printing, without pauses
    std::uint64_t finished() const { return finished_; }

    /// Temperature of the extruder for this job; 0 when nothing is printed.
    double temperature_wanted() const;

private:
    JobState state_ = JobState::idle;
    JobError error_ = JobError::none;
    std::string id_;
    std::string file_;
    double elapsed_ = 0;
    std::uint64_t announced_ = 0;
    std::uint64_t finished_ = 0;
};

}  // namespace jovusim
