#include "identity.h"

#include "session.h"

namespace jovu_cli {

Identity read_identity(Session& session, JovuDeviceAddress address) {
    const auto text = [](const std::shared_ptr<char>& answer) {
        return answer ? std::string(answer.get()) : std::string();
    };
    Client& client = session.client();
    Identity identity;
    identity.version = text(session.exchange(address, "version request",
                                             [&] { return client.bio_get_version(address); }));
    identity.serial = text(session.exchange(address, "serial number request",
                                            [&] { return client.bio_get_serial(address); }));
    return identity;
}

}  // namespace jovu_cli
