// The pointer emulation's state (mouse_emulation.cpp), part of KaloContext
// (device/context.h), guarded by the context's lock.
#pragma once

#include <cstdint>

namespace kalo {

struct MouseEmulation {
  int32_t previous_state;
  int32_t words[2]; // pointer tracking, -1 when idle
};

} // namespace kalo
