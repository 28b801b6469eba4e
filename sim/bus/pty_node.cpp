// SPDX-License-Identifier: Apache-2.0
#include "bus/pty_node.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace jovusim {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// The idle process. Calls async-signal-safe functions only.
[[noreturn]] void lead_session(int slave, pid_t parent) {
    ::setsid();
    ::ioctl(slave, TIOCSCTTY, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(0);
    // Closing the pipe tells the parent that the session exists.
    ::close_range(0, UINT_MAX, 0);
    for (;;)
        ::pause();
}

}  // namespace

PtyNode::PtyNode() {
    master_.reset(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!master_) fail("cannot make a pseudo-terminal");
    if (::grantpt(master_.get()) != 0) fail("grantpt");
    if (::unlockpt(master_.get()) != 0) fail("unlockpt");
    std::array<char, 64> name{};
    if (::ptsname_r(master_.get(), name.data(), name.size()) != 0) fail("ptsname");
    path_ = name.data();
    slave_.reset(::open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (!slave_) fail("cannot open a pseudo-terminal");
    start_session_leader();
    set_writable(false);
}

void PtyNode::start_session_leader() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe");
    UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const pid_t parent = ::getpid();
    session_leader_ = ::fork();
    if (session_leader_ == -1) fail("fork");
    if (session_leader_ == 0) lead_session(slave_.get(), parent);
    writer.reset();
    char nothing;
    (void)!TEMP_FAILURE_RETRY(::read(reader.get(), &nothing, 1));
}

PtyNode::~PtyNode() {
    hang_up();
    if (session_leader_ <= 0) return;  // kill(-1) would signal every process.
    ::kill(session_leader_, SIGKILL);
    (void)TEMP_FAILURE_RETRY(::waitpid(session_leader_, nullptr, 0));
}

void PtyNode::set_writable(bool writable) {
    if (writable == writable_) return;
    writable_ = writable;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the device's lock is held.
    ::tcflow(slave_.get(), writable ? TCOON : TCOOFF);
}

void PtyNode::hang_up() {
    master_.reset();
}

}  // namespace jovusim
