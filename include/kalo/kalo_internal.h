/**
 * @file kalo_internal.h
 * @brief Calls exported for the library's own use and for tools that speak
 *        the controller protocol: the frame codec, protocol sessions, the UDP
 *        transport, the connection core's threads and the local servo.
 *
 * Applications use kalo.h. These calls check little: they trust the library's
 * own callers, and a context argument must be a live connection.
 */
#ifndef KALO_INTERNAL_H
#define KALO_INTERNAL_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/time.h>

#include "kalo.h"
#include "kalo_export.h"

KALO_BEGIN_DECLS

/* ---- Frame codec ---------------------------------------------------------- */

/**
 * @defgroup kalo_internal Internal calls
 * @brief The codec, the transport, the exchange threads and the local servo,
 *        exported for the library's own modules and its tools.
 * @{
 */
/**
 * @brief The record of one direction of the exchange (commands out, state in):
 *        one member per frame field and a change flag per field. Its layout is
 *        internal to the library.
 */
typedef struct ExchangeRecord ExchangeRecord;

/**
 * @brief Encodes the marked fields of a record into a frame, or decodes a frame
 *        into a record.
 * @param[in] mode 1 to encode, 0 to decode.
 * @param[in,out] record Encoding: the record whose marked fields are sent, in
 *        descending identifier order. Decoding: receives the fields the frame
 *        carries, each marked.
 * @param[in,out] buffer Encoding: receives the items. Decoding: the items.
 * @param[in] size Encoding: the room in buffer. Decoding: the number of bytes
 *        to decode.
 * @return The bytes produced or consumed, or 0xFFFFFFFF on a bad identifier, a
 *         malformed value or (encoding) a frame that does not fit; when
 *         decoding fails part-way the fields decoded so far are kept.
 */
KALO_API uint32_t encode_decode(int mode, ExchangeRecord *record, unsigned char *buffer,
                                uint32_t size);

/* ---- Protocol sessions ---------------------------------------------------- */

/**
 * @brief Transport receive stored in a session.
 * @param[in] descriptor The transport descriptor.
 * @param[out] bytes Receives the datagram.
 * @param[in] capacity The room in bytes.
 * @param[out] peer The controller's address.
 * @return The bytes received, or -1 with errno.
 */
typedef int (*kalo_read_fn)(int descriptor, void *bytes, int capacity, struct sockaddr_in *peer);
/**
 * @brief Transport send stored in a session.
 * @param[in] descriptor The transport descriptor.
 * @param[in] bytes The datagram.
 * @param[in] count Its size in bytes.
 * @param[out] peer The controller's address.
 * @return count, 0, or -1 with errno.
 */
typedef int (*kalo_write_fn)(int descriptor, const void *bytes, int count,
                             struct sockaddr_in *peer);
/**
 * @brief Transport close stored in a session.
 * @param[in] descriptor The transport descriptor.
 * @param[in] peer The controller's address, released by the call.
 * @param[in] table Not used.
 * @return 0, or -1.
 */
typedef int (*kalo_close_fn)(int descriptor, struct sockaddr_in *peer, void *table);

/**
 * @brief Registers a transport descriptor as a session; the descriptor is the
 *        session's handle.
 * @param[in] type The transport type (1: UDP).
 * @param[in] descriptor The transport descriptor, 0 to 63.
 * @param[in] read_fn The transport's receive.
 * @param[in] write_fn The transport's send.
 * @param[in] close_fn The transport's close.
 * @param[in] peer The controller's address; the session owns it from now on.
 * @return The handle, or -1 with errno EMFILE for a negative descriptor or one
 *         of 64 or more, ENOMEM when memory is short.
 */
KALO_API int open_protocol(uint32_t type, int descriptor, kalo_read_fn read_fn,
                           kalo_write_fn write_fn, kalo_close_fn close_fn,
                           struct sockaddr_in *peer);
/**
 * @brief Receives one datagram, checks its envelope and copies its payload.
 *
 * Only the bytes the envelope declares are handed on. A datagram of a UDP
 * session that came from another address than the controller's or, once a
 * first frame has been accepted, from another port than that frame's is
 * dropped unread.
 * @param[in] handle The session.
 * @param[out] bytes Receives the payload.
 * @param[in] capacity The room in bytes; a longer payload is cut.
 * @return The payload length the envelope declares, or -1 with errno EBADF (no
 *         such session), EFAULT (NULL buffer), EPROTO (wrong length or
 *         checksum) or EACCES (foreign sender).
 */
