/// @file
/// The library's firmware update, with the dfu-util that is installed.
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

/// The library runs the dfu-util in its working directory and has its own ideas about paths with
/// blanks. This gives it a directory with plain names that lead to the tool and to the image, for
/// as long as this object lives.
class DfuTool {
public:
    /// Looks for dfu-util on PATH. Changes the working directory for a moment: not while another
    /// thread uses relative paths.
    /// @throws Failure failure when it is not installed, or when there is no temporary directory.
    DfuTool();
    ~DfuTool();
    DfuTool(const DfuTool&) = delete;
    DfuTool& operator=(const DfuTool&) = delete;

    /// Runs dfu-util for its listing.
    /// @throws JovuException when dfu-util cannot be started.
    DfuListing list();

    /// How a download went, as far as dfu-util tells.
    struct Outcome {
        bool completed = false;   ///< It told of the last byte.
        std::string diagnostics;  ///< What it complained of.
    };
    /// Writes an image to a device, and to no other one with its serial number; returns when
    /// dfu-util has ended.
    /// @param progress called with per cent; must not throw.
    /// @throws JovuException when dfu-util cannot be started.
    Outcome download(const ListedDevice& device, const FirmwareImage& image,
                     const std::function<void(double)>& progress);

    /// Prints a line on the real standard error, also while dfu-util's is being read.
    void print_line(const std::string& line) const;

private:
    class ErrorCapture;

    /// Removed with all that is in it, also when the constructor fails.
    struct Directory {
        Directory() = default;
        ~Directory();
        Directory(const Directory&) = delete;
        Directory& operator=(const Directory&) = delete;
        std::filesystem::path path;
    };
    Directory directory_;
    std::optional<JovuDfu> dfu_;
    int saved_stderr_ = -1;  ///< While dfu-util's is being read; owned by the capture.
};

/// The device node that a complaint of dfu-util is about, when it says that access was refused.
/// @return nothing when it says no such thing.
std::optional<std::string> refused_node(const std::string& words);

}  // namespace jovu_cli
