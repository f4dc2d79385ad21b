// Two small tables under one mutex: the live contexts, and a ring of the
// addresses of the last contexts closed. An address leaves the ring when a new
// context is opened at it. A handle found in neither was never opened here
// (a test's hand-built record, or garbage), and only its magic can be checked.
#include "link/live_contexts.h"

#include <array>
#include <mutex>

namespace kalo {
namespace {

constexpr std::size_t kLiveRoom = 256; // more than the 64 sessions the transport holds
constexpr std::size_t kRetiredRoom = 4096;

struct Registry {
  std::mutex mutex;
  std::array<const KaloContext *, kLiveRoom> live{};
  std::array<const KaloContext *, kRetiredRoom> retired{};
  std::size_t next_retired = 0;
};

Registry &registry() {
  static Registry r; // never destroyed before the handles it describes
  return r;
}

} // namespace

bool register_context(const KaloContext *ctx) {
  Registry &r = registry();
  std::lock_guard<std::mutex> hold(r.mutex);
  for (auto &slot : r.retired)
    if (slot == ctx)
      slot = nullptr;
  for (auto &slot : r.live)
    if (slot == nullptr) {
      slot = ctx;
      return true;
    }
  return false;
}

void retire_context(const KaloContext *ctx) {
  Registry &r = registry();
  std::lock_guard<std::mutex> hold(r.mutex);
  bool was_live = false;
  for (auto &slot : r.live)
    if (slot == ctx) {
      slot = nullptr;
      was_live = true;
    }
  if (!was_live)
    return;
  r.retired[r.next_retired] = ctx;
  r.next_retired = (r.next_retired + 1) % kRetiredRoom;
}

HandleState handle_state(const KaloContext *ctx) {
  Registry &r = registry();
  std::lock_guard<std::mutex> hold(r.mutex);
  for (const KaloContext *slot : r.live)
    if (slot == ctx)
      return HandleState::live;
  for (const KaloContext *slot : r.retired)
    if (slot == ctx)
      return HandleState::stale;
  return HandleState::unknown;
}

} // namespace kalo
