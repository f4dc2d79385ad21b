// How the threads of a context end and how its resources are released; shared
// by opening, closing and the periodic loop. Internal to the library.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "kalo/kalo_realtime.h"

struct KaloContext;

namespace kalo {

// The close's hold on the library waits, part of KaloContext
// (device/context.h). Threads inside a library wait (button, upper bound,
// trajectory samples, queries; see kalo::WaitGuard) are counted: kaloClose
// sets waits_cancelled, wakes them and frees nothing until the count is back
// to 0. close_claimed makes a second close of the same handle a refusal.
struct Lifetime {
  std::atomic<uint32_t> waiters;
  std::atomic<uint32_t> waits_cancelled;
  std::atomic<uint32_t> close_claimed;
  std::atomic<std::thread::id> closing_thread; // the thread inside kaloClose
};

// Stack sizes of the library's threads (raised by the task layer in sanitizer
// builds, whose runtimes need far deeper stacks).
constexpr uint64_t kBackendStackSize = 18000;
constexpr uint64_t kLoopStackSize = 801000;
constexpr int kTaskPriorityOffset = 1;

// How long a receive waits before the exchange thread looks at its stop flag.
// A controller that goes silent therefore cannot keep the thread, and with it
// kaloClose, waiting forever.
constexpr long kReceiveTimeoutUs = 100000;

// Frees a task handle whose thread has ended (or is the caller itself) without
// cancelling it: cancelling a detached thread that has already ended is
// undefined, so the library never does.
void release_task_handle(TR_TACHE *task);

// Stops the periodic loop. Unless the caller is the loop thread itself, waits
// until the loop thread has finished its current call and ended. Returns true
// when the caller is the loop thread (it must then not touch the context once
// the context is released).
bool stop_loop(KaloContext *ctx);

// Marks, on the calling thread, that the periodic function released ctx, so
// that the loop thread returns without touching it again.
void mark_closed_by_loop_thread(KaloContext *ctx);

// Releases everything a context owns once its threads have ended, then the
// record itself. Safe on a partly built context (null members are skipped).
void release_context(KaloContext *ctx);

} // namespace kalo
