#include "identity.h"

#include "session.h"

namespace jovu_cli {
namespace {

std::string text(const std::shared_ptr<char>& answer) {
    return answer ? answer.get() : "";
}

}  // namespace

Identity read_identity(Session& session, JovuDeviceAddress address) {
    Identity identity;
    identity.version = text(session.exchange(
        address, "version request", [&] { return session.client().bio_get_version(address); }));
    identity.serial = read_serial(session, address);
    return identity;
}

std::string read_serial(Session& session, JovuDeviceAddress address) {
    return text(session.exchange(address, "serial number request",
                                 [&] { return session.client().bio_get_serial(address); }));
}

}  // namespace jovu_cli
