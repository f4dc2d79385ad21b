// Opening a connection: the URL, the UDP session, the context with its
// defaults, the exchange thread, the wait for the controller's first frame and
// the version handshake. Also the small connection-level calls.
#include <cstdlib>
#include <new>
#include <sys/socket.h>
#include <sys/time.h>

#include "device/call_frame.h"
#include "device/context.h"
#include "link/lifecycle.h"
#include "link/url.h"
#include "protocol/error_detail.h"
#include "realtime/timed_wait.h"
#include "kalo/kalo.h"
#include "kalo/kalo_internal.h"
#include "kalo/kalo_math.h"
#include "kalo/kalo_deplacement.h"
#include "kalo/kalo_quaternion.h"
#include "kalo/kalo_version.h"

namespace {

constexpr int32_t kApiMajor = KALO_VERSION_MAJOR;
constexpr int32_t kApiMinor = KALO_VERSION_MINOR;
constexpr int32_t kOldestMajorTold = 3; // controllers below this do not take our version
constexpr double kDeviceIdMinimumVersion = 5.4;
constexpr float kInitialControllerVersion = 2.6f;
constexpr double kDefaultObjectMass = 0.814;
constexpr int kPerPointArrayLimit = 256; // control points the per-point arrays are ever sized for
constexpr int kHandshakeAttempts = 3;    // tries of each query of the opening handshake

// The identity pose (zero translation, identity quaternion with the scalar last).
void set_null_pose(float (&pose)[7]) {
  for (float &v : pose)
    v = 0.0f;
  pose[6] = 1.0f;
}

void init_exchange_record(ExchangeRecord &r) {
  for (float(*pose)[7] :
       {&r.observation_frame, &r.base_frame, &r.catch_frame, &r.position, &r.vm_base_frame,
        &r.physical_position, &r.avatar_position, &r.center_sphere})
    set_null_pose(*pose);
}

// Context defaults, exchange records and work objects. False when something
// could not be allocated (the caller releases what was).
bool init_context(KaloContext *ctx, int session) {
  ctx->magic = kalo::kContextMagic;
  ctx->link.session = session;
  ctx->params.output_stream = stdout;
  ctx->params.watchdog_period = 0.1f;
  ctx->params.time_step = 0.1f;
  ctx->params.max_linear_speed = 2.0f;
  ctx->params.max_angular_speed = 6.2831855f;
  ctx->params.current_force_factor = 1.0f;
  set_null_pose(ctx->params.observation_frame_copy);
  set_null_pose(ctx->params.base_frame_copy);
  ctx->servo.filter_disabled = 1;
  ctx->mouse.previous_state = 0;
  ctx->mouse.words[0] = -1;
  ctx->mouse.words[1] = -1;
  ctx->link.control_point_count = 1;
  ctx->servo.point_count = 1;
  ctx->link.axis_count = 6;
  ctx->servo.object_mass = kDefaultObjectMass;
  ctx->link.controller_version = kInitialControllerVersion;
  ctx->vm.vm_default_mode = -1;
  ctx->vm.vm_default_mode_seen = -1;
  ctx->vm.vm_default_mode_copy = -1;

  init_exchange_record(ctx->link.command_record);
  init_exchange_record(ctx->link.state_record);
  ctx->link.command_record.speed_factor = 1.0f;
  ctx->link.command_record.force_factor = 1.0f;
  ctx->link.command_record.control_point_count = 1;
  ctx->link.command_record.axis_count_wire = 6;
  ctx->link.state_record.traj_samples =
      static_cast<float(*)[7]>(std::calloc(kalo::kTrajSampleRoom, sizeof(float[7])));

  ctx->servo.speed_factor_target = MATD_creer(1, 1);
  ctx->servo.speed_factor_filtered = MATD_creer(1, 1);
  ctx->servo.speed_factor_cutoff = MATD_creer(1, 1);
  ctx->servo.object_inertia = MATD_creer(3, 3);
  ctx->servo.work_matrix4 = MATD_creer(4, 4);
  ctx->servo.work_matrix3 = MATD_creer(3, 3);
  ctx->servo.work_vect3 = VECT3_creer();
  ctx->servo.work_depl = DEPL_creer();
  ctx->servo.work_quat = QUAT_creer();
  if (ctx->servo.work_vect3 == nullptr || ctx->servo.work_depl == nullptr ||
      ctx->servo.work_quat == nullptr)
    return false;
  if (ctx->link.state_record.traj_samples == nullptr || ctx->servo.speed_factor_target == nullptr ||
      ctx->servo.speed_factor_filtered == nullptr || ctx->servo.speed_factor_cutoff == nullptr ||
      ctx->servo.object_inertia == nullptr || ctx->servo.work_matrix4 == nullptr ||
      ctx->servo.work_matrix3 == nullptr)
    return false;
  ctx->servo.speed_factor_target->donnees[0] = 1.0;
  ctx->servo.speed_factor_cutoff->donnees[0] = 0.5;
  const double inertia = 2.0 * kDefaultObjectMass * 0.3352 / 5.0;
  for (int i = 0; i < 3; ++i)
    ctx->servo.object_inertia->donnees[i * 3 + i] = inertia;
  return true;
}

bool create_semaphores(KaloContext *ctx) {
  ctx->lock = TR_creer_semaphore_mutex();
  ctx->link.reply_sem = TR_creer_semaphore_synchro();
  ctx->loop.loop_sem = TR_creer_semaphore_synchro();
  ctx->link.traj_sample_sem = TR_creer_semaphore_synchro();
  ctx->link.button_sem = TR_creer_semaphore_synchro();
  ctx->link.upper_bound_sem = TR_creer_semaphore_synchro();
  ctx->link.backend_exited = TR_creer_semaphore_synchro();
  ctx->loop.loop_exited = TR_creer_semaphore_synchro();
  ctx->link.first_frame_sem = TR_creer_semaphore_synchro();
  ctx->link.frame_sent_sem = TR_creer_semaphore_synchro();
  return ctx->lock != nullptr && ctx->link.reply_sem != nullptr && ctx->loop.loop_sem != nullptr &&
         ctx->link.traj_sample_sem != nullptr && ctx->link.button_sem != nullptr &&
         ctx->link.upper_bound_sem != nullptr && ctx->link.backend_exited != nullptr &&
         ctx->loop.loop_exited != nullptr && ctx->link.first_frame_sem != nullptr &&
         ctx->link.frame_sent_sem != nullptr;
}

// The per-control-point arrays, sized for the controller's count.
bool allocate_point_arrays(KaloContext *ctx) {
  int points = ctx->link.control_point_count;
  if (points < 1)
    points = 1;
  if (points > kPerPointArrayLimit)
    points = kPerPointArrayLimit;
  const auto n = static_cast<std::size_t>(points);
  ctx->servo.point_array_count = points;
  ctx->servo.gain_stiffness_buffer = static_cast<float *>(std::calloc(n * 6, sizeof(float)));
  ctx->servo.gain_damping_buffer = static_cast<float *>(std::calloc(n * 6, sizeof(float)));
  ctx->servo.scratch_speed = static_cast<float *>(std::calloc(n * 6, sizeof(float)));
  ctx->servo.scratch_force = static_cast<float *>(std::calloc(n * 6, sizeof(float)));
  ctx->servo.scratch_position = static_cast<float *>(std::calloc(n * 7, sizeof(float)));
  return ctx->servo.gain_stiffness_buffer != nullptr && ctx->servo.gain_damping_buffer != nullptr &&
         ctx->servo.scratch_speed != nullptr && ctx->servo.scratch_force != nullptr &&
         ctx->servo.scratch_position != nullptr;
}

// Gives up an open before the exchange thread exists: nothing else runs on the
// context, so it is released at once.
KaloContext *abandon_open(KaloContext *ctx, int32_t global_code) {
  kalo::release_context(ctx);
  kaloGlobalError = global_code;
  return nullptr;
}

} // namespace

