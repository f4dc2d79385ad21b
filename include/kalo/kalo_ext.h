/* kalo extensions: what the link is doing. Telemetry of one connection, the
 * recording of a session to a CSV file, and the events of the safety actions
 * the library takes on its own. None of these calls changes the behaviour of
 * the device calls of kalo.h; all of them may be called from any thread,
 * including the periodic function.
 *
 * Records passed to these calls begin with a `size` member: set it to
 * sizeof the record as your program knows it. The library fills at most that
 * many bytes and writes back how many it filled, so that a program built
 * against an older, shorter record keeps working with a newer library. */
#ifndef KALO_EXT_H
#define KALO_EXT_H

#include <stdint.h>

#include "kalo.h"

KALO_BEGIN_DECLS

/* ---- Link telemetry ------------------------------------------------------ */

/** Bins of the inter-arrival histogram. Bins 0 to 7 are 8 us wide (0-63 us);
 *  above 64 us each doubling of the time is split into 8 equal bins, so a bin
 *  is at most 12.5 % wider than its lower bound; the last bin also holds every
 *  time of 2^24 us (16.8 s) or more. */
#define KALO_EXT_HISTOGRAM_BINS 152

/** What one connection's link saw since it was opened or since the last
 *  kaloExtResetLinkStatistics. Counts are read without stopping the exchange,
 *  so two members may come from two consecutive frames. Times in
 *  microseconds unless the name says otherwise. */
typedef struct KaloExtLinkStatistics {
  uint32_t size;       /**< in: sizeof(KaloExtLinkStatistics); out: bytes filled */
  uint32_t version;    /**< out: 1 */
  uint64_t connection; /**< number of this connection in the process (1, 2, ...); events carry it */
  double seconds;      /**< time covered: since open or the last reset */

  uint64_t state_frames_received; /**< state frames decoded (duplicates included) */
  uint64_t command_frames_sent;   /**< command frames sent */
  uint64_t frames_lost;           /**< controller time stamps never received (see below) */
  uint64_t frames_duplicated;     /**< a time stamp received again */
  uint64_t frames_late;      /**< arrived after a later frame (counted as received, not lost) */
  uint64_t frames_malformed; /**< bad envelope, checksum or item stream */
  uint64_t frames_foreign;   /**< datagrams from a sender other than the controller */
  uint64_t frames_dropped_for_size; /**< command frames too large to send */
  uint64_t items_rejected;          /**< items whose counts did not fit, skipped */
  uint64_t hellos_resent;           /**< hellos sent again after a silence */
  double frame_rate_hz;             /**< state frames per second over `seconds` */
  double loss_ratio; /**< frames_lost / (frames_lost + distinct frames received), 0..1 */
  /** The controller's sending period, estimated from its time stamps (0 until
   *  256 frames came, or when the controller sends no time stamp). A frame is
   *  lost when its time stamp (one period after the previous one) never
   *  arrives; a gap longer than the silence threshold is a silent period, not
   *  a loss. */
  uint32_t controller_period_us;

  uint32_t interarrival_p50_us; /**< median time between two state frames */
  uint32_t interarrival_p99_us; /**< 99th percentile, from the histogram */
  uint32_t interarrival_max_us; /**< longest time between two state frames */
  uint64_t interarrival_histogram[KALO_EXT_HISTOGRAM_BINS]; /**< counts per bin */
  uint32_t histogram_lower_us[KALO_EXT_HISTOGRAM_BINS];     /**< lower bound of each bin */

  uint64_t periodic_calls; /**< calls of the periodic function */
  uint64_t late_calls; /**< calls that began more than 1.5 loop periods after the previous one */
  uint64_t overruns;   /**< calls that lasted 1 ms or more beyond the time step */
  uint32_t longest_call_us; /**< longest call of the periodic function */

  uint32_t silence_threshold_us; /**< a wait this long for a state frame is a silence: 100000 */
  uint64_t silent_periods;       /**< silences, the one going on included */
  uint64_t longest_silence_us;   /**< longest silence, the one going on included */

  uint32_t recording;              /**< 1 while a recording runs (0 once a write failed) */
  uint32_t reserved;               /**< 0; keeps the next members aligned */
  uint64_t recording_rows;         /**< rows written by the current or last recording */
  uint64_t recording_rows_dropped; /**< rows not in the file: the writer fell behind, or a
                                        write failed (then every row after it) */
  /** times the link took the controller's frames from a new source port after
   *  a silence (KALO_EXT_EVENT_LINK_RELOCKED) */
  uint64_t link_relocks;
} KaloExtLinkStatistics;

