// The virtual mechanisms' and virtual objects' state (virtual_mechanisms.cpp,
// virtual_objects.cpp), part of KaloContext (device/context.h), guarded by
// the context's lock.
#pragma once

#include <cstdint>

namespace kalo {

struct VirtualState {
  // ---- virtual mechanisms
  uint32_t vm_active;
  int32_t traj_requested; // samples the application asked for (kaloVmStartTrajSampling)
  uint32_t vm_current_type;
  int32_t vm_default_mode_copy; // -1 at open
  int32_t vm_default_mode;      // -1 at open
  int32_t vm_default_mode_seen; // -1 at open; the energy guard restarts when it differs

  // ---- virtual objects
  int32_t attached_object_count;
  uint32_t attach_pending;
  uint32_t detach_pending;
};

} // namespace kalo
