// The per-connection record behind the application's opaque KaloContext
// handle, composed of one record per concern, each declared by the module
// that uses it. One recursive lock (`lock`) guards both exchange records and
// every member shared by the application's threads, the backend thread and
// the periodic loop. Members that are read outside the lock by design (the
// error code, the connection and loop flags, the loop timing) are atomics.
//
// Threads are never cancelled: each one ends by itself and says so (the
// exchange thread's backend_exited, the loop's loop_exited, the watchdogs'
// counts), and kaloClose waits for that before it frees anything.
#pragma once

#include <atomic>
#include <cstdint>

#include "kalo/kalo.h"
#include "kalo/kalo_realtime.h"
#include "device/command.h"
#include "device/lifecycle.h"
#include "device/link.h"
#include "device/loop.h"
#include "device/mouse.h"
#include "device/parameters.h"
#include "device/virtual_state.h"
#include "servo/servo_state.h"

namespace kalo {
constexpr uint64_t kContextMagic = 0x4B414C4F; // "KALO"
} // namespace kalo

struct KaloContext {
  // ---- identity: checked by every call before anything else is read
  uint64_t magic;
  TR_SEMAPHORE *lock;
  std::atomic<uint32_t> error_code;

  kalo::LinkState link;       // link and exchange (device/link.h)
  kalo::LoopState loop;       // periodic loop (device/loop.h)
  kalo::ServoState servo;     // servo (servo/servo_state.h)
  kalo::Parameters params;    // settings and limits (device/parameters.h)
  kalo::CommandState command; // command types and set-points (device/command.h)
  kalo::VirtualState vm;      // virtual mechanisms and objects (device/virtual_state.h)
  kalo::MouseEmulation mouse; // pointer emulation (device/mouse.h)
  kalo::Lifetime lifetime;    // the close's hold on the waits (device/lifecycle.h)
};
