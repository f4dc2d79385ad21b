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
#include "device/command_state.h"
#include "link/lifecycle.h"
#include "link/link_state.h"
#include "link/loop_state.h"
#include "device/mouse_state.h"
#include "device/parameter_state.h"
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

  kalo::LinkState link;       // link and exchange (link/link_state.h)
  kalo::LoopState loop;       // periodic loop (link/loop_state.h)
  kalo::ServoState servo;     // servo (servo/servo_state.h)
  kalo::Parameters params;    // settings and limits (device/parameter_state.h)
  kalo::CommandState command; // command types and set-points (device/command_state.h)
  kalo::VirtualState vm;      // virtual mechanisms and objects (device/virtual_state.h)
  kalo::MouseEmulation mouse; // pointer emulation (device/mouse_state.h)
  kalo::Lifetime lifetime;    // the close's hold on the waits (link/lifecycle.h)
};
