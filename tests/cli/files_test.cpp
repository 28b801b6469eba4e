/// @file
/// Files that the program reads and writes: firmware images, gcode, results.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "failure.h"
#include "firmware_image.h"
#include "gcode_source.h"
#include "safe_file.h"
#include "support/job_file.h"
#include "trace_recorder.h"

namespace jovu_cli {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The text of the failure that something ends in.
std::string failure_of(const std::function<void()>& run) {
    try {
        run();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), ExitCode::file_problem);
        return failure.what() + (" (" + failure.hint() + ")");
    }
    return "no failure";
}

TEST(FirmwareImage, IsJudgedByItsContent) {
    const std::string code = "\x01\x02";
    const std::string any(6, '\xFF');  // Release, product and vendor.
    const std::string dfu("\x00\x01UFD", 5);
    std::string umlauts = ";";
    while (umlauts.size() < 9000)
        umlauts += "\u00FC";
    const struct {
        std::string content;
        const char* fault;
        const char* release = "";
    } rows[] = {
        {code, ""},
        {code + std::string("\x50\x02\x02\0\x1c\x7a", 6) + dfu + "\x10\xc3\xf7\xff\xec", "",
         "2.50"},
        {code + any + dfu + "\x10\x74\x1a\x46\xdf", ""},
        {code + any + dfu + "\x10\x75\x1a\x46\xdf",
         "damaged: it has CRC df461a75, the file has df461a74"},
        {code + any + dfu + "\x0f\x81\x17\x4e\x52", "damaged"},
        {code + any + dfu + "\x13\xce\x4b\x4f\x46", "damaged"},
        {code + any + dfu + "\x12\x58\x7b\x48\x31", "it is empty but for its DFU suffix"},
        {any + dfu + "\x10\xe1\xf1\x7b\x88", "it is empty but for its DFU suffix"},
        {"G28\n" + any + dfu + "\x10\xb0\x5e\x63\x0a", "it is plain text"},
        {"G28 ; \u00FC~\t\n", "it is plain text"},
        {"G28\x7F", ""},
        {"G28\xFC", ""},
        {umlauts, "it is plain text"},
        {std::string(5000, '\xAA'), ""},
        {std::string(FirmwareImage::largest, '\xFF'), ""},
        {std::string(FirmwareImage::largest + 1, '\xFF'), "it has 16777217 bytes, no controller"},
    };
    for (const auto& row : rows) {
        const test::TemporaryFile file("image", row.content), copy("copy", "old");
        const FirmwareImage image(file.path());
        EXPECT_THAT(image.fault(),
                    *row.fault == 0 ? testing::Matcher<std::string>("") : HasSubstr(row.fault));
        EXPECT_EQ(image.release(), row.release);
        image.put_at(copy.path());
        const bool large = image.size() > FirmwareImage::largest;
        EXPECT_EQ(fs::is_symlink(copy.path()), large);
        EXPECT_EQ(image.may_be_version("1.2.3"), large);
        if (*row.fault == 0) {
            EXPECT_EQ(
                content_of(copy.path()),
                row.content.substr(
                    0, row.content.find(any + dfu) == 2 || *row.release ? 2 : std::string::npos));
        }
    }
    const test::TemporaryFile file("image", "\x01 1.2.3");
    const FirmwareImage image(file.path());
    EXPECT_TRUE(image.may_be_version("1.2.3"));
    try {
        image.put_at(file.path() + "/copy");
        FAIL() << "a file has no files in it";
    } catch (const Failure& failure) {
        EXPECT_THAT(failure.what(), HasSubstr("/copy: Not a directory"));
    }
}