/** Reads the telemetry of a connection. Works on a connection that failed
 *  (the figures then say why), without waiting for the exchange.
 *  @param context the connection.
 *  @param stats   filled; set stats->size first.
 *  @return 0, or -1: KALO_ERROR_INVALID_CONTEXT in kaloGlobalError for a bad
 *          handle; KALO_ERROR_INCORRECT_VALUE for a NULL stats or a size
 *          below 8. */
KALO_API int32_t kaloExtGetLinkStatistics(KaloContext *context, KaloExtLinkStatistics *stats);

/** Starts the telemetry afresh: counts, histogram, maxima and the time
 *  covered. The frame loss detector keeps its estimate of the period.
 *  @param context the connection.
 *  @return 0, or -1 with KALO_ERROR_INVALID_CONTEXT in kaloGlobalError. */
KALO_API int32_t kaloExtResetLinkStatistics(KaloContext *context);

/* ---- Session recording --------------------------------------------------- */

/** Records every exchange of the connection to a CSV file: one row per state
 *  frame received, after a header line naming the columns:
 *  time_s (arrival, since the start of the recording), frame (state frames
 *  since open), stamp_us (the controller's time stamp), interarrival_us,
 *  x y z qx qy qz qw (pose), vx vy vz wx wy wz (speed), buttons, power,
 *  sent (1 when a command frame answered the state frame), fx fy fz mx my mz
 *  (force command), cmd_x ... cmd_qw (position command), cmd_vx ... cmd_wz
 *  (speed command), cfx cfy cfz cmx cmy cmz (the coupling wrench computed by
 *  the latest kaloGetForce, 0 before), call_start_s and call_us (the latest call of the periodic
 *  function, empty before the first), calls and late_calls (periodic calls
 *  and late ones since the start of the recording). Values are those of the
 *  first control point. The exchange thread only copies each row into a
 *  buffer; a thread of the recording writes the file, and rows that find the
 *  buffer full are counted as dropped, never waited for. A write that fails
 *  (a full disk) ends the recording: the file keeps the complete rows written
 *  before it, every later row is counted as dropped, a
 *  KALO_EXT_EVENT_RECORDING_FAILED event is recorded and kaloExtStopRecording
 *  reports the failure.
 *  @param context the connection.
 *  @param path    the file to create (replaced when it exists).
 *  @return 0, or -1: KALO_ERROR_INVALID_CONTEXT in kaloGlobalError;
 *          KALO_ERROR_COMMUNICATION when the connection failed;
 *          KALO_ERROR_INCORRECT_VALUE for a NULL path, a file that cannot be
 *          created or written, or a recording already running (the path and
 *          the system's reason in kaloExtLastErrorDetail);
 *          KALO_ERROR_OUT_OF_MEMORY. */
KALO_API int32_t kaloExtStartRecording(KaloContext *context, const char *path);

/** Stops the recording, writes the rows still buffered and closes the file.
 *  kaloClose stops a running recording too.
 *  @param context the connection.
 *  @return the number of rows dropped (0 when the file holds every exchange),
 *          or -1: KALO_ERROR_INVALID_CONTEXT in kaloGlobalError;
 *          KALO_ERROR_INCORRECT_VALUE when no recording runs, or when a write
 *          to the file failed: the recording ended then, and
 *          kaloExtLastErrorDetail says "cannot write recording file PATH:
 *          reason (N rows written, M not)"; the link statistics keep both
 *          counts. */
KALO_API int32_t kaloExtStopRecording(KaloContext *context);

/* ---- Events of the safety actions ----------------------------------------- */

/** The energy guard refused a command: value is the kinetic energy's peak (J),
 *  threshold the energy at the device's maximum speed. */
#define KALO_EXT_EVENT_ENERGY_GUARD 1
/** A non-finite Cartesian set-point closed the connection: value is the
 *  offending number (NaN or infinite), threshold the largest finite float. */
#define KALO_EXT_EVENT_NON_FINITE_SET_POINT 2
/** The watchdog found no frame for one period and dropped the link: value is
 *  the time since the last state frame (s), threshold the period (s). */
