// Collecting the telemetry on the exchange and loop threads, and the kaloExt
// calls that read it and record sessions.
#include "link/telemetry.h"

#include <cstring>
#include <ctime>
#include <sched.h>

#include "device/call_frame.h"
#include "device/context.h"
#include "link/recorder.h"
#include "kalo/kalo_ext.h"

namespace kalo {

namespace {

constexpr int kPowerBit = 16;
std::atomic<uint64_t> g_connections{0};

uint64_t relaxed(const std::atomic<uint64_t> &c) {
  return c.load(std::memory_order_relaxed);
}

uint64_t since(uint64_t now, uint64_t base) {
  return now > base ? now - base : 0;
}

// The exchange thread's row of the running recording, if any.
void record_exchange(KaloContext *ctx, bool answered) {
  Telemetry &t = ctx->link.telemetry;
  Recorder *r = t.recorder.load(std::memory_order_seq_cst);
  if (r == nullptr)
    return;
  RecordRow *row = r->claim();
  if (row == nullptr)
    return;
  const ExchangeRecord &s = ctx->link.state_record;
  const ExchangeRecord &c = ctx->link.command_record;
  row->frame = relaxed(t.counts[kStateFrames]);
  row->arrival_us = relaxed(t.last_arrival_us);
  row->interarrival_us = relaxed(t.last_interarrival_us);
  row->stamp_us = static_cast<uint32_t>(s.time_stamp);
  row->buttons = s.buttons;
  row->power = static_cast<uint8_t>((static_cast<uint32_t>(s.alarm) >> kPowerBit) & 1u);
  row->sent = answered ? 1 : 0;
  std::memcpy(row->pose, s.position, sizeof row->pose);
  std::memcpy(row->speed, s.speed, sizeof row->speed);
  std::memcpy(row->force, c.force, sizeof row->force);
  std::memcpy(row->coupling, t.coupling_force, sizeof row->coupling);
  std::memcpy(row->cmd_pose, c.position, sizeof row->cmd_pose);
  std::memcpy(row->cmd_speed, c.speed, sizeof row->cmd_speed);
  row->call_start_us = t.call_start_us.load(std::memory_order_relaxed);
  row->call_us = relaxed(t.call_duration_us);
  row->calls = relaxed(t.counts[kPeriodicCalls]);
  row->late_calls = relaxed(t.counts[kLateCalls]);
  r->publish();
}

// Takes the recording away from the exchange thread and ends it. Returns
// why the file could not be written, "" when it could.
std::string stop_recording(Telemetry &t) {
  Recorder *r = t.recorder.exchange(nullptr, std::memory_order_seq_cst);
  if (r == nullptr)
    return {};
  while (t.recorder_busy.load(std::memory_order_seq_cst) != 0)
    sched_yield();
  r->stop();
  t.recording_rows.store(r->rows(), std::memory_order_relaxed);
  t.recording_dropped.store(r->dropped(), std::memory_order_relaxed);
  std::string failure = r->error();
  delete r;
  return failure;
}

} // namespace

uint64_t connection_number(Telemetry &t) {
  uint64_t n = t.connection.load(std::memory_order_relaxed);
  if (n != 0)
    return n;
  const uint64_t fresh = g_connections.fetch_add(1, std::memory_order_relaxed) + 1;
  return t.connection.compare_exchange_strong(n, fresh) ? fresh : n;
}

void telemetry_state_frame(KaloContext *ctx) {
  Telemetry &t = ctx->link.telemetry;
  const uint64_t now = monotonic_us();
  connection_number(t);
  bump(t.counts[kStateFrames]);
  t.frame_this_cycle = true;

  const uint64_t previous = relaxed(t.last_arrival_us);
  t.last_arrival_us.store(now, std::memory_order_relaxed);
  if (previous != 0) {
    const uint64_t gap = now - previous;
    t.last_interarrival_us.store(gap, std::memory_order_relaxed);
    bump(t.histogram[histogram_bin(gap)]);
    raise_to(t.interarrival_max_us, gap);
    if (gap >= kSilenceUs) {
      bump(t.counts[kSilentPeriods]);
      raise_to(t.longest_silence_us, gap);
    }
  }

  if (!carries(ctx->link.state_record, Field::time_stamp))
    return;
  const StampTracker::Outcome o =
      t.stamps.add(static_cast<uint32_t>(ctx->link.state_record.time_stamp));
  if (o.duplicate)
    bump(t.counts[kDuplicated]);
  if (o.lost != 0)
    bump(t.counts[kLost], o.lost);
  if (o.recovered != 0)
    bump(t.counts[kRecovered], o.recovered);
  if (o.late)
    bump(t.counts[kLate]);
  if (o.placed)
    bump(t.counts[kPlaced]);
  t.period_us.store(t.stamps.period_us(), std::memory_order_relaxed);
}

void telemetry_cycle_end(KaloContext *ctx, bool answered) {
  Telemetry &t = ctx->link.telemetry;
  if (answered)
    bump(t.counts[kCommandFrames]);
  if (!t.frame_this_cycle)
    return;
  t.frame_this_cycle = false;
  t.recorder_busy.store(1, std::memory_order_seq_cst);
  record_exchange(ctx, answered);
  t.recorder_busy.store(0, std::memory_order_seq_cst);
}

void telemetry_periodic_call(KaloContext *ctx, uint64_t start_us, uint64_t duration_us,
                             bool overran, bool late) {
  Telemetry &t = ctx->link.telemetry;
  if (late)
    bump(t.counts[kLateCalls]);
  bump(t.counts[kPeriodicCalls]);
  if (overran)
    bump(t.counts[kOverruns]);
  raise_to(t.longest_call_us, duration_us);
  t.call_duration_us.store(duration_us, std::memory_order_relaxed);
  t.call_start_us.store(start_us, std::memory_order_relaxed);
}

void telemetry_coupling_force(KaloContext *ctx, const float *wrench) {
  std::memcpy(ctx->link.telemetry.coupling_force, wrench,
              sizeof ctx->link.telemetry.coupling_force);
}

double seconds_since_last_frame(KaloContext *ctx) {
  const uint64_t last = ctx->link.telemetry.last_arrival_us.load(std::memory_order_relaxed);
  const uint64_t from =
      last != 0 ? last : ctx->link.telemetry.since_us.load(std::memory_order_relaxed);
  return static_cast<double>(since(monotonic_us(), from)) * 1e-6;
}

void telemetry_release(KaloContext *ctx) {
  std::lock_guard<std::mutex> hold(ctx->link.telemetry.recording_mutex);
  stop_recording(ctx->link.telemetry);
}

} // namespace kalo

