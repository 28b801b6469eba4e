// SPDX-License-Identifier: Apache-2.0

/// @file
/// The program jovu-sim.
#include <exception>
#include <iostream>

#include "tool/command_line.h"
#include "tool/exit_status.h"

int main(int argc, char** argv) {
    try {
        return jovusim::run_command_line(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "jovu-sim: " << error.what() << "\n";
        return jovusim::kExitFailure;
    }
}

// ThreadSanitizer does not see the futexes with which GLib and umockdev lock: reports from inside
// them are suppressed.
#if defined(__SANITIZE_THREAD__)
#define JOVU_SIM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define JOVU_SIM_TSAN 1
#endif
#endif

#ifdef JOVU_SIM_TSAN

extern "C" const char* __tsan_default_suppressions();  // NOLINT(bugprone-reserved-identifier)

extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
    return "called_from_lib:libglib-2.0.so\n"
           "called_from_lib:libgobject-2.0.so\n"
           "called_from_lib:libgio-2.0.so\n"
           "called_from_lib:libumockdev.so\n";
}

#endif
