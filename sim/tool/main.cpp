#include <exception>
#include <iostream>
#include <stdexcept>

#include "tool/control_client.h"
#include "tool/exit_status.h"
#include "tool/options.h"
#include "tool/runner.h"

int main(int argc, char** argv) {
    using namespace jovusim;
    try {
        const auto options = parse_options(argc, argv);
        if (const auto* run = std::get_if<RunOptions>(&options)) return run_on_bus(*run);
        if (const auto* ctl = std::get_if<CtlOptions>(&options)) {
            return run_control_client(ctl->request);
        }
        if (const auto* firmware = std::get_if<FirmwareOptions>(&options)) {
            std::cout << make_firmware_image(firmware->version, firmware->size) << std::flush;
            if (std::cout) return kExitOk;
            throw std::runtime_error("cannot write the image");
        }
        return std::get<ExitNow>(options).status;
    } catch (const std::exception& error) {
        std::cerr << "jovu-sim: " << error.what() << "\n";
        return kExitFailure;
    }
}
