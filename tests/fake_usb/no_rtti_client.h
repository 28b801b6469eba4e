/// @file
/// A client of an application that is compiled without run-time type information.
#pragma once

#include <atomic>
#include <memory>

namespace test {

/// @return a client that derives privately from JovuClient and counts debug events.
std::shared_ptr<void> make_client_without_rtti(std::atomic<int>& events);

}  // namespace test
