// Waiting for another thread (the exchange thread, a loop, the simulator) to
// make something true, without a fixed sleep.
#pragma once

#include <chrono>
#include <thread>

namespace kalo_test {

// True once p() holds, polling every millisecond; false after limit.
template <class Predicate>
bool eventually(Predicate p, std::chrono::milliseconds limit = std::chrono::milliseconds(3000)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!p()) {
    if (std::chrono::steady_clock::now() > end)
      return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

} // namespace kalo_test
