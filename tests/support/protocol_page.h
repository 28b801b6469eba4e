// SPDX-License-Identifier: Apache-2.0

/// @file
/// Reads the blocks of docs/protocol.md that tests compare: each follows a marker.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/job_file.h"

namespace test {

/// The text between "<!-- MARKER -->" with a line feed, and "<!-- end -->".
struct PageBlock {
    std::size_t begin;
    std::size_t size;
};

inline PageBlock find_block(const std::string& page, const std::string& marker) {
    const std::string before = "<!-- " + marker + " -->\n";
    const std::size_t found = page.find(before);
    const std::size_t begin = found + before.size();
    const std::size_t end = page.find("<!-- end -->", begin);
    if (found == std::string::npos || end == std::string::npos) {
        ADD_FAILURE() << "the page lacks the block " << marker;
        return {0, 0};
    }
    return {begin, end - begin};
}

/// Bytes on the wire: one transfer.
struct PageTransfer {
    unsigned endpoint;
    std::string bytes;
};

/// Reads a block of lines such as "OUT 02  24 96 |$.|". A line without an endpoint continues the
/// transfer of the line before it.
inline std::vector<PageTransfer> transfers_of(const std::string& page, const std::string& marker) {
    const PageBlock block = find_block(page, marker);
    std::istringstream lines(page.substr(block.begin, block.size));
    std::vector<PageTransfer> transfers;
    for (std::string line; std::getline(lines, line);) {
        constexpr std::size_t kEndpoint = 4, kBytes = 8;
        if (line.size() < kBytes || line.find('|') == std::string::npos) continue;
        if (line[0] != ' ')
            transfers.push_back(
                {static_cast<unsigned>(std::stoul(line.substr(kEndpoint, 2), nullptr, 16)), ""});
        std::istringstream digits(line.substr(kBytes, line.find('|') - kBytes));
        for (std::string pair; digits >> pair;)
            transfers.back().bytes += static_cast<char>(std::stoul(pair, nullptr, 16));
    }
    EXPECT_FALSE(transfers.empty()) << marker;
    return transfers;
}

/// The lines of a block that hold a JSON object, without their indentation.
inline std::vector<std::string> objects_of(const std::string& page, const std::string& marker) {
    const PageBlock block = find_block(page, marker);
    std::istringstream lines(page.substr(block.begin, block.size));
    std::vector<std::string> objects;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t begin = line.find_first_not_of(' ');
        if (begin != std::string::npos && line[begin] == '{') objects.push_back(line.substr(begin));
    }
    return objects;
}

}  // namespace test
