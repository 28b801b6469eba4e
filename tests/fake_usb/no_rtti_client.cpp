#include <atomic>

#include "jovu/client.h"

namespace test {
namespace {

struct Quiet : private JovuClient {
    explicit Quiet(std::atomic<int>& counter, const JovuScanPause& /*until_built*/ = {})
        : events(counter) {}
    ~Quiet() override { shutdown(); }
    void debug_event(JovuDeviceAddress /*address*/, std::shared_ptr<char> /*text*/) override {
        ++events;
    }

    std::atomic<int>& events;
};

}  // namespace

std::shared_ptr<void> make_client_without_rtti(std::atomic<int>& events) {
    return std::make_shared<Quiet>(events);
}

}  // namespace test