KALO_API int read_protocol(int handle, void *bytes, int capacity);
/**
 * @brief Wraps a payload in the envelope and sends it.
 * @param[in] handle The session.
 * @param[in] bytes The payload.
 * @param[in] count Its size, at most 1440 bytes.
 * @return count, or -1 with errno EBADF, EFAULT, EMSGSIZE (above 1440 bytes) or
 *         EPROTO (short send).
 */
KALO_API int write_protocol(int handle, const void *bytes, int count);
/**
 * @brief Closes the transport and frees the session's buffers.
 * @param[in] handle The session.
 * @retval 0 Closed.
 * @retval -1 errno EBADF: no such session.
 */
KALO_API int close_protocol(int handle);
/**
 * @brief The system's select(), passed through.
 * @param[in] nfds Highest descriptor plus one.
 * @param[in,out] readfds Descriptors watched for reading.
 * @param[in,out] writefds Descriptors watched for writing.
 * @param[in,out] exceptfds Descriptors watched for exceptions.
 * @param[in,out] timeout The longest wait, or NULL.
 * @return As select().
 */
KALO_API int select_protocol(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                             struct timeval *timeout);
/**
 * @brief Kept as an entry point; prints nothing.
 */
KALO_API void print_trame(void);

/* ---- UDP transport -------------------------------------------------------- */

/**
 * @brief Opens a UDP session to a controller.
 * @param[in] host The controller's name or dotted address.
 * @param[in] local_port The local port to bind, or 0 for the first free one of
 *        3131..3140.
 * @param[in] remote_port The controller's port, or 0 for 5000.
 * @return The session handle, or -1 (no socket, port taken, host not resolved);
 *         nothing stays open on failure.
 */
KALO_API int open_protocol_udp(const char *host, int local_port, int remote_port);
/**
 * @brief Receives one datagram on the socket (recvfrom()).
 *
 * The sender is not compared with the controller here: read_protocol() does
 * that for its sessions.
 * @param[in] descriptor The socket.
 * @param[out] bytes Receives the datagram.
 * @param[in] capacity The room in bytes.
 * @param[out] peer The sender's address.
 * @return The bytes received, or -1 with errno (EAGAIN when the receive
 *         time-out passed).
 */
KALO_API int read_udp(int descriptor, void *bytes, int capacity, struct sockaddr_in *peer);
/**
 * @brief Sends one datagram to the controller (sendto()).
 * @param[in] descriptor The socket.
 * @param[in] bytes The datagram.
 * @param[in] count Its size in bytes.
 * @param[out] peer The controller's address.
 * @return count, 0, or -1 (an error, or a short send).
 */
KALO_API int write_udp(int descriptor, const void *bytes, int count, struct sockaddr_in *peer);
/**
 * @brief Closes the socket and frees the controller's address.
 * @param[in] descriptor The socket.
 * @param[in] peer The controller's address, released.
 * @param[in] table Not used.
 * @return 0, or -1 when the close fails.
 */
KALO_API int close_udp(int descriptor, struct sockaddr_in *peer, void *table);

/* ---- Connection core ------------------------------------------------------ */

/**
 * @brief Monotonic clock (CLOCK_MONOTONIC) in microseconds, unaffected by
 *        changes of the wall clock.
 * @param[in] context Not used.
 * @return Microseconds since an arbitrary origin.
 */
KALO_API uint64_t getTime(KaloContext *context);
/**
 * @brief Entry of the exchange thread "SYNC" that kaloOpen() starts: receives
 *        each state frame, decodes it, wakes the waits it concerns, and answers
 *        with the command fields that changed since the last frame.
 * @param[in,out] context The connection.
 * @return 0 (as a pointer) when kaloClose() asked it to stop, -1 when the first
 *         frame could not be sent.
 */
KALO_API void *_backendThread(void *context);
/**
 * @brief Entry of an optional watchdog thread: marks the connection lost when
 *        no state frame came for one watchdog period (kaloSetTimeoutValue()),
 *        unless the control connection is disabled. The library does not start
 *        it.
 * @param[in,out] context The connection.
 * @return NULL.
 */
KALO_API void *_watchdogCtlThread(void *context);
/**
 * @brief Entry of the periodic loop thread "LOOP" that kaloStartLoop() starts.
 * @param[in,out] context The connection.
 * @return NULL.
 */
