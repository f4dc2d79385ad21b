// The exchange thread "SYNC": the only code that talks to the controller. It
// blocks on the socket, decodes each state frame into the state record, ticks
// the periodic loop, wakes the threads waiting for a reply, a sample, a button
// or an upper bound, and answers with one command frame carrying the fields
// the application marked since the previous frame. Also the optional
// watchdog and the clock of both.
//
// A controller that falls silent is sent the hello again every 0.5 s until
// its frames resume, so that a restarted controller takes the client back.
// After such a silence the link also re-locks: a well-formed frame from the
// controller's address is taken even from a new source port (a restarted
// controller may send from another one), and that port is the controller's
// from then on. While frames flow, datagrams from any other port are dropped.
//
// Lifetime: the thread is never cancelled. It ends by itself when kaloClose
// sets backend_stop (the receive has a time-out, so a silent controller cannot
// hold it) or when a send fails; it posts backend_exited, for which kaloClose
// waits, and its very last access to the context lets go of its hold on it
// (kalo::let_go), so the context outlives the thread whatever the close did. A failed send
// therefore leaves a context that is merely disconnected: every later call gets code 2 and
// kaloClose releases it all.
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "device/call_frame.h"
#include "device/context.h"
#include "link/events.h"
#include "link/loop_rules.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_signal.h"
#include "protocol/exchange_record.h"
#include "protocol/proto_session.h"

namespace {

using kalo::ContextLock;

// A controller silent for this long gets the hello again, and again every
// this long until it answers: a restarted controller picks the connection up.
constexpr uint64_t kSilenceUs = 500000;

enum class SendResult { sent, dropped, failed };

// Stamps and sends every marked field of the command record, then clears the
// marks. Call under the lock. A frame that does not fit is dropped (the
// controller keeps the previous values) rather than taken for a dead link; it
// is counted, and code 2 tells the application that commands it posted did
// not go out.
SendResult send_marked_fields(KaloContext *ctx, unsigned char *frame) {
  ExchangeRecord &cmd = ctx->link.command_record;
  cmd.time_stamp = static_cast<int32_t>(static_cast<uint32_t>(getTime(ctx)));
  kalo::post_field(cmd, kalo::Field::time_stamp);
  const uint32_t size = encode_decode(kalo::kModeEncode, &cmd, frame, kalo::kFrameCapacity);
  SendResult result = SendResult::dropped;
  if (size != kalo::kCodecFailure && size <= kalo::kFrameCapacity) {
    result =
        write_protocol(ctx->link.session, frame, static_cast<int>(size)) == static_cast<int>(size)
            ? SendResult::sent
            : SendResult::failed;
  } else {
    kalo::count_one(ctx->link.link_counters.frames_dropped_for_size);
    ctx->error_code = KALO_ERROR_COMMUNICATION;
  }
  kalo::clear_changes(cmd);
  return result;
}

// The reactions to the fields a state frame carried. Call under the lock.
void react_to_state(KaloContext *ctx, int &pending_request) {
  ExchangeRecord &state = ctx->link.state_record;
  const uint32_t *arrived = state.field_changed;

  if (kalo::carries(state, kalo::Field::mouse_state)) {
    const int32_t m = state.mouse_state.state;
    if (m == 1 && ctx->mouse.previous_state == 0)
      active_mouse(ctx);
    if (m == 0 && ctx->mouse.previous_state == 1) {
      desactive_mouse(ctx);
    } else {
      move_mouse(ctx, state.mouse_state.x, state.mouse_state.y);
      clic_mouse(ctx, state.mouse_state.click_left, state.mouse_state.click_right);
    }
    ctx->mouse.previous_state = m;
  }
  if (kalo::carries(state, kalo::Field::energy_control_off))
    deactive_control_ener_cine(ctx);
  if (kalo::carries(state, kalo::Field::vm_wait_upper_bound))
    TR_poster_semaphore(ctx->link.upper_bound_sem);
  if (kalo::carries(state, kalo::Field::traj_sample))
    TR_poster_semaphore(ctx->link.traj_sample_sem);
  // The button check runs the call frame, whose connection check would
  // record a spurious code 2 while kaloOpen still waits for the first frame.
  if (kalo::carries(state, kalo::Field::buttons) && ctx->link.connected.load() != 0)
    CheckPressButton(ctx);
  if (pending_request > 0 && pending_request <= kalo::kFieldCount &&
      arrived[pending_request] != 0) {
    TR_poster_semaphore(ctx->link.reply_sem);
    pending_request = 0;
  }
  kalo::clear_changes(state);
}

// Decides whether the frame ticks the periodic loop (a period elapsed since
// the previous tick, in the controller's time: LoopTicker) and hands the loop
// thread the tick's record; true when the loop is to be woken. The wake-up
// itself waits until the frame is answered: a loop thread woken at once takes
// the processor and the context's lock that the answer needs, and the
// controller would wait for the application's call. The ticker and the ring
// have this thread as their only writer.
bool tick_loop(KaloContext *ctx, const kalo::TickFrame &frame, uint64_t frames) {
  kalo::LoopState &loop = ctx->loop;
  if (loop.loop_running.load() == 0) {
    // The first tick after a start waits one whole period.
    loop.ticker.rest(frame);
    loop.last_tick_time = frame.arrival_us;
    return false;
  }
  loop.last_frame_time = frame.arrival_us;
  if (!loop.ticker.due(frame, loop.loop_period_us.load()))
    return false;
  loop.last_tick_time = frame.arrival_us;
  const uint64_t n = loop.ticks_published.load(std::memory_order_relaxed);
  kalo::LoopState::TickRecord &r = loop.ticks[n % kalo::LoopState::kTickRing];
  r.sequence.store(0, std::memory_order_relaxed);
  r.stamp.store(frame.stamp, std::memory_order_relaxed);
  r.frames.store(frames, std::memory_order_relaxed);
  r.clock_us.store(loop.ticker.clock_us(), std::memory_order_relaxed);
  r.arrival_us.store(frame.arrival_us, std::memory_order_relaxed);
  r.elapsed_clock_us.store(loop.ticker.elapsed_clock_us(), std::memory_order_relaxed);
  r.elapsed_arrival_us.store(loop.ticker.elapsed_arrival_us(), std::memory_order_relaxed);
  r.sequence.store(n + 1, std::memory_order_release);
  loop.ticks_published.store(n + 1, std::memory_order_release);
  return true;
}

// Ends the thread: letting go is the thread's last access to the context.
void *finish(KaloContext *ctx, intptr_t result) {
  TR_poster_semaphore(ctx->link.backend_exited);
  kalo::let_go(ctx);
  return reinterpret_cast<void *>(result); // NOLINT(performance-no-int-to-ptr): pthread result
}

} // namespace