#define KALO_EXT_EVENT_WATCHDOG 3
/** A datagram from a sender other than the controller was dropped (value and
 *  threshold 0; the count is in the link statistics). At most one a second. */
#define KALO_EXT_EVENT_FOREIGN_DATAGRAM 4
/** A command frame could not be sent; the link is dropped: value is errno. */
#define KALO_EXT_EVENT_SEND_FAILED 5
/** After a silence of 0.5 s (the hello-resend time) the controller's frames
 *  came from a new source port of its address, as from a restarted
 *  controller; the link took that port (value and threshold 0; the count is
 *  KaloExtLinkStatistics.link_relocks). While frames flow, datagrams from any
 *  other port are dropped as foreign. */
#define KALO_EXT_EVENT_LINK_RELOCKED 7
/** A write to the recording's file failed and ended the recording: value is
 *  errno (ENOSPC for a full disk), threshold 0. */
#define KALO_EXT_EVENT_RECORDING_FAILED 8

/** The share of late periodic calls over the last second exceeded the
 *  threshold (kaloExtSetLoopLateThreshold): value is the share (0..1),
 *  threshold the threshold. At most one a second. */
#define KALO_EXT_EVENT_LOOP_LATE 6

/** One safety action. */
typedef struct KaloExtEvent {
  uint32_t size;       /**< see kaloExtGetEvents */
  uint32_t kind;       /**< KALO_EXT_EVENT_* */
  uint64_t connection; /**< the connection's number (KaloExtLinkStatistics.connection) */
  double time;         /**< seconds of the monotonic clock (CLOCK_MONOTONIC) */
  double value;        /**< the measured value, as the kind says */
  double threshold;    /**< the limit it was held against */
} KaloExtEvent;

/** Reads the most recent events, oldest first. The library keeps the last 256
 *  events of the process, so the events of a connection stay readable after
 *  it was closed (a non-finite set-point closes it): pass NULL as context to
 *  read the events of every connection.
 *  @param context the connection, or NULL for all.
 *  @param events  an array of max records; set events[0].size to
 *                 sizeof(KaloExtEvent): it gives the stride of the array.
 *  @param max     room of the array.
 *  @param count   receives the number of records filled.
 *  @return 0, or -1: KALO_ERROR_INVALID_CONTEXT in kaloGlobalError for a
 *          handle that is not a live context; KALO_ERROR_INCORRECT_VALUE (in
 *          the context, or in kaloGlobalError for NULL) for a NULL count, a
 *          NULL events with max above 0, or a size below 8. */
KALO_API int32_t kaloExtGetEvents(KaloContext *context, KaloExtEvent *events, uint32_t max,
                                  uint32_t *count);

/** A short English name of an event kind ("energy guard", ...), "unknown" for
 *  others. Never NULL. */
KALO_API const char *kaloExtEventName(uint32_t kind);

/* ---- Error details ---------------------------------------------------------- */

/** What the most recent failing call of the calling thread had to say beyond
 *  its error code, in English, or "" when it had nothing more. The codes stay
 *  those the calls define; the text tells apart what one code covers:
 *  "bad URL syntax: ...", "unknown host ...", "no free local port in
 *  3131-3140 ..." (each connection of a machine binds one of these ten ports
 *  unless its URL names another), "no state frame from ADDRESS:PORT within
 *  1 s" (nothing answering), "cannot create recording file PATH: reason".
 *  Each library call that can explain its failure starts the text afresh:
 *  read it right after the failing call, on the same thread.
 *  @return a text owned by the library, valid until the thread's next library
 *          call; never NULL. */
KALO_API const char *kaloExtLastErrorDetail(void);

/* ---- Passivity observer and controller ------------------------------------ */