extern "C" {

KaloContext *kaloOpen(const char *url) {
  auto *ctx = new (std::nothrow) KaloContext();
  if (ctx == nullptr) {
    kaloGlobalError = KALO_ERROR_OUT_OF_MEMORY;
    return nullptr;
  }
  ctx->link.frame_received = 0;
  ctx->error_code = KALO_NO_ERROR;
  ctx->params.output_stream = stdout;
  ctx->link.session = -1;
  ctx->lifetime.holders = 1; // the application's, until kaloClose

  kalo::ConnectionUrl parsed;
  std::string why;
  kalo::clear_error_detail();
  if (!kalo::parse_connection_url(url, &parsed, &why)) {
    kalo::set_error_detail("bad URL syntax: " + why);
    return abandon_open(ctx, KALO_ERROR_URL_SYNTAX);
  }

  // The transport says why it failed (unknown host, no free local port...).
  const int session = open_protocol_udp(parsed.host.c_str(), parsed.local_port, parsed.remote_port);
  if (session < 0) {
    if (parsed.host.empty())
      kalo::set_error_detail(std::string("bad URL syntax: no host in \"") + url + "\"");
    return abandon_open(ctx, KALO_ERROR_COMMUNICATION);
  }
  // The receive gives up now and then so that the exchange thread can see a
  // stop request even from a controller that went silent.
  timeval receive_timeout{0, kalo::kReceiveTimeoutUs};
  setsockopt(session, SOL_SOCKET, SO_RCVTIMEO, &receive_timeout, sizeof receive_timeout);

  if (!init_context(ctx, session) || !create_semaphores(ctx) || !kalo::register_context(ctx))
    return abandon_open(ctx, KALO_ERROR_OUT_OF_MEMORY);
  init_asserv(ctx);
  init_filtres(ctx);

  ctx->link.backend_stop = 0;
  kalo::hold(ctx); // the exchange thread's
  ctx->link.backend_task = TR_creer_tache("SYNC", kalo::kTaskPriorityOffset,
                                          kalo::kBackendStackSize, _backendThread, ctx);
  if (ctx->link.backend_task == nullptr) {
    ctx->lifetime.holders.fetch_sub(1);
    return abandon_open(ctx, KALO_ERROR_OUT_OF_MEMORY);
  }

  // The controller answers the hello with its stream: go on at its first
  // state frame, give up after 1 s without one.
  const bool heard = kalo::wait_posted(ctx->link.first_frame_sem, kalo::kFirstFrameLimitMs) ||
                     ctx->link.frame_received.load() != 0;
  ctx->link.connected = 1;
  if (!heard) {
    const std::string silent = kalo::no_state_frame_detail(session, 1.0);
    kaloGlobalError = KALO_ERROR_COMMUNICATION;
    kaloClose(ctx);
    kaloGlobalError = KALO_ERROR_COMMUNICATION;
    kalo::set_error_detail(silent);
    return nullptr;
  }

  kaloGetRobotNumberOfControlPoints(ctx);
  if (!allocate_point_arrays(ctx)) {
    kaloClose(ctx);
    kaloGlobalError = KALO_ERROR_OUT_OF_MEMORY;
    return nullptr;
  }

  // The handshake's results are not checked: a controller that does not
  // answer leaves the defaults (version 2.6) and the connection is still given.
  // A lost reply is asked again, so that one lost frame does not leave the
  // defaults for the whole connection. Each query goes on at its reply.
  kaloDetachVO(ctx);
  kalo::wait_marks_sent(ctx, kalo::kOpenDetachSentLimitMs);
  kaloGetNumberOfAxes(ctx);
  for (int attempt = 0; attempt < kHandshakeAttempts && getMaxSpeed(ctx) != 0; ++attempt) {
  }
  init_control_energie_cinetique(ctx);
  init_mouse(ctx);
  sendAPIVersion(ctx);
  return ctx;
}

int32_t kaloAPIVersion(int32_t *major, int32_t *minor) {
  if (major != nullptr)
    *major = kApiMajor;
  if (minor != nullptr)
    *minor = kApiMinor;
  return 0;
}

int32_t kaloGetControlerVersion(KaloContext *context, int32_t *major, int32_t *minor) {
  return kalo::query_call(context, kalo::Field::controller_version, [&](KaloContext &ctx) {
    if (major != nullptr)
      *major = ctx.link.state_record.controller_version[0];
    if (minor != nullptr)
      *minor = ctx.link.state_record.controller_version[1];
  });
}

int32_t kaloGetDeviceID(KaloContext *context, int32_t *device_type, int32_t *serial_number) {
  if (kalo::version_refused(context, kDeviceIdMinimumVersion))
    return KALO_ERROR_INCOMPATIBLE_VERSION;
  return kalo::query_call(context, kalo::Field::device_id, [&](KaloContext &ctx) {
    if (device_type != nullptr)
      *device_type = ctx.link.state_record.device_id[0];
    if (serial_number != nullptr)
      *serial_number = ctx.link.state_record.device_id[1];
  });
}

int32_t kaloDisableControlConnexion(KaloContext *context, int32_t disabled) {
  const int32_t result = kalo::locked_call(context, [&](KaloContext &ctx) {
    ctx.link.control_connection_disabled = static_cast<uint32_t>(disabled);
    ctx.link.command_record.control_connection_disabled = disabled;
    kalo::post_field(ctx.link.command_record, kalo::Field::control_connection_disabled);
    return KALO_NO_ERROR;
  });
  if (result != 0)
    return result;
  // One stiffness query as a round trip: the controller has taken the flag
  // when it answers. Its result does not matter.
  kalo::query_call(context, kalo::Field::simulation_stiffness, [](KaloContext &) {});
  return 0;
}

// The count is kept within the points the records hold, whatever the wire
// said: every per-point walk and every command frame is sized by it.
int32_t kaloGetRobotNumberOfControlPoints(KaloContext *context) {
  return kalo::locked_call(context, [](KaloContext &ctx) {
    int32_t n = ctx.link.state_record.control_point_count;
    n = n < 0 ? 0 : (n > kalo::kControlPointRoom ? kalo::kControlPointRoom : n);
    ctx.link.control_point_count = n;
    ctx.link.command_record.control_point_count = n;
    return KALO_NO_ERROR;
  });
}

int32_t sendAPIVersion(KaloContext *context) {
  int32_t major = 0;
  int32_t minor = 0;
  kaloAPIVersion(&major, &minor);
  if (!kalo::is_live(context)) {
    kaloGlobalError = KALO_ERROR_INVALID_CONTEXT;
    return -1;
  }
  int asked = -1;
  for (int attempt = 0; attempt < kHandshakeAttempts && asked != 0; ++attempt)
    asked = kaloGetControlerVersion(context, &context->link.controller_version_major,
                                    &context->link.controller_version_minor);
  if (asked != 0)
    return -1;
  context->link.controller_version =
      static_cast<float>(context->link.controller_version_major) +
      static_cast<float>(context->link.controller_version_minor) / 100.0f;
  if (context->link.controller_version_major < kOldestMajorTold)
    return -1;
  return kalo::locked_call(context, [&](KaloContext &ctx) {
    ctx.link.command_record.api_version[0] = major;
    ctx.link.command_record.api_version[1] = minor;
    kalo::post_field(ctx.link.command_record, kalo::Field::api_version);
    return KALO_NO_ERROR;
  });
}

} // extern "C"
