/// @file
/// Shows how a firmware update comes along.
#pragma once

#include <exception>
#include <optional>
#include <string>

#include "output.h"
#include "progress_bar.h"
#include "push_reporter.h"

namespace jovu_cli {

/// Writes the steps of one update: as a bar on a terminal, as lines elsewhere, or as JSON.
class UpdateReporter {
public:
    explicit UpdateReporter(Output& out) : out_(out) {
        if (out.redraws()) {
            bar_.emplace(out);
        }
    }

    /// A step is done or begins. @param event its name in JSON. @throws as Output.
    void step(const char* event, const std::string& serial, const std::string& text);

    /// The image is being written. A reader that goes away is told of by finish(), as the download
    /// must not be cut.
    void downloading(const std::string& serial, double percent) noexcept;

    /// Ends the bar. @throws what downloading() could not.
    void end_download();

    /// The device runs a firmware again, the one from before or another one. @throws as Output.
    void done(const std::string& device, const std::string& serial, const std::string& before,
              const std::string& now);

private:
    Output& out_;
    Tenths tenths_;
    std::optional<ProgressBar> bar_;
    std::exception_ptr output_failure_;
};

}  // namespace jovu_cli
