// What one connection's link has seen since it was opened: the figures an
// application reads to tell a stuttering network from its own slow code. The
// exchange thread is the only writer (except where a member says otherwise);
// other threads read relaxed snapshots. Counting takes no lock and allocates
// nothing, so it can sit on the exchange path.
#pragma once

#include <atomic>
#include <cstdint>

namespace kalo {

struct LinkCounters {
  std::atomic<uint64_t> state_frames_received{0}; // datagrams accepted and decoded
  std::atomic<uint64_t> command_frames_sent{0};
  std::atomic<uint64_t> frames_malformed{0};        // bad envelope, checksum or item stream
  std::atomic<uint64_t> frames_foreign{0};          // from a sender other than the controller
  std::atomic<uint64_t> items_rejected{0};          // items whose count did not fit, skipped
  std::atomic<uint64_t> frames_dropped_for_size{0}; // command frames too large to send
  std::atomic<uint64_t> hellos_resent{0};           // hellos sent again after a silence
  std::atomic<uint64_t> relocks{0}; // controller's frames taken from a new port after a silence
};

// One writer per counter: a relaxed increment is enough.
inline void count_one(std::atomic<uint64_t> &counter) {
  counter.fetch_add(1, std::memory_order_relaxed);
}

} // namespace kalo
