/// @file
/// The job that the machine is busy with, from its announcement to its end.
#pragma once

#include <cstdint>
#include <string>

#include "firmware/base/types.h"

namespace jovusim {

/// A state lasts until the next push, pause or abort changes it.
enum class JobState : std::uint8_t {
    idle,       ///< no job since power-on
    receiving,  ///< announced, bytes are still owed
    printing,
    paused,
    finished,
    aborted,
    error,  ///< see PrintJob::error()
};

/// The word for a state in a status report.
const char* to_string(JobState state);

/// What went wrong last; 0 again with the next job that is received well, or an abort.
enum class JobError : std::uint8_t {
    none = 0,
    incomplete = 1,    ///< the host fell silent before the announced size had arrived
    checksum = 2,      ///< the bytes do not have the announced Adler-32
    announcement = 3,  ///< a file_push whose members are missing or of the wrong type
    busy = 4,          ///< a push while another job runs: its bytes were thrown away
    request = 5,       ///< an object that is no request of this channel
};

/// One job after the other. Times are machine seconds.
class PrintJob {
public:
    /// A push was announced. @param id empty: the job gets an id of the machine's own.
    void announce(const std::string& id);

    /// The announced bytes have arrived and are good: printing begins.
    void start();

    /// Pauses a printing job, resumes a paused one.
    void toggle_pause();

    /// Ends a printing or paused job.
    void abort();

    /// Notes an error. A job that is running goes on; otherwise the state becomes error.
    void fail(JobError error);

    void advance(double seconds);

    bool running() const { return state_ == JobState::printing || state_ == JobState::paused; }
    JobState state() const { return state_; }
    JobError error() const { return error_; }
    const std::string& id() const { return id_; }
    const std::string& file() const { return file_; }
    int progress() const;         ///< percent, 0 to 100
    int elapsed_seconds() const;  ///< of printing, pauses left out
    std::uint64_t finished() const { return finished_; }

    /// What the extruder has to hold for this job; 0 when nothing is printed.
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
