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
  // Who may still touch the context: the application's handle until its
  // close, and each running exchange or loop thread. The last to let go
  // releases the context, so a close that stopped waiting for a thread (every
  // wait of the close has a limit) never frees memory under it.
  std::atomic<uint32_t> holders;
};

// A library thread about to start on ctx takes a hold; it lets go as its very
// last access to the context. let_go releases the context when it was the
// last hold.
void hold(KaloContext *ctx);
void let_go(KaloContext *ctx, uint32_t holds = 1);

// Stack sizes of the library's threads (raised by the task layer in sanitizer
// builds, whose runtimes need far deeper stacks).
constexpr uint64_t kBackendStackSize = 18000;
constexpr uint64_t kLoopStackSize = 801000;
constexpr int kTaskPriorityOffset = 1;

// How long a receive waits before the exchange thread looks at its stop flag.
// A controller that goes silent therefore cannot keep the thread, and with it
// kaloClose, waiting forever.
constexpr long kReceiveTimeoutUs = 100000;

// The limits of the waits of open and close. Each stands for an event and is
// the longest the event is worth waiting for: the controller's first frame;
// a command frame sent (the controller answers at 1 kHz, so it goes out
// within a millisecond or two); a periodic function's current call (a call
// longer than this is left to finish on its own); the exchange thread's end
// (it ends within one receive time-out of the stop).
constexpr int kFirstFrameLimitMs = 1000;
constexpr int kOpenDetachSentLimitMs = 100;
constexpr int kCloseDetachSentLimitMs = 200;
constexpr int kLoopStopLimitMs = 200;
constexpr int kStopLoopCallLimitMs = 1000; // kaloStopLoop and kaloStartLoop
constexpr int kExchangeEndLimitMs = 1000;

// Frees a task handle whose thread has ended (or is the caller itself) without
// cancelling it: cancelling a detached thread that has already ended is
// undefined, so the library never does.
void release_task_handle(TR_TACHE *task);

// How a stop of the periodic loop ended.
enum class LoopStop {
  ended,          // no loop thread is left (or there was none)
  on_loop_thread, // the caller is the loop thread: it must not touch the context once released
  still_running,  // the loop thread was still in its call when the limit passed
};

// Stops the periodic loop. Unless the caller is the loop thread itself, waits
// at most limit_ms for the loop thread to finish its current call and end.
LoopStop stop_loop(KaloContext *ctx, int limit_ms);

// Waits at most limit_ms for a stopped loop thread to end and frees its
// handle. True when no stopped loop thread is left (the caller's own aside).
bool reap_stopped_loop(KaloContext *ctx, int limit_ms);

// Marks, on the calling thread, that the periodic function released ctx, so
// that the loop thread returns without touching it again.
void mark_closed_by_loop_thread(KaloContext *ctx);

// Waits at most limit_ms until the command frame that carries the fields
// marked so far has been sent (at the exchange thread's answer to the next
// state frame). True when it was, or when nothing was marked.
bool wait_marks_sent(KaloContext *ctx, int limit_ms);

// Releases everything a context owns once its threads have ended, then the
// record itself. Safe on a partly built context (null members are skipped).
void release_context(KaloContext *ctx);

} // namespace kalo
