#include "sweep/pool.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

namespace sweep {
namespace {

using Clock = std::chrono::steady_clock;

/// A file in memory that takes what a child prints.
class Capture {
public:
    Capture() : descriptor_(::memfd_create("printed", MFD_CLOEXEC)) {
        if (descriptor_ < 0) throw std::runtime_error("no file in memory can be made");
    }
    ~Capture() { ::close(descriptor_); }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    void become(int standard) const { ::dup2(descriptor_, standard); }

    std::string text() const {
        std::string all;
        std::array<char, 4096> buffer{};
        for (;;) {
            const ssize_t count =
                ::pread(descriptor_, buffer.data(), buffer.size(), static_cast<off_t>(all.size()));
            if (count <= 0) return all;
            all.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

private:
    int descriptor_;
};

/// A Report that parent and child both see.
class SharedReport {
public:
    SharedReport()
        : report_(static_cast<Report*>(::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE,
                                              MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (report_ == MAP_FAILED) throw std::runtime_error("no memory can be shared");
    }
    ~SharedReport() { ::munmap(report_, sizeof(Report)); }
    SharedReport(const SharedReport&) = delete;
    SharedReport& operator=(const SharedReport&) = delete;

    Report& operator*() const { return *report_; }

private:
    Report* report_;
};

/// One run, from its start to its end.
class Child {
public:
    explicit Child(const Job& job) : started_(Clock::now()) {
        std::fflush(nullptr);
        pid_ = ::fork();
        if (pid_ < 0) throw std::runtime_error("no process can be started");
        if (pid_ != 0) return;
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::signal(SIGCHLD, SIG_DFL);
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        printed_.become(STDOUT_FILENO);
        said_.become(STDERR_FILENO);
        std::_Exit(run(*job.scenario, job.fault ? &*job.fault : nullptr, job.blocks, *report_));
    }

    pid_t pid() const { return pid_; }

    /// Ends a run that has lasted too long.
    void kill_after(std::chrono::milliseconds bound) {
        if (hangs_ || Clock::now() - started_ < bound) return;
        hangs_ = true;
        ::kill(pid_, SIGKILL);
    }

    Outcome outcome(int status) const {
        Outcome result;
        result.report = *report_;
        result.right = WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (result.right) return result;
        result.text = said_.text();
        if (hangs_) {
            result.text += "it hangs\n";
        } else if (WIFSIGNALED(status)) {
            result.text += std::string("it crashes: ") + ::strsignal(WTERMSIG(status)) + "\n";
        }
        // The rest repeats itself.
        constexpr std::size_t kShown = 300;
        const std::string printed = printed_.text();
        if (!printed.empty()) result.text += "printed: " + printed.substr(0, kShown);
        return result;
    }

private:
    const Clock::time_point started_;
    Capture printed_;
    Capture said_;
    SharedReport report_;
    pid_t pid_ = -1;
    bool hangs_ = false;
};

}  // namespace

std::string Job::text() const {
    return std::string(scenario->name) + (fault ? ":" + fault->text() : "");
}

std::vector<Outcome> run_all(const std::vector<Job>& jobs, std::size_t width,
                             std::chrono::milliseconds bound) {
    // An end of a child is waited for, and not slept through.
    sigset_t ends;
    ::sigemptyset(&ends);
    ::sigaddset(&ends, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &ends, nullptr);
    std::vector<Outcome> outcomes(jobs.size());
    std::map<std::size_t, Child> running;
    std::size_t next = 0;
    while (next < jobs.size() || !running.empty()) {
        while (next < jobs.size() && running.size() < width) {
            running.try_emplace(next, jobs[next]);
            ++next;
        }
        const timespec moment{0, 100000000};
        ::sigtimedwait(&ends, nullptr, &moment);
        for (auto entry = running.begin(); entry != running.end();) {
            auto& [index, child] = *entry;
            child.kill_after(bound);
            int status = 0;
            if (::waitpid(child.pid(), &status, WNOHANG) == child.pid()) {
                outcomes[index] = child.outcome(status);
                entry = running.erase(entry);
            } else {
                ++entry;
            }
        }
    }
    return outcomes;
}

}  // namespace sweep
