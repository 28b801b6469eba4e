/// @file
/// The manual contains the help texts of the program. With JOVU_UPDATE_MANUAL=1 in the environment,
/// the test writes them into the manual.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "commands/command.h"
#include "support/job_file.h"

namespace {

std::string help(const std::string& command) {
    const char* const argv[] = {"jovu", command.c_str(), "--help"};
    const char* const whole[] = {"jovu", "--help"};
    const auto request = command.empty() ? jovu_cli::parse_command_line(2, whole)
                                         : jovu_cli::parse_command_line(3, argv);
    return request.message;
}

/// Inserts a help text into the manual: a fenced block after a marker.
void insert_help(std::string& manual, const std::string& command) {
    const std::string words = command.empty() ? "jovu --help" : "jovu " + command + " --help";
    const std::string marker = "<!-- " + words + " -->\n```text\n";
    const std::size_t begin = manual.find(marker);
    ASSERT_NE(begin, std::string::npos) << "the manual lacks the place for: " << words;
    const std::size_t text = begin + marker.size();
    const std::size_t end = manual.find("```\n", text);
    ASSERT_NE(end, std::string::npos);
    std::string shown = help(command);
    shown.erase(0, shown.find_first_not_of('\n'));
    manual.replace(text, end - text, shown);
}

TEST(Manual, ShowsTheHelpTextsAsTheyAre) {
    const std::string written = test::content_of(JOVU_MANUAL);
    std::string expected = written;
    insert_help(expected, "");
    for (const jovu_cli::Command& command : jovu_cli::command_table()) {
        insert_help(expected, command.name);
    }
    if (HasFatalFailure()) return;
    if (std::getenv("JOVU_UPDATE_MANUAL") != nullptr) {
        std::ofstream(JOVU_MANUAL, std::ios::binary) << expected;
        FAIL() << "the manual was written anew; look at it and run the test again";
    }
    EXPECT_EQ(written, expected) << "run this test with JOVU_UPDATE_MANUAL=1 to write it anew";
}

}  // namespace
