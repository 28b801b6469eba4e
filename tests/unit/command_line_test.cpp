// SPDX-License-Identifier: Apache-2.0

/// @file
/// The commands that run dfu-util, as a shell reads them.
#include "dfu/command_line.h"

#include <gtest/gtest.h>

#include "support/recording_client.h"

namespace {

using namespace std::string_literals;
using Device = JovuDfu::DfuDevice_t;

TEST(EscapeSpaces, PutsASlashBeforeEveryRunOfWhitespace) {
    EXPECT_EQ(escape_spaces("/tmp/my dir"), "/tmp/my/ dir");
    EXPECT_EQ(escape_spaces(" a\t\n\v\f\r b "), "/ a/\t\n\v\f\r b/ ");
    EXPECT_EQ(escape_spaces("/\\$&a\xC2\xA0"), "/\\$&a\xC2\xA0");
}

TEST(DfuCommandLine, IsPlainUnlessTheShellWouldMakeSomethingElseOfIt) {
    EXPECT_EQ(jovu::path_on_command_line("/Users/a b"), "/Users/a/ b");
    EXPECT_EQ(jovu::path_on_command_line("/Users/a b (2)"), "'/Users/a b (2)'");
    EXPECT_EQ(jovu::listing_command("/opt/fw"), "/opt/fw/dfu-util -l");
    EXPECT_EQ(jovu::listing_command(""), "/dfu-util -l");
    // Also what means something to some shells only.
    for (const char c : ";|&$<>()'\"`*?[]#~!{}^\\\n"s)
        EXPECT_EQ(jovu::path_on_command_line(std::string("a") + c).front(), '\'') << c;

    const struct {
        Device device;
        std::string file, arguments;
    } cases[] = {
        {{"1234", "abcd", "ABC123"}, "/opt/i.bin", "1234:abcd -a 0 -S ABC123 -D /opt/i.bin"},
        {{"1", "2", "A B"}, "/my \tdir/\rx", "1:2 -a 0 -S A B -D /my/ \tdir//\rx"},
        {{"1", "2", "A"}, "/my dir/it's", R"(1:2 -a 0 -S A -D '/my dir/it'\''s')"},
        {{"1", "2", "A"}, "a\nb", "1:2 -a 0 -S A -D 'a\nb'"},
        {{"1", "2", "A -R"}, "b -e", "1:2 -a 0 -S 'A -R' -D 'b -e'"},
        {{"1;", "2", "$A"}, "~", "'1;:2' -a 0 -S '$A' -D '~'"},
        {{"-1", "2", "-A"}, "-R", "-1:2 -a 0 -S -A -D ./-R"},
        {{"1", "2", "A"}, "- R", "1:2 -a 0 -S A -D ./-/ R"},
        {{"", "", ""}, "", ": -a 0 -S  -D "},
        {{"1", "2", "A"}, "\x80\xFFrgen b", "1:2 -a 0 -S A -D \x80\xFFrgen/ b"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(jovu::update_command("/t", row.device, row.file),
                  "/t/dfu-util -d " + row.arguments);
    }
}

TEST(DfuCommandLine, RefusesNullBytes) {
    const std::string with_null("a\0b", 3);
    const std::pair<Device, std::string> cases[] = {{{with_null, "2", "A"}, "vendor id"},
                                                    {{"1", with_null, "A"}, "product id"},
                                                    {{"1", "2", with_null}, "serial number"},
                                                    {{"1", "2", "A"}, "path"}};
    for (const auto& [device, what] : cases) {
        const std::string file = what == "path" ? with_null : "i";
        EXPECT_EQ(
            test::error_of([&, &device = device] { jovu::update_command("/t", device, file); }),
            "Failed to update device, null byte in " + what + ": a\\0b");
    }
}

}  // namespace
