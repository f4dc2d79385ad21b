// The events of the safety actions the library takes on its own (the energy
// guard refusing a command, a non-finite set-point closing the connection,
// the watchdog dropping the link, a foreign datagram dropped...), kept in one
// small ring for the whole process so that they stay readable after the
// connection they concern was closed. Recording one takes no lock and
// allocates nothing: any thread may record, the exchange thread included.
#pragma once

#include <cstdint>

#include "kalo/kalo_ext.h"

namespace kalo {

// Records an event of `kind` (KALO_EXT_EVENT_*) for the connection of ctx:
// the measured value and the limit it was held against. Foreign datagrams are
// recorded at most once a second per connection (call it from the exchange
// thread only for that kind).
void record_event(KaloContext *ctx, uint32_t kind, double value, double threshold);

} // namespace kalo
