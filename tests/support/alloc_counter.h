// Counts heap allocations made by the process while a scope is open, so tests
// can prove that a hot path (servo cycle, codec, math) allocates nothing, and
// the heap blocks in use, so that a cycle of work can be shown to leave none.
#pragma once
#include <cstddef>

namespace kalo_test {

// True when this build can count (sanitizer runtimes own malloc themselves).
bool alloc_counting_available();

// Heap blocks allocated and not yet freed, counted from the start of the
// process (meaningful as a difference).
long live_blocks();

// Counts malloc/calloc/realloc calls from every thread while alive.
class AllocCounter {
public:
  AllocCounter();
  ~AllocCounter();
  AllocCounter(const AllocCounter &) = delete;
  AllocCounter &operator=(const AllocCounter &) = delete;
  std::size_t count() const;

private:
  std::size_t start_;
};

} // namespace kalo_test

// Skips the current test when allocations cannot be counted in this build.
#define KALO_REQUIRE_ALLOC_COUNTING()                                                              \
  do {                                                                                             \
    if (!kalo_test::alloc_counting_available())                                                    \
      GTEST_SKIP() << "allocation counting is not available in sanitizer builds";                  \
  } while (0)