KALO_API void *_kaloLoop(void *context);
/**
 * @brief Version handshake: asks the controller's version, keeps it for the
 *        version gates and, for controllers of major version 3 or more, sends
 *        the library's.
 * @param[in,out] context The connection.
 * @retval 0 Sent.
 * @retval -1 The handle is not live (#KALO_ERROR_INVALID_CONTEXT in
 *         #kaloGlobalError), the query failed, or the controller's major
 *         version is below 3.
 */
KALO_API int32_t sendAPIVersion(KaloContext *context);
/**
 * @brief Asks the controller for its maximum linear (m/s) and angular (rad/s)
 *        speeds and keeps them for the energy guard (waits up to 2 s).
 * @param[in,out] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_TIMEOUT, #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t getMaxSpeed(KaloContext *context);
/**
 * @brief Sends the smoothed speed factor.
 * @param[in,out] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t SendSpeedFactor(KaloContext *context);
/**
 * @brief Sends the servo's coupling gains to the controller and takes back what
 *        it acknowledges (kaloGetForce() calls it once an attached object is
 *        reached).
 * @param[in,out] context The connection.
 * @retval 0 Success.
 * @retval -1 A request failed (#KALO_ERROR_TIMEOUT), the gain buffers do not
 *         exist, or the handle is not live (#KALO_ERROR_INVALID_CONTEXT in
 *         #kaloGlobalError).
 */
KALO_API int32_t kaloModifGains(KaloContext *context);
/**
 * @brief Button edge check run by the exchange thread when a state frame
 *        carries the buttons: wakes kaloWaitPressButton() on a press of the
 *        button it waits for.
 * @param[in,out] context The connection.
 * @retval 0 Checked.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t CheckPressButton(KaloContext *context);

/* ---- Local servo ---------------------------------------------------------
 * Per-control-point coupling of the device to the application's virtual
 * object. point is a control-point index below the context's servo point
 * count (not checked). Poses are 7 floats (tx ty tz qx qy qz qw), speeds
 * [vx vy vz wx wy wz], forces [fx fy fz mx my mz]. */

/**
 * @brief Creates the servo records of every servo point.
 * @param[in,out] context The connection.
 * @return 0.
 */
KALO_API int32_t init_asserv(KaloContext *context);
/**
 * @brief Starts the speed-factor smoothing filter at rest on the requested
 *        factor.
 * @param[in,out] context The connection.
 * @return 0.
 */
KALO_API int32_t init_filtres(KaloContext *context);
/**
 * @brief Coupling gains of a point from the object's mass, its inertia's
 *        diagonal and the time step; printed on the output stream when bit 0 of
 *        the debug flags is set.
 * @param[in,out] context The connection.
 * @param[in] inertia The 3 x 3 inertia (kg.m^2), row by row; elements 0, 4 and
 *        8 are used.
 * @param[in] point The control point, below the servo point count (not
 *        checked).
 * @param[in] mass The mass in kilograms.
 * @return 0.
 */
KALO_API int32_t calcul_gains(KaloContext *context, const float *inertia, int32_t point,
                              float mass);
/**
 * @brief Copies a point's stiffness and damping diagonals out, translation
 *        first.
 * @param[out] context The connection.
 * @param[out] k Receives 6 stiffnesses: N/m, then N.m/rad.
 * @param[out] b Receives 6 dampings: N.s/m, then N.m.s/rad.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t lecture_gains(KaloContext *context, float *k, float *b, int32_t point);
/**
 * @brief Copies a point's stiffness and damping diagonals in, translation
 *        first.
 * @param[in,out] context The connection.
 * @param[in] k 6 stiffnesses: N/m, then N.m/rad.
 * @param[in] b 6 dampings: N.s/m, then N.m.s/rad.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t ecriture_gains(KaloContext *context, const float *k, const float *b,
                                int32_t point);
/**
 * @brief Releases everything init_asserv() created.
 * @param[in,out] context The connection.
 * @return 0.
 */
KALO_API int32_t close_asserv(KaloContext *context);

/**
 * @brief Whether a pose's quaternion has unit norm within FLT_EPSILON; the
 *        translation is not checked.
 * @param[in] pose x, y, z (m), then qx, qy, qz, qw.
 * @retval 1 Valid.
 * @retval 0 Not a unit quaternion.
 */
