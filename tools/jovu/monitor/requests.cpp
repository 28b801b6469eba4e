// SPDX-License-Identifier: Apache-2.0
#include "monitor/requests.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>
#include <utility>

#include "cli/options.h"
#include "jovu/exception.h"

namespace jovu_cli {
namespace {

std::string text_of(const Failure& failure) {
    return failure.what() + (failure.hint().empty() ? "" : " (" + failure.hint() + ")");
}

/// Makes a request.
/// @throws Failure
void make(Session& session, MonitorOutcome& outcome) {
    const JovuDeviceAddress address = outcome.request.address;
    Client& client = session.client();
    switch (outcome.request.kind) {
        case MonitorRequest::Kind::find_unopened:
            for (const auto& [unopened, obstacle] : session.unopened_controllers()) {
                outcome.unopened.emplace_back(unopened, obstacle.reason);
            }
            break;
        case MonitorRequest::Kind::identify:
            outcome.serial = read_serial(session, address);
            break;
        case MonitorRequest::Kind::status:
            session.send(address, "status request", [&] { client.RequestStatus(address); });
            break;
        case MonitorRequest::Kind::toggle_pause:
            session.send(address, "pause or resume", [&] { client.SendPause(address); });
            break;
        case MonitorRequest::Kind::abort:
            session.send(address, "abort", [&] { client.SendAbort(address); });
            break;
    }
}

}  // namespace

MonitorRequests::MonitorRequests(Session& session)
    : session_(session), event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_.valid()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

MonitorRequests::~MonitorRequests() {
    session_.client().shutdown();
}

void MonitorRequests::start(const MonitorRequest& request) {
    MonitorOutcome outcome;
    outcome.request = request;
    running_.push_back(
        std::async(std::launch::async, [this, outcome = std::move(outcome)] { run(outcome); }));
}

void MonitorRequests::run(MonitorOutcome outcome) {
    try {
        make(session_, outcome);
    } catch (const Failure& failure) {
        outcome.failure = text_of(failure);
    } catch (const JovuException& error) {
        outcome.failure = error.what();  // The bus cannot be listed now.
    }
    const MutexLock lock(mutex_);
    outcomes_.push_back(std::move(outcome));
    const std::uint64_t one = 1;
    (void)!write(event_.get(), &one, sizeof one);
}

std::vector<MonitorOutcome> MonitorRequests::take_outcomes() {
    running_.erase(std::remove_if(running_.begin(), running_.end(),
                                  [](const std::future<void>& request) {
                                      return request.wait_for(std::chrono::seconds(0)) ==
                                             std::future_status::ready;
                                  }),
                   running_.end());
    const MutexLock lock(mutex_);
    std::uint64_t count = 0;
    (void)!read(event_.get(), &count, sizeof count);
    return std::exchange(outcomes_, {});
}

}  // namespace jovu_cli
