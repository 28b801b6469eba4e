// SPDX-License-Identifier: Apache-2.0

/// @file
/// Runs the library's firmware update with the installed dfu-util.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "jovu/dfu.h"
#include "update/dfu_listing.h"
#include "update/firmware_image.h"

namespace jovu_cli {

/// The library runs dfu-util in its working directory and splits paths at blanks. This class
/// creates a temporary directory with plain names for the tool and the image and removes it at its
/// end.
class DfuTool {
public:
    /// Finds dfu-util on PATH. Changes the working directory for a moment: no other thread may use
    /// relative paths meanwhile.
    /// @throws Failure failure when it is not installed, or when the temporary
    ///     directory cannot be created.
    DfuTool();
    ~DfuTool();
    DfuTool(const DfuTool&) = delete;
    DfuTool& operator=(const DfuTool&) = delete;

    /// Lists the devices in DFU mode.
    /// @throws JovuException when dfu-util cannot be started.
    DfuListing list();

    /// The result of a download, as dfu-util reports it.
    struct Outcome {
        bool completed = false;   ///< It reported the last byte.
        std::string diagnostics;  ///< Its error messages.
    };
    /// Writes an image to a device, not to another one with the same serial number. Returns when
    /// dfu-util has ended.
    /// @param progress called with per cent; must not throw.
    /// @throws JovuException when dfu-util cannot be started.
    Outcome download(const ListedDevice& device, const FirmwareImage& image,
                     const std::function<void(double)>& progress);

    /// Prints a line on the program's standard error, also while dfu-util's is captured.
    void print_line(const std::string& line) const;

private:
    class ErrorCapture;

    /// A directory that is removed with its content, also when the constructor fails.
    struct Directory {
        Directory() = default;
        ~Directory();
        Directory(const Directory&) = delete;
        Directory& operator=(const Directory&) = delete;
        std::filesystem::path path;
    };
    Directory directory_;
    std::optional<JovuDfu> dfu_;
    int saved_stderr_ = -1;  ///< While dfu-util's is captured; owned by the capture.
};

/// @return the device node that dfu-util had no permission to open; nothing when the diagnostics
///     report no such error.
std::optional<std::string> refused_node(const std::string& diagnostics);

}  // namespace jovu_cli
