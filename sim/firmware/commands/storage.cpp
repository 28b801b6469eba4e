// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "firmware/commands/commands.h"

namespace jovusim {

namespace {

constexpr int kOffCard = -1;

/// Longest read, in bytes: its response always fits into a frame.
constexpr std::uint32_t kLongestRead = 12288;

/// Reported durations, in microseconds.
constexpr int kWriteMicros = 240;
constexpr int kReadMicros = 35;

/// Stores the bytes that have arrived: the host sends one element of its buffer, whatever the
/// length.
Json sd_mmc_write(CommandContext& context) {
    const auto offset = context.arg<std::uint32_t>("offset");
    const auto length = context.arg<std::uint32_t>("length");
    if (!Storage::holds(offset, length)) return kOffCard;
    std::string bytes;
    for (const Json& byte : context.args["buf"])
        bytes += static_cast<char>(byte.get<unsigned>());
    bytes.resize(std::min<std::size_t>(bytes.size(), length));
    if (!bytes.empty()) context.machine.storage().write(offset, bytes);
    return bytes.size();
}

Json sd_mmc_write_byte(CommandContext& context) {
    const std::string byte(1, static_cast<char>(context.arg<unsigned>("write_buf")));
    const bool done = context.machine.storage().write(context.arg<std::uint32_t>("offset"), byte);
    return {{"success", int{done}}, {"timetowrite", done ? kWriteMicros : 0}};
}

Json sd_mmc_read_byte(CommandContext& context) {
    const auto byte = context.machine.storage().read(context.arg<std::uint32_t>("offset"), 1);
    if (!byte) return {{"byteread", kOffCard}, {"timetoread", 0}};
    return {{"byteread", static_cast<unsigned char>(byte->front())}, {"timetoread", kReadMicros}};
}

Json sd_mmc_read(CommandContext& context) {
    const auto offset = context.arg<std::uint32_t>("offset");
    const auto length = context.arg<std::uint32_t>("length");
    if (!Storage::holds(offset, length)) return kOffCard;
    const auto bytes = context.machine.storage().read(offset, std::min(length, kLongestRead));
    Json buffer = Json::array();
    for (const char byte : *bytes)
        buffer.push_back(static_cast<unsigned char>(byte));
    context.args["read_buf"] = std::move(buffer);
    return bytes->size();
}

Json sd_mmc_get_storage_info(CommandContext&) {
    return {{"total_size", Storage::kSize},
            {"block_count", Storage::kBlocks},
            {"block_size", Storage::kBlockSize}};
}

constexpr Command kStorageRows[] = {
    {55,
     "sd_mmc_write",
     sd_mmc_write,
     {{{"offset", &kUnsigned}, {"buf", &kByteBuffer}, {"length", &kUnsigned}}}},
    {56, "sd_mmc_write_byte", sd_mmc_write_byte, {{{"offset", &kUnsigned}, {"write_buf", &kByte}}}},
    {57, "sd_mmc_read_byte", sd_mmc_read_byte, {{{"offset", &kUnsigned}}}},
    {58,
     "sd_mmc_read",
     sd_mmc_read,
     {{{"offset", &kUnsigned}, {"read_buf", &kByteBuffer}, {"length", &kUnsigned}}}},
    {59, "sd_mmc_get_storage_info", sd_mmc_get_storage_info, {}},
};

}  // namespace

CommandRows storage_commands() {
    return {kStorageRows, std::size(kStorageRows)};
}

}  // namespace jovusim