TEST(GcodeSource, GivesLinesWithTheirNumbers) {
    const StopSource stop(-1);
    const auto lines = [&](const std::string& content) {
        const test::TemporaryFile file("lines", content);
        StreamSource source = StreamSource::open_file(file.path(), stop);
        std::string text;
        while (const std::optional<GcodeLine> line = source.next())
            text += std::to_string(line->number) + "[" + line->text + "]";
        return text;
    };
    const std::string longest = "M117 " + std::string(65531, 'x');
    EXPECT_EQ(lines("; a\nG28\r\r\n\n\t G1 X10 ; m \r\nM117\v\f\nG90"),
              "2[G28]4[G1 X10]5[M117]6[G90]");
    EXPECT_EQ(lines(longest + "\n"), "1[" + longest + "]");
    const std::pair<std::string, const char*> rows[] = {
        {"; a\rG28\n", "line 1 holds a carriage return in its middle: ; a\rG28 (end each line"},
        {std::string("G28\nG1\0X\n", 9), "not gcode: line 2 holds a NUL byte"},
        {std::string(80000, 'G'), "too long: a line of more than 65536 bytes in "}};
    for (const auto& [content, told] : rows)
        EXPECT_THAT(failure_of([&, text = content] { lines(text); }), HasSubstr(told));
    EXPECT_THAT(failure_of([&] { StreamSource::open_file("/", stop).next(); }),
                HasSubstr("cannot read /: Is a directory"));
    EXPECT_THAT(failure_of([&] { StreamSource::open_file("/nowhere", stop); }),
                HasSubstr("cannot read /nowhere: No such file"));
}

TEST(SafeFile, TakesTheOldOnesPlaceWhenItIsWhole) {
    const test::TemporaryFile file("result", "old");
    const std::string link = file.path() + ".link", loop = file.path() + ".loop";
    fs::create_symlink(file.path(), link);
    fs::create_symlink(loop, loop);
    chmod(file.path().c_str(), 0602);
    for (const bool keep : {false, true}) {
        std::string part;
        for (const bool filled : {false, true}) {
            SafeFile unfinished(link,
                                keep ? SafeFile::Unfinished::keep : SafeFile::Unfinished::remove);
            part = unfinished.unfinished_path();
            EXPECT_EQ(part.find(file.path() + "."), 0U) << "beside the file that the link leads to";
            if (filled) unfinished.write("some");
        }
        EXPECT_EQ(fs::exists(part), keep) << "unless nothing is in it";
        EXPECT_EQ(content_of(part), keep ? "some" : "");
        fs::remove(part);
    }
    SafeFile whole(link, SafeFile::Unfinished::keep);
    whole.write(std::string(64U << 10U, 'x'));
    EXPECT_EQ(fs::file_size(whole.unfinished_path()), 64U << 10U) << "not kept in memory";
    whole.write("end");
    EXPECT_EQ(content_of(link), "old");
    whole.finish();
    EXPECT_EQ(content_of(link), std::string(64U << 10U, 'x') + "end");
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::status(link).permissions(), fs::perms(0602));
    fs::remove(link);
    fs::create_symlink("nowhere", link);
    const std::pair<std::string, const char*> rows[] = {
        {"/", ": Is a directory ()"},
        {"/dev/fd/1", " (it carries other text: name a file or a pipe)"},
        {file.path() + "/x", ": Not a directory ()"},
        {link, ": No such file or directory (it is a symbolic link that leads to no file)"},
        {loop, ": Too many levels of symbolic links ()"}};
    for (const auto& [path, told] : rows)
        EXPECT_THAT(failure_of([name = path] { SafeFile(name, SafeFile::Unfinished::keep); }),
                    HasSubstr(path + told));
    EXPECT_TRUE(fs::remove(link) && fs::remove(loop));
}

TEST(TraceRecorder, WritesTheSamplesOfItsServo) {
    const test::TemporaryFile file("samples.csv", "");
    {
        const TraceRecorder empty(1, file.path(), "");
        EXPECT_EQ(empty.unfinished_path(), "");
    }
    TraceRecorder recorder(1, file.path(), "");
    for (const servo_trace_msg& sample :
         {servo_trace_msg{1, 2, 1000, -3, 4, -5, 6}, servo_trace_msg{2, 2, 1001, 0, 0, 0, 0},
          servo_trace_msg{1, 2, 2005, 0, 0, 0, 0}})
        recorder.add(sample);
    EXPECT_THAT(recorder.unfinished_path(), testing::StartsWith(file.path() + "."));
    recorder.finish({});
    EXPECT_EQ(content_of(file.path()),
              "int_cnt,time_s,servo_name,servo_state,pos_cmd,pos,pwm,padout_dist\n"
              "1000,0.000,1,2,-3,4,-5,6\n2005,1.005,1,2,0,0,0,0\n");
}

}  // namespace
}  // namespace jovu_cli
