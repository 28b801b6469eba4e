#include "firmware/commands.h"
#include "firmware/values.h"

namespace jovusim {

namespace {

Json bio_get_version(CommandContext& context) {
    return string_to_json(context.identity.firmware_version);
}

Json bio_get_serial(CommandContext& context) {
    return string_to_json(context.identity.serial);
}

constexpr Command kIdentityRows[] = {
    {0, "bio_get_version", bio_get_version, {}},
    {1, "bio_get_serial", bio_get_serial, {}},
};

}  // namespace

CommandRows identity_commands() {
    return {kIdentityRows, std::size(kIdentityRows)};
}

}  // namespace jovusim
