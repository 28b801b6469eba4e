#include "jovu/command_interface.h"

#include <string>
#include <utility>
#include <vector>

#include "commands/catalogue.h"
#include "commands/firmware_command.h"

namespace {

namespace catalogue = jovu::catalogue;

/// Runs one exchange of a row of the catalogue and hands back its result, zero-initialised if the
/// exchange failed.
template <class Result>
Result call(JovuTransport& transport, JovuDeviceAddress address,
            const jovu::CommandRow<Result>& row) {
    JovuFirmwareCommandNoArg<Result> command(transport, std::string(row.name), row.idx);
    command.send(address);
    return std::move(command.result());
}

template <class Result, class... Args>
Result call(JovuTransport& transport, JovuDeviceAddress address,
            const jovu::CommandRow<Result, Args...>& row, Args... args) {
    JovuFirmwareCommand<Result, Args...> command(
        transport, std::string(row.name), row.idx, std::tuple<Args...>(std::move(args)...),
        std::vector<std::string>(row.keys.begin(), row.keys.end()));
    command.send(address);
    return std::move(command.result());
}

}  // namespace

JovuCommandInterface::JovuCommandInterface(JovuTransport& transport) : transport_(transport) {}

std::shared_ptr<char> JovuCommandInterface::bio_get_version(JovuDeviceAddress address) {
    return call(transport_, address, catalogue::bio_get_version);
}

std::shared_ptr<char> JovuCommandInterface::bio_get_serial(JovuDeviceAddress address) {
    return call(transport_, address, catalogue::bio_get_serial);
}

gcode_process_result_t JovuCommandInterface::gcode_process_command(JovuDeviceAddress address,
                                                                   std::shared_ptr<char> command) {
    return call(transport_, address, catalogue::gcode_process_command, std::move(command));
}
