// SPDX-License-Identifier: Apache-2.0

/// @file
/// The terminal of `jovu monitor`. No other file includes the header of the terminal library, whose
/// macros have common names.
#pragma once

#include <chrono>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "monitor/model.h"
#include "posix/stop_source.h"
#include "terminal/output.h"

namespace jovu_cli {

/// How a part of a line looks.
enum class Style { normal, strong, faint, good, warning, bad };

/// A part of a line.
struct Span {
    std::string text;  ///< UTF-8. What is not printable() is drawn as an escape.
    Style style = Style::normal;
};

/// A line of the screen, without a line feed.
using ScreenLine = std::vector<Span>;

/// The size of a screen in characters.
struct ScreenSize {
    unsigned rows;
    unsigned columns;
};

/// Shows lines on the whole terminal and reads keys. The terminal is as before when the object is
/// destroyed, and while the process is stopped or when it is killed. Lines that the program and the
/// library write to standard error meanwhile are kept if that is a terminal, and written at the
/// end. At most one may exist. To be used by one thread.
class Screen {
public:
    /// @param out a terminal, as is standard input.
    /// @throws Failure usage when the type of the terminal is unknown.
    explicit Screen(const Output& out);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    ScreenSize size() const;

    /// Draws what has changed since the last call. Cuts lines at the last column. Does nothing in
    /// the background and while the terminal takes no output.
    void draw(const std::vector<ScreenLine>& lines);

    /// @return the next key, if one was pressed.
    std::optional<MonitorKey> read_key();

    /// Waits until the next frame is due: when a key is pressed or the program is to end; when one
    /// of the descriptors is readable, but 50 ms after the last frame at the earliest; or after
    /// 250 ms, for the ages on the screen.
    /// @param drawn when the last frame was drawn.
    /// @throws Failure when the program is to end, and output_closed when the terminal is closed.
    static void wait_for_frame(const StopSource& stop, std::chrono::steady_clock::time_point drawn,
                               std::initializer_list<int> descriptors);

private:
    struct Library;
    std::unique_ptr<Library> library_;
};

}  // namespace jovu_cli