extern "C" {

uint64_t getTime(KaloContext *context) {
  (void)context;
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

void *_backendThread(void *context) {
  auto *ctx = static_cast<KaloContext *>(context);
  unsigned char frame[kalo::kFrameCapacity];
  int pending_request = 0;            // identifier of the last query sent, 0 when none
  uint64_t last_heard = getTime(ctx); // last state frame (or the start)
  uint64_t last_hello = last_heard;

  // Start-up: the hello frame. On failure the lock is released (a held lock
  // would block kaloOpen's own clean-up forever); the open then fails with 2.
  bool hello_sent;
  {
    ContextLock hold(ctx);
    kalo::post_field(ctx->link.command_record, kalo::Field::hello);
    hello_sent = send_marked_fields(ctx, frame) == SendResult::sent;
    if (!hello_sent)
      ctx->error_code = KALO_ERROR_COMMUNICATION;
  }
  if (!hello_sent)
    return finish(ctx, -1);

  uint64_t received_ns = 0; // the state frame of this cycle, 0 when none came
  for (;;) {
    errno = 0;
    received_ns = 0;
    bool wake_loop = false;
    kalo::Arrival arrival = kalo::Arrival::nothing;
    const bool may_relock = getTime(ctx) - last_heard >= kSilenceUs;
    const int received = kalo::receive_frame(
        ctx->link.session, frame, static_cast<int>(kalo::kFrameCapacity), &arrival, may_relock);
    if (arrival == kalo::Arrival::relocked) {
      kalo::count_one(ctx->link.link_counters.relocks);
      kalo::record_event(ctx, KALO_EXT_EVENT_LINK_RELOCKED, 0, 0);
    } else if (arrival == kalo::Arrival::foreign) {
      kalo::count_one(ctx->link.link_counters.frames_foreign);
      kalo::record_event(ctx, KALO_EXT_EVENT_FOREIGN_DATAGRAM, 0, 0);
    } else if (arrival == kalo::Arrival::malformed)
      kalo::count_one(ctx->link.link_counters.frames_malformed);
    if (received < 1) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || arrival == kalo::Arrival::foreign) {
        // Nothing arrived within the receive time-out, or only a stranger's
        // datagram (which must neither slow the exchange nor trigger a
        // command frame): no frame is due, unless the silence calls for a hello.
        if (ctx->link.backend_stop.load() != 0)
          break;
        if (getTime(ctx) - last_heard < kSilenceUs)
          continue;
      } else {
        // A malformed datagram or a failed receive: a command frame may still be due.
        TR_delai(0.001);
      }
    } else {
      received_ns = kalo::monotonic_ns();
      last_heard = getTime(ctx);
      kalo::TickFrame tick_frame{last_heard, 0, false};
      uint64_t frames = 0;
      {
        ContextLock hold(ctx);
        ExchangeRecord &state = ctx->link.state_record;
        const uint32_t rejected_before = state.items_rejected;
        if (encode_decode(kalo::kModeDecode, &state, frame, static_cast<uint32_t>(received)) ==
            kalo::kCodecFailure)
          kalo::count_one(ctx->link.link_counters.frames_malformed);
        ctx->link.link_counters.items_rejected.fetch_add(state.items_rejected - rejected_before,
                                                         std::memory_order_relaxed);
        ctx->link.frames_received++;
        ctx->link.watchdog_counter++;
        if (ctx->link.frame_received.exchange(1) == 0)
          TR_poster_semaphore(ctx->link.first_frame_sem); // kaloOpen waits for it
        kalo::telemetry_state_frame(ctx);
        tick_frame.has_stamp = kalo::carries(state, kalo::Field::time_stamp);
        tick_frame.stamp = static_cast<uint32_t>(state.time_stamp);
        frames = ctx->link.frames_received;
      }
      wake_loop = tick_loop(ctx, tick_frame, frames);
      ContextLock hold(ctx);
      react_to_state(ctx, pending_request);
      // The speed-factor filter steps once per frame. Its input is written by
      // the application under the lock, so it is read under the lock too.
      if (ctx->servo.filter_disabled.load() == 0 && ctx->servo.speed_factor_filter != nullptr)
        TSIG_filtre_calculer(ctx->servo.speed_factor_filter, ctx->servo.speed_factor_target,
                             ctx->servo.speed_factor_filtered);
    }

    const uint64_t now = getTime(ctx);
    const bool silent = now - last_heard >= kSilenceUs;
    {
      ContextLock hold(ctx);
      ExchangeRecord &cmd = ctx->link.command_record;
      SendResult sent = SendResult::dropped;
      if (silent && now - last_hello >= kSilenceUs) {
        kalo::post_field(cmd, kalo::Field::hello);
        kalo::count_one(ctx->link.link_counters.hellos_resent);
        last_hello = now;
      }
      if (cmd.send_request != 0) {
        if (kalo::carries(cmd, kalo::Field::request))
          pending_request = cmd.request;
        sent = send_marked_fields(ctx, frame);
        ctx->link.frames_sent++;
        if (ctx->link.sent_watched.load() != 0)
          TR_poster_semaphore(ctx->link.frame_sent_sem);
        if (sent == SendResult::sent && received_ns != 0)
          ctx->link.telemetry.turnaround_ns.store(kalo::monotonic_ns() - received_ns,
                                                  std::memory_order_relaxed);
      }
      kalo::telemetry_cycle_end(ctx, sent == SendResult::sent);
      // While the controller is silent (perhaps restarting, its port
      // refusing) a failed send is expected: the hellos go on.
      if (sent == SendResult::failed && !silent) {
        // The link is gone: report it to the application's next call and end.
        kalo::record_event(ctx, KALO_EXT_EVENT_SEND_FAILED, errno, 0);
        ctx->error_code = KALO_ERROR_COMMUNICATION;
        ctx->link.connected = 0;
        break;
      }
    }
    if (wake_loop)
      TR_poster_semaphore(ctx->loop.loop_sem);
    if (ctx->link.backend_stop.load() != 0)
      break;
  }
  return finish(ctx, 0);
}

void *_watchdogCtlThread(void *context) {
  auto *ctx = static_cast<KaloContext *>(context);
  ctx->link.watchdog_started++;
  uint32_t previous;
  float period;
  {
    ContextLock hold(ctx);
    previous = ctx->link.watchdog_counter - 1;
    period = ctx->params.watchdog_period;
  }
  bool stalled = false;
  while (ctx->link.backend_stop.load() == 0) {
    {
      ContextLock hold(ctx);
      const uint32_t counter = ctx->link.watchdog_counter;
      if (counter != previous) {
        ctx->link.connected = 1;
      } else if (ctx->link.control_connection_disabled == 0) {
        ctx->link.connected = 0;
        stalled = true;
        kalo::record_event(ctx, KALO_EXT_EVENT_WATCHDOG, kalo::seconds_since_last_frame(ctx),
                           static_cast<double>(period));
      }
      previous = counter;
      period = ctx->params.watchdog_period;
    }
    if (stalled)
      break;
    TR_delai(static_cast<double>(period));
  }
  if (stalled && ctx->link.backend_stop.load() == 0)
    TR_delai(static_cast<double>(period));
  ctx->link.watchdog_ended++; // last access: kaloClose may free the context from here on
  return nullptr;
}

} // extern "C"