/** A time-domain passivity observer and controller for one port of a
 *  network that exchanges energy with an arm: a coupling to a simulation, or
 *  one side of a teleoperation link. The observer counts, step by step, the
 *  energy that has flowed through the port; when the network has given the
 *  arm more energy than it took, the controller adds exactly the damping that
 *  takes the excess back, no more than its cap (Hannaford and Ryu, "Time-domain
 *  passivity control of haptic interfaces", IEEE Transactions on Robotics and
 *  Automation 18(1), 2002).
 *
 *  Conventions: the force is the wrench the network applies to the arm
 *  (force then moment: what you would give kaloSetForce()), the velocity is
 *  the arm's twist (linear then angular: what kaloGetSpeed() gives). The power
 *  the network takes from the arm is -force . velocity; over a step it is
 *  counted as energy in (positive power) or energy out (negative power).
 *
 *  The observed energy is energy_in - energy_out + dissipated for a port on
 *  its own. For the two ports of a link with a delay, each port's observer is
 *  given the energy that entered at the other port, as it arrived over the
 *  link (kaloExtPassivitySetSupply()): the observed energy is then
 *  supply - energy_out + dissipated, which keeps the whole link passive
 *  whatever its delay (the other port's energy_in only grows, so what arrived
 *  late is never more than what entered).
 *
 *  The controller's damping is the same fraction (0 to 1) of the linear cap on
 *  the force and of the angular cap on the moment. The record is plain data
 *  owned by the caller (a local or static variable will do): nothing is
 *  allocated, and a step costs a few dozen floating-point operations. One
 *  record serves one port on one thread. */
typedef struct KaloExtPassivity {
  uint32_t size;              /**< in: sizeof(KaloExtPassivity), before kaloExtPassivityInit() */
  uint32_t two_port;          /**< 1 once a supply was given: the observed energy counts it */
  double time_step;           /**< s: the time expected between two steps */
  double linear_damping_cap;  /**< N s/m: the most damping added to the force */
  double angular_damping_cap; /**< N m s/rad: the most damping added to the moment */
  double energy;              /**< J: the observed energy after the last step */
  double linear_damping;      /**< N s/m: damping added by the last step (0 when passive) */
  double angular_damping;     /**< N m s/rad: damping added by the last step */
  double energy_in;           /**< J: energy the network took from the arm at this port */
  double energy_out;          /**< J: energy the network gave the arm, before the controller */
  double dissipated;          /**< J: energy the controller's damping took back */
  double supply;              /**< J: the other port's energy_in, as last given */
  double dissipating;         /**< W: the power the last step's damping takes back */
  uint64_t steps;             /**< steps taken */
  uint64_t active_steps;      /**< steps that added damping */
  uint64_t capped_steps;      /**< steps whose damping was held at the cap */
} KaloExtPassivity;

/** Prepares a record for a port: no energy has flowed, no damping is added.
 *  Call it again to start afresh.
 *  @param passivity           the record; set passivity->size first.
 *  @param time_step           s: the time expected between two steps (the loop
 *                             period), finite and positive; the controller
 *                             sizes its damping so that the excess is taken
 *                             back over one such step.
 *  @param linear_damping_cap  N s/m: the most damping added to the force,
 *                             finite and 0 or more. Keep it within what the
 *                             arm can render stably: a damping b on a handle
 *                             of mass m stepped every T s needs b T / m well
 *                             below 1.
 *  @param angular_damping_cap N m s/rad: the same for the moment; 0 leaves
 *                             rotations undamped.
 *  @return 0, or -1 with KALO_ERROR_INCORRECT_VALUE in kaloGlobalError for a
 *          NULL record, a size below sizeof(KaloExtPassivity), a time step
 *          that is not finite and positive, or a cap that is negative or not
 *          finite (the record is then left as it was); kaloExtLastErrorDetail()
 *          says which. */
KALO_API int32_t kaloExtPassivityInit(KaloExtPassivity *passivity, double time_step,
                                      double linear_damping_cap, double angular_damping_cap);

/** Gives the observer of one port of a delayed link the energy that entered
 *  the link at the other port (the other record's energy_in), as it arrived.
 *  From the first call on, the observed energy is supply - energy_out +
 *  dissipated instead of energy_in - energy_out + dissipated. A value below
 *  the supply already given is ignored: an old value that arrived late never
 *  takes energy back.
 *  @param passivity the record of this port.
 *  @param energy    J: the other port's energy_in, finite and 0 or more.
 *  @return 0, or -1 with KALO_ERROR_INCORRECT_VALUE in kaloGlobalError for a
 *          NULL or uninitialised record or an energy that is negative or not
 *          finite (the record is then left as it was). */
KALO_API int32_t kaloExtPassivitySetSupply(KaloExtPassivity *passivity, double energy);

