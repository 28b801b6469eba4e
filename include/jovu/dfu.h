// SPDX-License-Identifier: Apache-2.0

/// @file
/// Firmware update of devices in DFU mode, through the program dfu-util.
#pragma once

#include <cstdio>
#include <list>
#include <memory>
#include <string>

#include "jovu/export.h"

/// Lists devices in DFU mode and writes firmware images to them, by running dfu-util and reading
/// what it prints. JovuCommandInterface::Enter_dfu_mode() switches a device to DFU mode; this
/// class needs no JovuClient.
///
/// dfu-util is run as the file "dfu-util" in the directory that was the working directory when the
/// object was built, by the shell (popen()). What it prints on standard output is read; its
/// standard error, and the shell's, is that of the process.
///
/// Strings on the command line:
/// - Blanks are not quoted. In the tool's directory and the image's path escape_spaces() puts a
///   slash in front of them, in ids and the serial number they stay as they are, and the shell
///   splits the text there. Keep tool and images at paths without blanks.
/// - A string with any other character that is special to a shell (a line feed is one) is put
///   between single quotes, whole and unchanged. So is a string in which a blank is followed by
///   "-", where dfu-util would see an option. Blanks in such a string are quoted with the rest, and
///   it arrives unchanged.
/// - An image path that begins with "-" gets "./" in front, which is the same file: it is
///   neither an option nor the standard input. Ids and serial numbers that begin with "-"
///   follow their option, and so are its argument.
/// - An empty serial number leaves dfu-util with a command line that it refuses.
///
/// Threads: all operations run on the caller's thread and block it until dfu-util has ended,
/// however long that takes. An object runs one operation at a time: the caller must not use it from
/// two threads at once. Different objects are independent.
class JOVU_API JovuDfu {
public:
    /// A device in DFU mode, as dfu-util prints it.
    struct DfuDevice_t {
        std::string vendor_id;   ///< USB vendor id, hexadecimal, for example "1234".
        std::string product_id;  ///< USB product id, hexadecimal, for example "abcd".
        std::string serial;      ///< USB serial number, letters and digits.
    };

    /// Progress of an update, called on the updating thread.
    /// @param percent as dfu-util prints it, 0.0 to 100.0, as often as it does; then once 100.0 at
    ///     the end, also when the update has failed.
    /// @param device a copy of the device that is updated.
    using Progress = void (*)(double percent, DfuDevice_t device);

    /// Remembers the working directory. If it cannot be read, or its path is longer than 1023
    /// bytes, dfu-util is looked for at "/dfu-util".
    JovuDfu();

    JovuDfu(const JovuDfu&) = delete;
    JovuDfu& operator=(const JovuDfu&) = delete;

    /// Not while an operation runs.
    ~JovuDfu();

    /// Lists the devices in DFU mode.
    /// @return one entry per line of dfu-util's that has a serial number of letters and digits, in
    ///     its order. That is one per alternate setting, so a device may be listed several times. A
    ///     device without serial number is listed by dfu-util as "UNKNOWN", and so here. Empty also
    ///     when dfu-util is missing or fails.
    /// @throws JovuException "Failed to open dfu-util pipe." when no process can be started;
    ///     "dfu-util is already running for this object."
    std::list<DfuDevice_t> GetDfuDevices();

    /// Writes a firmware image to a device's alternate setting 0.
    ///
    /// Returns normally when dfu-util has printed at least one percentage; its exit status does not
    /// count. A percentage counts when it has whitespace on both sides and is not split between two
    /// pieces of 127 bytes in which long lines are read.
    /// @param device as returned by GetDfuDevices().
    /// @param file path of the image, relative to the working directory at the time of the call.
    /// @param progress may be null. An exception that it throws passes on to the caller. It ends
    ///     the update: dfu-util's output is closed, and dfu-util ends when it next prints
    ///     (SIGPIPE), or goes on to its own end if the application ignores or blocks SIGPIPE. The
    ///     exception passes on after that. A download that is cut leaves the device without working
    ///     firmware; update it again before it is used.
    /// @throws JovuException "Failed to open dfu-util pipe." when no process can be started, or the
    ///     strings are longer than a command line may be;
    ///     "Failed to update device, pipe log: " and all that dfu-util has printed on standard
    ///     output, or the shell's reason if it could not run dfu-util;
    ///     "Failed to update device, null byte in ..." and the string, having run nothing;
    ///     "dfu-util is already running for this object." in a progress callback of this object.
    void UpdateDevice(DfuDevice_t device, std::string file, Progress progress);

private:
    class Run;
    struct JOVU_LOCAL PipeClose {
        void operator()(std::FILE* pipe) const noexcept;
    };

    std::unique_ptr<std::FILE, PipeClose> pipe_;  ///< To the running tool, null when none runs.
    std::string tool_directory_;                  ///< As it stands on command lines.
};

/// Puts a slash (not a backslash) in front of every run of whitespace: "/tmp/my dir" becomes
/// "/tmp/my/ dir". That does not keep a shell from splitting the path at the blank.
/// @param path any string.
/// @return the string with the slashes.
JOVU_API std::string escape_spaces(std::string path);
