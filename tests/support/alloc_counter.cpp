#include "alloc_counter.h"

#include <atomic>
#include <cstdlib>

namespace {
std::atomic<std::size_t> g_allocations{0};
std::atomic<int> g_active{0};
std::atomic<long> g_live{0};

[[maybe_unused]] void note_allocation() {
  if (g_active.load(std::memory_order_relaxed) > 0)
    g_allocations.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

#ifndef KALO_SANITIZER_BUILD
// The test executable's definitions interpose on the C library's for the whole
// process, the library under test included (its calls go through the PLT).
extern "C" {
void *__libc_malloc(std::size_t);
void *__libc_calloc(std::size_t, std::size_t);
void *__libc_realloc(void *, std::size_t);
void __libc_free(void *);

void *malloc(std::size_t size) {
  note_allocation();
  void *p = __libc_malloc(size);
  if (p != nullptr)
    g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}
void *calloc(std::size_t n, std::size_t size) {
  note_allocation();
  void *p = __libc_calloc(n, size);
  if (p != nullptr)
    g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}
void *realloc(void *p, std::size_t size) {
  note_allocation();
  void *q = __libc_realloc(p, size);
  if (p == nullptr && q != nullptr)
    g_live.fetch_add(1, std::memory_order_relaxed);
  return q;
}
void free(void *p) {
  if (p != nullptr)
    g_live.fetch_sub(1, std::memory_order_relaxed);
  __libc_free(p);
}
}
#endif

namespace kalo_test {

bool alloc_counting_available() {
#ifdef KALO_SANITIZER_BUILD
  return false;
#else
  return true;
#endif
}

AllocCounter::AllocCounter() : start_(g_allocations.load()) {
  g_active.fetch_add(1);
}
AllocCounter::~AllocCounter() {
  g_active.fetch_sub(1);
}
long live_blocks() {
  return g_live.load();
}

std::size_t AllocCounter::count() const {
  return g_allocations.load() - start_;
}

} // namespace kalo_test