KALO_API int32_t test_deplacement_valide(const float *pose);
/**
 * @brief Takes the device pose of a point into the servo (normalised), with its
 *        inverse.
 * @param[in,out] context The connection.
 * @param[in] pose x, y, z (m), then qx, qy, qz, qw, in the observation frame.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t lecture_position(KaloContext *context, const float *pose, int32_t point);
/**
 * @brief Takes the object pose of a point into the servo (normalised), with its
 *        inverse and adjoints.
 * @param[in,out] context The connection.
 * @param[in] pose x, y, z (m), then qx, qy, qz, qw, in the observation frame.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t ecriture_position(KaloContext *context, const float *pose, int32_t point);
/**
 * @brief Converts the device speed the controller gives into the speed handed
 *        to the application (projected on the observation frame's axes).
 * @param[in,out] context The connection.
 * @param[in] in vx, vy, vz (m/s), then wx, wy, wz (rad/s), as the controller
 *        gives them.
 * @param[out] out Receives the converted speed, same layout.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t lecture_vitesse(KaloContext *context, const float *in, float *out, int32_t point);
/**
 * @brief Converts the object speed from the application into the servo's.
 * @param[in,out] context The connection.
 * @param[in] in vx, vy, vz (m/s), then wx, wy, wz (rad/s), projected on the
 *        observation frame's axes.
 * @param[out] out Receives the converted speed, same layout.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t ecriture_vitesse(KaloContext *context, const float *in, float *out, int32_t point);
/**
 * @brief Converts an application wrench (at the control point, observation
 *        frame's axes) for the device, with the pose of the last state frame.
 * @param[in,out] context The connection.
 * @param[in] in fx, fy, fz (N), then mx, my, mz (N.m).
 * @param[out] out Receives the converted wrench, same layout.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t ecriture_force(KaloContext *context, const float *in, float *out, int32_t point);
/**
 * @brief Converts a texture wrench (at the object's origin, observation frame's
 *        axes) for the device.
 * @param[in,out] context The connection.
 * @param[in] in fx, fy, fz (N), then mx, my, mz (N.m).
 * @param[out] out Receives the converted wrench, same layout.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t ecriture_texture_force(KaloContext *context, const float *in, float *out,
                                        int32_t point);
/**
 * @brief Whether a point's object and device poses agree: within 0.002 m in
 *        translation and 0.02 in rotation (the norm of QUAT_delta()).
 * @param[in,out] context The connection.
 * @param[in] point The control point (not checked).
 * @retval 0 They agree.
 * @retval -1 They do not.
 */
KALO_API int32_t erreur_position(KaloContext *context, int32_t point);
/**
 * @brief The coupling law of one point: the spring and damper wrench between
 *        device and object, kept in the point's set-point wrench for
 *        copie_force().
 * @param[in,out] context The connection.
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t calcul_asserv(KaloContext *context, int32_t point);
/**
 * @brief Copies a point's last coupling wrench out.
 * @param[out] context The connection.
 * @param[out] out Receives fx, fy, fz (N), then mx, my, mz (N.m).
 * @param[in] point The control point (not checked).
 * @return 0.
 */
KALO_API int32_t copie_force(KaloContext *context, float *out, int32_t point);

/**
 * @brief Kinetic-energy thresholds of point 0 from the object's mass and
 *        inertia and the maximum speeds.
 * @param[in,out] context The connection.
 * @return 0.
 */
KALO_API int32_t init_control_energie_cinetique(KaloContext *context);
/**
 * @brief Makes both energy guards of point 0 restart their estimation (when the
 *        controller says its own guard is off).
 * @param[in,out] context The connection.
 */
KALO_API void deactive_control_ener_cine(KaloContext *context);
/**
 * @brief Energy guard of a commanded pose.
 * @param[in,out] context The connection.
 * @param[in] pose x, y, z (m), then qx, qy, qz, qw.
 * @param[in] point The control point (not checked).
 * @retval 0 Accepted.
 * @retval -1 Refused: the motion would give the object too much kinetic energy
 *         (a message goes to the output stream).
 */
KALO_API int32_t control_ener_cine_position(KaloContext *context, const float *pose, int32_t point);
/**
 * @brief Energy guard of a commanded speed.
 * @param[in,out] context The connection.
 * @param[in] speed vx, vy, vz (m/s), then wx, wy, wz (rad/s).
 * @param[in] point The control point (not checked).
 * @retval 0 Accepted.
 * @retval -1 Refused: the speed would give the object too much kinetic energy
 *         (a message goes to the output stream).
 */
KALO_API int32_t control_ener_cine_vitesse(KaloContext *context, const float *speed, int32_t point);
/** @} */

KALO_END_DECLS

#endif
