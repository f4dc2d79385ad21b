// The command stream's state (commands.cpp), part of KaloContext
// (device/context.h), guarded by the context's lock but for the two atomics.
#pragma once

#include <atomic>
#include <cstdint>

namespace kalo {

struct CommandState {
  // Written by kaloSetCommandType after it released the lock, read by every
  // set-point call on any thread: atomics, so that the hand-over is defined.
  std::atomic<uint32_t> active_command_type;
  std::atomic<uint32_t> command_type_set;
  uint32_t stream_started;
  uint32_t active_indexing_mode;
};

} // namespace kalo
