// SPDX-License-Identifier: Apache-2.0

/// @file
/// A library to preload, with which allocations of transfers fail: the program's USB connection
/// then ends. JOVU_FAILING_TRANSFERS is the first and the last allocation that fail, counted
/// from 1.
#include <dlfcn.h>
#include <libusb.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

extern "C" libusb_transfer* libusb_alloc_transfer(int packets) {
    static std::atomic<int> calls{0};
    static const auto real =
        reinterpret_cast<libusb_transfer* (*)(int)>(::dlsym(RTLD_NEXT, "libusb_alloc_transfer"));
    const int call = ++calls;
    int first = 0;
    int last = 0;
    const char* const range = std::getenv("JOVU_FAILING_TRANSFERS");
    const bool fails = range != nullptr && std::sscanf(range, "%d %d", &first, &last) == 2 &&
                       call >= first && call <= last;
    return fails || real == nullptr ? nullptr : real(packets);
}