/** One step of the observer and the controller. Counts the energy of the
 *  interval since the previous step (the network's power at this step, and
 *  the previous step's damping), then, when the observed energy is negative,
 *  sets the damping that takes it back over one time step, capped:
 *  fraction = min(1, -energy / (time_step * (linear_damping_cap * |v|^2 +
 *  angular_damping_cap * |w|^2))), where v and w are the linear and angular
 *  velocities; the force to apply is the network's force minus
 *  fraction * linear_damping_cap * v, the moment minus
 *  fraction * angular_damping_cap * w. An arm at rest gets no damping (none
 *  would take energy back).
 *  @param passivity the record of the port.
 *  @param force     the wrench the network applies to the arm (6 values).
 *  @param velocity  the arm's twist (6 values).
 *  @param elapsed   s since the previous step: the time over which this
 *                   step's power and the previous step's damping acted. 0
 *                   (or a value that is not finite and positive) means the
 *                   record's time step. Bound it yourself after a pause: the
 *                   observer only knows the power at the step's instant.
 *  @param out       receives the wrench to apply (6 values); it may be the
 *                   same array as force. Every value is finite, within the
 *                   largest float.
 *  @return 0, or -1 with KALO_ERROR_INCORRECT_VALUE in kaloGlobalError for a
 *          NULL or uninitialised record or array, or a force or velocity
 *          with a value that is not finite: then out is all zeros (when
 *          given) and the record is left as it was. */
KALO_API int32_t kaloExtPassivityStep(KaloExtPassivity *passivity, const float force[6],
                                      const float velocity[6], double elapsed, float out[6]);

/* ---- Loop timing ---------------------------------------------------------- */

/** The timing of a call of the periodic function: how much time really
 *  passed since the previous call, for an application that integrates a
 *  simulation. The loop is ticked in the controller's time (see
 *  kaloSetPeriodicFunction), so controller_elapsed is the time the
 *  controller's stamps say separates the two frames that ticked the calls: a
 *  period, two after a lost frame, several when the function overran, and
 *  never the jitter of the network or of the scheduler. Integrate with it,
 *  bounded (say to 5 periods) so that a long silence does not throw the
 *  simulation. */
typedef struct KaloExtLoopTiming {
  uint32_t size;   /**< in: sizeof(KaloExtLoopTiming); out: bytes filled */
  uint32_t frames; /**< state frames received between the frames that ticked the two calls */
  /** s: controller's time from the frame that ticked the previous call to the
   *  one that ticked this call: the newest tick when the call starts, so the
   *  time matches the state the call reads. A call that starts late covers
   *  the ticks that came meanwhile, and the calls that follow it back to back
   *  are told 0. For the first call after a start: from the last frame before
   *  the start. Measured on arrival times for a controller that sends no
   *  time stamps. */
  double controller_elapsed;
  double arrival_elapsed; /**< s: the same measured on arrival times */
  uint32_t late; /**< 1 when this call started more than 1.5 periods after the previous one */
  /** controller time stamp (us, 32-bit wrapping) of the frame that ticked this call */
  uint32_t stamp;
  uint64_t calls;      /**< periodic calls so far (this one included) */
  uint64_t late_calls; /**< late calls so far (this one included) */
} KaloExtLoopTiming;

/** Reads the timing of the periodic call in progress: call it from the
 *  periodic function. From another thread it gives the latest call's timing;
 *  before the first call every member is 0.
 *  @param context the connection.
 *  @param timing  filled; set timing->size first.
 *  @return 0, or -1: KALO_ERROR_INVALID_CONTEXT in kaloGlobalError for a bad
 *          handle; KALO_ERROR_INCORRECT_VALUE for a NULL timing or a size
 *          below 8. */
KALO_API int32_t kaloExtGetLoopTiming(KaloContext *context, KaloExtLoopTiming *timing);

/** Sets the share of late periodic calls (late as in KaloExtLoopTiming) over
 *  a moving window of one second above which KALO_EXT_EVENT_LOOP_LATE is
 *  raised, at most once a second. The window is judged once the loop has run
 *  for a second. Default 0.02 (2 %); 1 never raises it.
 *  @param context the connection.
 *  @param share   0 to 1.
 *  @return 0, or -1: KALO_ERROR_INVALID_CONTEXT in kaloGlobalError for a bad
 *          handle; KALO_ERROR_INCORRECT_VALUE for a share that is not a
 *          number from 0 to 1. */
KALO_API int32_t kaloExtSetLoopLateThreshold(KaloContext *context, double share);

KALO_END_DECLS

#endif