namespace {

using kalo::Telemetry;

constexpr int kLinkCounts = 6;

uint64_t link_value(const KaloContext *ctx, int k) {
  const kalo::LinkCounters &l = ctx->link.link_counters;
  const std::atomic<uint64_t> *v[kLinkCounts] = {&l.frames_malformed,        &l.frames_foreign,
                                                 &l.frames_dropped_for_size, &l.items_rejected,
                                                 &l.hellos_resent,           &l.relocks};
  return v[k]->load(std::memory_order_relaxed);
}

uint32_t clamp32(uint64_t v) {
  return v > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(v);
}

void fill(KaloContext *ctx, KaloExtLinkStatistics *s) {
  Telemetry &t = ctx->link.telemetry;
  const uint64_t now = kalo::monotonic_us();
  uint64_t c[kalo::kCountKinds];
  for (int k = 0; k < kalo::kCountKinds; ++k)
    c[k] = kalo::since(t.counts[k].load(std::memory_order_relaxed), t.count_base[k]);
  uint64_t link[kLinkCounts];
  for (int k = 0; k < kLinkCounts; ++k)
    link[k] = kalo::since(link_value(ctx, k), t.link_baseline[k]);

  s->version = 1;
  s->connection = kalo::connection_number(t);
  const uint64_t since_us = t.since_us.load(std::memory_order_relaxed);
  s->seconds = static_cast<double>(now - since_us) * 1e-6;
  s->state_frames_received = c[kalo::kStateFrames];
  s->command_frames_sent = c[kalo::kCommandFrames];
  s->frames_lost = kalo::since(c[kalo::kLost], c[kalo::kRecovered]);
  s->frames_duplicated = c[kalo::kDuplicated];
  s->frames_late = c[kalo::kLate];
  s->frames_malformed = link[0];
  s->frames_foreign = link[1];
  s->frames_dropped_for_size = link[2];
  s->items_rejected = link[3];
  s->hellos_resent = link[4];
  s->frame_rate_hz =
      s->seconds > 0 ? static_cast<double>(s->state_frames_received) / s->seconds : 0;
  const double seen = static_cast<double>(s->frames_lost + c[kalo::kPlaced]);
  s->loss_ratio = seen > 0 ? static_cast<double>(s->frames_lost) / seen : 0;
  s->controller_period_us = t.period_us.load(std::memory_order_relaxed);

  uint64_t bins[kalo::kHistogramBins];
  for (int b = 0; b < kalo::kHistogramBins; ++b) {
    bins[b] = kalo::since(t.histogram[b].load(std::memory_order_relaxed), t.histogram_base[b]);
    s->interarrival_histogram[b] = bins[b];
    s->histogram_lower_us[b] = clamp32(kalo::histogram_lower(b));
  }
  const uint64_t max = t.interarrival_max_us.load(std::memory_order_relaxed);
  s->interarrival_max_us = clamp32(max);
  s->interarrival_p50_us = clamp32(kalo::histogram_quantile(bins, 0.50, max));
  s->interarrival_p99_us = clamp32(kalo::histogram_quantile(bins, 0.99, max));

  s->periodic_calls = c[kalo::kPeriodicCalls];
  s->late_calls = c[kalo::kLateCalls];
  s->overruns = c[kalo::kOverruns];
  s->longest_call_us = clamp32(t.longest_call_us.load(std::memory_order_relaxed));

  // A silence still going on counts, so that a dead link shows as one.
  s->silence_threshold_us = kalo::kSilenceUs;
  s->silent_periods = c[kalo::kSilentPeriods];
  s->longest_silence_us = t.longest_silence_us.load(std::memory_order_relaxed);
  const uint64_t last = t.last_arrival_us.load(std::memory_order_relaxed);
  const uint64_t quiet = kalo::since(now, last > since_us ? last : since_us);
  if (quiet >= kalo::kSilenceUs) {
    ++s->silent_periods;
    if (quiet > s->longest_silence_us)
      s->longest_silence_us = quiet;
  }

  const kalo::Recorder *running = t.recorder.load(std::memory_order_relaxed);
  s->recording = running != nullptr && !running->failed() ? 1 : 0;
  s->reserved = 0;
  s->recording_rows = t.recording_rows.load(std::memory_order_relaxed);
  s->recording_rows_dropped = t.recording_dropped.load(std::memory_order_relaxed);
  s->link_relocks = link[5];
  // Called under recording_mutex: a running recorder cannot be freed meanwhile.
  if (const kalo::Recorder *r = t.recorder.load(std::memory_order_relaxed); r != nullptr) {
    s->recording_rows = r->rows();
    s->recording_rows_dropped = r->dropped();
  }
}

} // namespace

