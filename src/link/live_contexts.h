// The process-wide registry of contexts, consulted by every handle check so
// that a handle that was closed is recognised without reading the memory it
// points to. Internal to the library.
#pragma once

struct KaloContext;

namespace kalo {

// kaloOpen registers a context once its magic is set; false when the registry
// is full (the open then fails with code 1).
bool register_context(const KaloContext *ctx);
// Called just before the record is freed: from then on the handle is stale.
void retire_context(const KaloContext *ctx);

enum class HandleState { live, stale, unknown };
// live: opened and not yet closed; stale: closed (its memory must not be
// read); unknown: never seen by the library (only its magic can tell).
// Declared weak: code built outside the library from the internal headers
// (the tests' hand-built contexts) has no registry, and there the address is
// null and the magic alone decides.
HandleState handle_state(const KaloContext *ctx) __attribute__((weak));

} // namespace kalo
