/* Calls exported for the library's own use and for tools that speak the
 * controller protocol: the frame codec, protocol sessions and the UDP
 * transport. Applications normally use kalo.h instead. */
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

/* One record type for both directions; its layout is internal to the library. */
typedef struct ExchangeRecord ExchangeRecord;

/* mode 1 encodes every marked field of the record into buffer (at most size
 * bytes) in descending identifier order; mode 0 decodes size bytes of buffer
 * into the record and marks the fields it carried. Returns the bytes produced
 * or consumed, or 0xFFFFFFFF on a bad identifier, a malformed value or (when
 * encoding) a frame that does not fit. */
KALO_API uint32_t encode_decode(int mode, ExchangeRecord *record, unsigned char *buffer,
                                uint32_t size);

/* ---- Protocol sessions ---------------------------------------------------- */

/* Transport entry points stored in a session. */
typedef int (*kalo_read_fn)(int descriptor, void *bytes, int capacity, struct sockaddr_in *peer);
typedef int (*kalo_write_fn)(int descriptor, const void *bytes, int count,
                             struct sockaddr_in *peer);
typedef int (*kalo_close_fn)(int descriptor, struct sockaddr_in *peer, void *table);

/* Registers a transport descriptor as a session (the descriptor is the handle).
 * -1 with EMFILE for a negative descriptor or one of 64 or more. */
KALO_API int open_protocol(uint32_t type, int descriptor, kalo_read_fn read_fn,
                           kalo_write_fn write_fn, kalo_close_fn close_fn,
                           struct sockaddr_in *peer);
/* Receives one datagram, checks its envelope and copies its payload (at most
 * capacity bytes). Returns the payload length the envelope declares (the
 * datagram size minus 6 for a well-formed datagram; bytes beyond the declared
 * length are never handed on), or -1: EBADF, EFAULT, EPROTO for a wrong length
 * or checksum, EACCES for a datagram of a UDP session that came from another
 * address than the controller's or, once a first frame has been accepted,
 * from another port than that frame's (it is dropped unread). */
KALO_API int read_protocol(int handle, void *bytes, int capacity);
/* Wraps count bytes in the envelope and sends them; returns count or -1
 * (EBADF, EFAULT, EMSGSIZE above 1440 bytes, EPROTO on a short send). */
KALO_API int write_protocol(int handle, const void *bytes, int count);
/* Closes the transport and frees the session's buffers; -1 with EBADF. */
KALO_API int close_protocol(int handle);
/* The system's select, passed through. */
KALO_API int select_protocol(int nfds, fd_set *readfds, fd_set *writefds, fd_set *exceptfds,
                             struct timeval *timeout);
/* Kept as an entry point; prints nothing. */
KALO_API void print_trame(void);

/* ---- UDP transport -------------------------------------------------------- */

/* Opens a UDP session to host (name or dotted address) on remote_port (5000
 * when 0), bound to local_port or, when 0, to the first free port of 3131..3140.
 * Returns the session handle or -1. */
KALO_API int open_protocol_udp(const char *host, int local_port, int remote_port);
/* One recvfrom; the sender is not compared with the peer here (read_protocol
 * does that for its sessions). */
KALO_API int read_udp(int descriptor, void *bytes, int capacity, struct sockaddr_in *peer);
/* One sendto to the peer; returns count, 0 or -1. */
KALO_API int write_udp(int descriptor, const void *bytes, int count, struct sockaddr_in *peer);
/* Closes the socket and frees the peer address. */
KALO_API int close_udp(int descriptor, struct sockaddr_in *peer, void *table);

/* ---- Connection core ------------------------------------------------------ */

/* Monotonic clock in microseconds (the argument is not used). */
KALO_API uint64_t getTime(KaloContext *context);
/* Entry of the exchange thread "SYNC" started by kaloOpen: receives state
 * frames and answers with the command fields that changed. */
KALO_API void *_backendThread(void *context);
/* Entry of an optional watchdog thread: clears the connection flag when no
 * state frame arrived for one watchdog period. The library does not start it. */
KALO_API void *_watchdogCtlThread(void *context);
/* Entry of the periodic loop thread "LOOP" started by kaloStartLoop. */
KALO_API void *_kaloLoop(void *context);
/* Version handshake: asks the controller's version and, for controllers of
 * major version 3 or more, sends ours (item 78). 0, or -1. */