extern "C" {

int32_t kaloExtGetLinkStatistics(KaloContext *context, KaloExtLinkStatistics *stats) {
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  if (stats == nullptr || stats->size < 8) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  const uint32_t wanted = stats->size;
  KaloExtLinkStatistics full{};
  {
    std::lock_guard<std::mutex> recording(context->link.telemetry.recording_mutex);
    std::lock_guard<std::mutex> hold(context->link.telemetry.reader_mutex);
    fill(context, &full);
  }
  full.size = wanted < sizeof full ? wanted : static_cast<uint32_t>(sizeof full);
  std::memcpy(stats, &full, full.size);
  return 0;
}

int32_t kaloExtResetLinkStatistics(KaloContext *context) {
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  Telemetry &t = context->link.telemetry;
  std::lock_guard<std::mutex> hold(t.reader_mutex);
  for (int k = 0; k < kalo::kCountKinds; ++k)
    t.count_base[k] = t.counts[k].load(std::memory_order_relaxed);
  for (int b = 0; b < kalo::kHistogramBins; ++b)
    t.histogram_base[b] = t.histogram[b].load(std::memory_order_relaxed);
  for (int k = 0; k < kLinkCounts; ++k)
    t.link_baseline[k] = link_value(context, k);
  // Maxima start again from the next frame or call. A writer storing a new
  // maximum at this very moment may keep it: it was measured now.
  t.interarrival_max_us.store(0, std::memory_order_relaxed);
  t.longest_silence_us.store(0, std::memory_order_relaxed);
  t.longest_call_us.store(0, std::memory_order_relaxed);
  t.since_us.store(kalo::monotonic_us(), std::memory_order_relaxed);
  return 0;
}

int32_t kaloExtStartRecording(KaloContext *context, const char *path) {
  if (!kalo::enter(context))
    return -1;
  Telemetry &t = context->link.telemetry;
  int32_t code = KALO_NO_ERROR;
  {
    std::lock_guard<std::mutex> hold(t.recording_mutex);
    if (path == nullptr || t.recorder.load() != nullptr) {
      code = KALO_ERROR_INCORRECT_VALUE;
      kalo::set_error_detail(path == nullptr ? "no recording file named (NULL path)"
                                             : "a recording of this connection already runs");
    } else {
      std::string error;
      // A failed write is an event of the connection; the context outlives
      // its recording (kaloClose stops it first).
      auto on_failure = [context](int error_number) {
        kalo::record_event(context, KALO_EXT_EVENT_RECORDING_FAILED,
                           static_cast<double>(error_number), 0);
      };
      auto r = kalo::Recorder::start(path, kalo::monotonic_us(),
                                     t.counts[kalo::kPeriodicCalls].load(std::memory_order_relaxed),
                                     t.counts[kalo::kLateCalls].load(std::memory_order_relaxed),
                                     on_failure, &error);
      if (r == nullptr) {
        code = error == "out of memory" ? KALO_ERROR_OUT_OF_MEMORY : KALO_ERROR_INCORRECT_VALUE;
        kalo::set_error_detail(error);
      } else {
        t.recording_rows.store(0, std::memory_order_relaxed);
        t.recording_dropped.store(0, std::memory_order_relaxed);
        t.recorder.store(r.release(), std::memory_order_seq_cst);
      }
    }
  }
  if (code != KALO_NO_ERROR) {
    context->error_code = static_cast<uint32_t>(code);
    return -1;
  }
  return 0;
}

int32_t kaloExtStopRecording(KaloContext *context) {
  kalo::clear_error_detail();
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  Telemetry &t = context->link.telemetry;
  std::lock_guard<std::mutex> hold(t.recording_mutex);
  if (t.recorder.load() == nullptr) {
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  const std::string failure = kalo::stop_recording(t);
  const uint64_t dropped = t.recording_dropped.load(std::memory_order_relaxed);
  if (!failure.empty()) {
    kalo::set_error_detail(failure + " (" +
                           std::to_string(t.recording_rows.load(std::memory_order_relaxed)) +
                           " rows written, " + std::to_string(dropped) + " not)");
    context->error_code = KALO_ERROR_INCORRECT_VALUE;
    return -1;
  }
  return dropped > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(dropped);
}

} // extern "C"
