/// @file
/// The link that a command works on.
#pragma once

#include <optional>

#include "commands.h"
#include "session.h"

namespace jovu_cli {

/// The link for one command: that of the shell that runs it, or one of its own.
class SessionLease {
public:
    /// @throws Failure when the link cannot be started.
    SessionLease(const Context& context, Interest interest)
        : session_(context.session != nullptr
                       ? context.session
                       : &own_.emplace(context.options, context.stop, interest)) {
        if (!own_) {
            session_->begin(context.options, interest);
        }
    }
    /// What comes before the next command is nobody's.
    ~SessionLease() { session_->begin({}, {}); }
    SessionLease(const SessionLease&) = delete;
    SessionLease& operator=(const SessionLease&) = delete;

    Session& session() const noexcept { return *session_; }

private:
    std::optional<Session> own_;
    Session* session_;
};

}  // namespace jovu_cli