KALO_API int32_t sendAPIVersion(KaloContext *context);
/* Asks the controller for its maximum linear and angular speeds (item 56). */
KALO_API int32_t getMaxSpeed(KaloContext *context);
/* Sends the smoothed speed factor (item 4). */
KALO_API int32_t SendSpeedFactor(KaloContext *context);
/* Sends the servo's coupling gains to the controller and takes back what it
 * acknowledges (used by kaloGetForce once an attached object is reached). */
KALO_API int32_t kaloModifGains(KaloContext *context);
/* Button edge check run by the exchange thread when the buttons field arrives. */
KALO_API int32_t CheckPressButton(KaloContext *context);

/* ---- Local servo ---------------------------------------------------------
 * Per-control-point coupling of the device to the application's virtual
 * object. point is a control-point index below the context's servo point
 * count (not checked). Poses are 7 floats (tx ty tz qx qy qz qw), speeds
 * [vx vy vz wx wy wz], forces [fx fy fz mx my mz]. */

/* Creates the servo records of every servo point. Returns 0. */
KALO_API int32_t init_asserv(KaloContext *context);
/* Starts the speed-factor smoothing filter at rest on the requested factor. Returns 0. */
KALO_API int32_t init_filtres(KaloContext *context);
/* Coupling gains of a point from the object's mass and inertia (9 floats,
 * row-major) and the time step; printed when bit 0 of debug_flags is set. Returns 0. */
KALO_API int32_t calcul_gains(KaloContext *context, const float *inertia, int32_t point, float mass);
/* Copies the stiffness and damping diagonals out, translation first. Returns 0. */
KALO_API int32_t lecture_gains(KaloContext *context, float *k, float *b, int32_t point);
/* Copies the diagonals in, translation first. Returns 0. */
KALO_API int32_t ecriture_gains(KaloContext *context, const float *k, const float *b, int32_t point);
/* Releases everything init_asserv created. Returns 0. */
KALO_API int32_t close_asserv(KaloContext *context);

/* 1 when the pose's quaternion has unit norm within FLT_EPSILON, else 0. */
KALO_API int32_t test_deplacement_valide(const float *pose);
/* Device pose in (normalised), with its inverse. Returns 0. */
KALO_API int32_t lecture_position(KaloContext *context, const float *pose, int32_t point);
/* Object pose in (normalised), with its inverse and adjoints. Returns 0. */
KALO_API int32_t ecriture_position(KaloContext *context, const float *pose, int32_t point);
/* Device speed as the controller gives it, converted for the application. Returns 0. */
KALO_API int32_t lecture_vitesse(KaloContext *context, const float *in, float *out, int32_t point);
/* Object speed from the application, converted for the servo. Returns 0. */
KALO_API int32_t ecriture_vitesse(KaloContext *context, const float *in, float *out, int32_t point);
/* Application force converted for the device. Returns 0. */
KALO_API int32_t ecriture_force(KaloContext *context, const float *in, float *out, int32_t point);
/* Texture force converted for the device. Returns 0. */
KALO_API int32_t ecriture_texture_force(KaloContext *context, const float *in, float *out,
                                        int32_t point);
/* 0 when object and device poses agree (0.002 in translation, 0.02 in rotation), else -1. */
KALO_API int32_t erreur_position(KaloContext *context, int32_t point);
/* The spring-damper coupling law; the wrench goes to the point's W_consigne. Returns 0. */
KALO_API int32_t calcul_asserv(KaloContext *context, int32_t point);
/* Copies the last coupling wrench out. Returns 0. */
KALO_API int32_t copie_force(KaloContext *context, float *out, int32_t point);

/* Kinetic-energy thresholds of point 0 from the object and the maximum speeds. Returns 0. */
KALO_API int32_t init_control_energie_cinetique(KaloContext *context);
/* Makes both energy guards of point 0 restart their estimation. */
KALO_API void deactive_control_ener_cine(KaloContext *context);
/* Energy guard of a commanded pose: 0 accept, -1 refuse. */
KALO_API int32_t control_ener_cine_position(KaloContext *context, const float *pose, int32_t point);
/* Energy guard of a commanded speed: 0 accept, -1 refuse. */
KALO_API int32_t control_ener_cine_vitesse(KaloContext *context, const float *speed, int32_t point);

KALO_END_DECLS

#endif
