#include "fake_usb/no_rtti_client.h"

#include "jovu/client.h"

namespace {

class Quiet : private JovuClient {
public:
    explicit Quiet(std::atomic<int>& events, const JovuScanPause& /*until_built*/ = {})
        : events_(events) {}
    ~Quiet() override { shutdown(); }

private:
    void debug_event(JovuDeviceAddress /*address*/, std::shared_ptr<char> /*text*/) override {
        ++events_;
    }

    std::atomic<int>& events_;
};

}  // namespace

std::shared_ptr<void> test::make_client_without_rtti(std::atomic<int>& events) {
    return std::make_shared<Quiet>(events);
}
