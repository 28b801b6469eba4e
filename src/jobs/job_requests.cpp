#include "jobs/job_requests.h"

#include <string_view>

#include "json/json.h"

namespace jovu {
namespace {

/// Version of the job channel's messages.
constexpr long long kVersion = 1;

class Writer {
public:
    void open(std::string_view key) {
        text(key);
        yajl_gen_map_open(g());
    }
    void open() { yajl_gen_map_open(g()); }
    void close() { yajl_gen_map_close(g()); }
    void text(std::string_view value) {
        yajl_gen_string(g(), reinterpret_cast<const unsigned char*>(value.data()), value.size());
    }
    void number(std::string_view key, std::uint64_t value) {
        text(key);
        yajl_gen_integer(g(), static_cast<long long>(value));
    }
    void text(std::string_view key, std::string_view value) {
        text(key);
        text(value);
    }
    void metadata(std::string_view type) {
        open("metadata");
        number("version", kVersion);
        text("type", type);
        close();
    }
    std::string result() const { return std::string(generator_.text()); }

private:
    yajl_gen g() const { return generator_.get(); }

    JsonGenerator generator_;
};

}  // namespace

std::string job_request(const char* type) {
    Writer writer;
    writer.open();
    writer.metadata(type);
    writer.close();
    return writer.result();
}

std::string job_announcement(const JobAnnouncement& announcement) {
    Writer writer;
    writer.open();
    writer.metadata("file_push");
    writer.open("file_push");
    writer.number("size", announcement.size);
    writer.number("adler32", announcement.adler32);
    writer.text("job_id", announcement.job_id);
    if (announcement.decompressed_length) {
        writer.open("compression");
        writer.text("algorithm", "deflate");
        writer.number("decompressed_length", *announcement.decompressed_length);
        writer.close();
    }
    writer.close();
    writer.close();
    return writer.result();
}

}  // namespace jovu
