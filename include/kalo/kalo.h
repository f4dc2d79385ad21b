/**
 * @file kalo.h
 * @brief The device interface: open a connection to the arm's controller,
 *        drive the arm, read its state, close the connection.
 *
 * An application opens a connection with kaloOpen(), chooses how it drives
 * the arm with kaloSetCommandType(), streams set-points and reads the state
 * through the `kalo*` calls, and closes the connection with kaloClose().
 * Behind the calls one exchange thread per connection talks to the
 * controller: a call never sends anything itself, it writes the command
 * record and marks the field, and the exchange thread sends every marked
 * field in its answer to the controller's next state frame.
 *
 * @par Results and error codes
 * Calls return 0 on success and -1 on failure. The code of a failure is kept
 * in the context (read and cleared by kaloGetErrorCode()) or, when no valid
 * context is at hand, in #kaloGlobalError. Every call that takes a context
 * first checks the handle and the link:
 * - a NULL handle, or one that was closed or never opened, gives -1 with
 *   #KALO_ERROR_INVALID_CONTEXT in #kaloGlobalError (the stale handle is
 *   recognised without reading freed memory);
 * - a connection that is no longer usable (a send failed, or the watchdog saw
 *   the controller fall silent) gives -1 with #KALO_ERROR_COMMUNICATION.
 * .
 * A NULL pointer where the call must read or write values gives -1 with
 * #KALO_ERROR_INCORRECT_VALUE. Deliberate exceptions, which applications rely
 * on: calls gated on the controller's version return the bare value
 * #KALO_ERROR_INCOMPATIBLE_VERSION (20) on a controller at or below their
 * threshold, before the handle is looked at and without recording anything;
 * kaloAddForce() returns the bare #KALO_ERROR_NOT_IMPLEMENTED (7) on
 * controllers of version 3.0 or below; kaloSetTexture() returns the bare
 * #KALO_ERROR_INCORRECT_VALUE (9) for an intensity outside [0, 1].
 *
 * @par Non-numbers never reach the arm
 * The five Cartesian set-point calls (kaloSetPosition(), kaloSetSpeed(),
 * kaloSetForce(), kaloAddForce(), kaloSetTextureForce()) treat a NaN or an
 * infinity as a runaway application: they close the connection, return -1
 * and report #KALO_ERROR_INCORRECT_VALUE in #kaloGlobalError; the handle is
 * dead afterwards. Every other call that sends floats refuses a NaN or an
 * infinity with -1 and #KALO_ERROR_INCORRECT_VALUE, sends nothing and leaves
 * the connection open. Masses, inertias, periods, the time step and the
 * time-out must be finite and positive.
 *
 * @par Units, layouts and frames
 * Lengths are in metres, angles in radians, times in seconds, forces in
 * newtons and moments in newton-metres.
 * - A pose is 7 floats: the translation x, y, z, then the unit quaternion
 *   qx, qy, qz, qw (scalar last).
 * - A speed (twist) is 6 floats: the linear velocity vx, vy, vz (m/s), then
 *   the angular velocity wx, wy, wz (rad/s).
 * - A force (wrench) is 6 floats: the force fx, fy, fz (N), then the moment
 *   mx, my, mz (N.m).
 * .
 * Cartesian arrays hold one such entry per control point, one after the
 * other; the count is the controller's (kaloGetRobotNumberOfControlPoints()),
 * 1 for a single-arm device. Poses, speeds and forces that the application
 * exchanges through kaloSetPosition(), kaloGetPosition(), kaloSetSpeed(),
 * kaloGetSpeed(), kaloSetForce() and kaloGetForce() are expressed in the
 * observation frame (kaloSetObservationFrame(); the arm's base frame until one
 * is set): poses relative to it, speeds and forces projected on its axes.
 *
 * @par Threads
 * Every call may be made from any thread. The calls that wait (the queries,
 * kaloWaitPressButton(), kaloVmGetTrajSamples(), kaloVmWaitUpperBound()) do
 * not hold the context while they wait; kaloClose() wakes every thread
 * blocked in such a wait, which then returns -1 with
 * #KALO_ERROR_COMMUNICATION in #kaloGlobalError (the context being released).
 */
/**
 * @mainpage kalo: client library of a force-feedback arm's controller
 *
 * New here? The @ref guide walks from the quick start to a physics engine on
 * the arm, a machine set up for 1 kHz and reading the link.
 *
 * An application opens a connection with kaloOpen(), chooses a command type,
 * streams set-points and reads the arm's state through the calls of kalo.h,
 * then closes the connection with kaloClose(). Start with the conventions of
 * kalo.h (results, error codes, units, frames), then the groups of calls:
 * - @ref kalo_connection, @ref kalo_loop, @ref kalo_errors;
 * - @ref kalo_commands, @ref kalo_parameters, @ref kalo_readout;
 * - @ref kalo_vo, @ref kalo_vm, @ref kalo_joint.
 * .
 * The library also exports the mathematics it rests on (kalo_math.h and the
 * headers it includes), signal filters (kalo_signal.h), real-time primitives
 * (kalo_realtime.h) and 6D springs and dampers (kalo_spring.h);
 * kalo_internal.h holds the calls exported for its own modules and tools.
 */
#ifndef KALO_H
#define KALO_H

#include <stdint.h>

#include "kalo_export.h"

KALO_BEGIN_DECLS

/**
 * @defgroup kalo_connection Connection
 * @brief Opening and closing a connection, versions and identity.
 * @{
 */

/**
 * @brief Opaque handle of one connection to a controller.
 *
 * Created by kaloOpen(), released by kaloClose(); every device call takes it
 * first. Its contents are private to the library.
 */
typedef struct KaloContext KaloContext;

/** @} */

/**
 * @defgroup kalo_errors Errors
 * @brief Error codes, their messages, and how a call reports them.
 *
 * The codes are fixed: applications compare against the numbers.
 * kaloGetErrorMessage() gives each code's text.
 * @{
 */

/** No error. */
#define KALO_NO_ERROR 0
/** "Out of memory": the context or a thread could not be created. */
#define KALO_ERROR_OUT_OF_MEMORY 1
/** "Communication failure": no socket, no frame from the controller, a failed
 *  send, a lost connection, or a wait ended by kaloClose(). */
#define KALO_ERROR_COMMUNICATION 2
/** "Invalid context": NULL, closed or never-opened handle (reported in
 *  #kaloGlobalError). */
#define KALO_ERROR_INVALID_CONTEXT 3
/** "Config file not found": kaloSetOutputFile() could not open its file. */
#define KALO_ERROR_CONFIG_FILE_NOT_FOUND 4
/** "Incorrect config file": not reported by this library. */
#define KALO_ERROR_INCORRECT_CONFIG_FILE 5
/** "Command timed out": the controller did not answer a query. */
#define KALO_ERROR_TIMEOUT 6
/** "Function not implemented": returned bare by kaloAddForce() on old
 *  controllers. */
#define KALO_ERROR_NOT_IMPLEMENTED 7
/** "Variable not available": not reported by this library. */
#define KALO_ERROR_VARIABLE_NOT_AVAILABLE 8
/** "Incorrect value": an argument out of range, not finite, or NULL. */
#define KALO_ERROR_INCORRECT_VALUE 9
/** "URL syntax error": kaloOpen() could not parse the URL. */
#define KALO_ERROR_URL_SYNTAX 10
/** "Hardware error": a drive of the arm has failed (kaloGetError()). */
#define KALO_ERROR_HARDWARE 11
/** "Position discontinuity detected": the kinetic-energy guard refused a
 *  speed set-point and switched the power off (kaloSetSpeed()). */
#define KALO_ERROR_POSITION_DISCONTINUITY 12
/** "Periodic function not defined": kaloStartLoop() before
 *  kaloSetPeriodicFunction(). */
#define KALO_ERROR_NO_PERIODIC_FUNCTION 14
/** "No performance counter available": not reported by this library. */
#define KALO_ERROR_NO_PERFORMANCE_COUNTER 15
/** "Wrong DLL version number": not reported by this library. */
#define KALO_ERROR_WRONG_DLL_VERSION 16
/** "Function called in wrong command mode": the active command type does not
 *  allow the call. */
#define KALO_ERROR_WRONG_COMMAND_MODE 17
/** "Control mode not supported by this device": kaloSetCommandType(1). */
#define KALO_ERROR_MODE_NOT_SUPPORTED 18
/** "Function called at wrong moment": a call whose precondition is not met
 *  yet (virtual mechanism not active, no command type set). */
#define KALO_ERROR_WRONG_MOMENT 19
/** "Incompatible version between API and controler": returned bare by
 *  version-gated calls on a controller that is too old. */
#define KALO_ERROR_INCOMPATIBLE_VERSION 20
/** "Incorrect virtual mechanism": the call needs another virtual-mechanism
 *  type. */
#define KALO_ERROR_INCORRECT_VM 21
/** kaloStartLoop() while the loop runs. It has no message:
 *  kaloGetErrorMessage() gives "Unknown error code". */
#define KALO_ERROR_LOOP_ALREADY_STARTED 22

/** @} */

/**
 * @defgroup kalo_commands Command types and Cartesian set-points
 * @brief How the arm is driven, and the pose, speed and force set-points.
 *
 * After kaloOpen() the command type is #KALO_COMMAND_TYPE_NONE and only
 * kaloAddForce() and the switches are accepted until kaloSetCommandType()
 * succeeds. Which set-point calls each command type allows:
 *
 * | call | refused (#KALO_ERROR_WRONG_COMMAND_MODE) in command types |
 * |---|---|
 * | kaloSetPosition() | 0 |
 * | kaloSetSpeed() | 0, 3 |
 * | kaloSetForce() | 0, 4, 5 |
 * | kaloSetTexture(), kaloSetTextureForce() | 0 |
 * | kaloAttachVO(), kaloAttachVOAvatar(), kaloAttachQSVO() | 0 |
 * | kaloGetForce() | 0, 3 |
 *
 * In the coupling types (4 and 5) the library runs a local servo: the
 * application simulates a virtual object, sends its pose and speed with
 * kaloSetPosition() and kaloSetSpeed(), and reads the coupling wrench to
 * apply to it with kaloGetForce(). Each speed set-point then passes a
 * kinetic-energy guard, and the power is switched on with the first accepted
 * set-point.
 * @{
 */

/** No command: the arm is not driven. The state after kaloOpen(). */
#define KALO_COMMAND_TYPE_NONE 0
/** Speed command with forces accepted: kaloSetForce() is allowed and
 *  kaloSetSpeedFactor() takes effect at once; kaloSetSpeed() is refused. */
#define KALO_COMMAND_TYPE_SPEED_FORCE 3
/** Coupling to a virtual object through the library's local servo. */
#define KALO_COMMAND_TYPE_COUPLING 4
/** Coupling, with the coupling gains also sent to the controller; the type
 *  the virtual-mechanism calls need. */
#define KALO_COMMAND_TYPE_COUPLING_GAINS 5
/** Force set-points. */
#define KALO_COMMAND_TYPE_FORCE 6
/** Force and position set-points. */
#define KALO_COMMAND_TYPE_FORCE_POSITION 7

/** @} */

/**
 * @addtogroup kalo_errors
 * @{
 */

/** @brief One entry of the error table: a code and its message. */
typedef struct KaloErrorEntry {
  int32_t code;        /**< The error code; 0 in unused entries. */
  const char *message; /**< Its message; NULL in unused entries. */
} KaloErrorEntry;

/**
 * @brief Last error of a call that had no valid context to store it in.
 *
 * Written by any call given a bad handle (#KALO_ERROR_INVALID_CONTEXT), by
 * kaloOpen() when it returns NULL (the reason), by the five Cartesian
 * set-point calls when a non-finite value closed the connection
 * (#KALO_ERROR_INCORRECT_VALUE), by kaloClose() when the link had failed and
 * by the waits it ended (#KALO_ERROR_COMMUNICATION), and by kaloGetError() on
 * a failed drive (#KALO_ERROR_HARDWARE). Never cleared by the library. A
 * plain global, written without synchronisation.
 */
KALO_API extern int32_t kaloGlobalError;
/**
 * @brief The error codes and their messages, 256 entries in no particular
 *        order; unused entries hold code 0 and a NULL message.
 *
 * Look codes up with kaloGetErrorMessage() rather than by position.
 */
KALO_API extern const KaloErrorEntry _kaloErrorTable[256];

/**
 * @brief Reads and clears the last error of a context.
 *
 * A successful call does not clear the code: it is the last failure's until
 * read. Reading does not take the context's lock.
 *
 * @param[in,out] context The connection, or NULL for #kaloGlobalError.
 * @return The context's last error code (#KALO_NO_ERROR for none), which is
 *         then reset to #KALO_NO_ERROR; for NULL, #kaloGlobalError, left
 *         unchanged; for a handle that is not a live context,
 *         #KALO_ERROR_INVALID_CONTEXT, with nothing touched.
 */
KALO_API int32_t kaloGetErrorCode(KaloContext *context);
/**
 * @brief The message of an error code.
 * @param[in] code An error code (KALO_NO_ERROR, KALO_ERROR_*).
 * @return Constant text, never NULL: "No error reported" for
 *         #KALO_NO_ERROR, "Unknown error code" for a code without a message
 *         (13, #KALO_ERROR_LOOP_ALREADY_STARTED, negative codes...).
 */
KALO_API const char *kaloGetErrorMessage(int32_t code);

/** @} */
/**
 * @addtogroup kalo_connection
 * @{
 */

/**
 * @brief Opens a connection to a controller.
 *
 * The URL is `[url:][udpxdr://]host[:local-port][#controller-port[+...]]`:
 * the scheme is added when the text names none, any other scheme is refused;
 * the host is a name or a dotted address; the local port defaults to the
 * first free one of 3131..3140, the controller port to 5000; what follows a
 * `+` is ignored. Ports are decimal digits in 1..65535.
 *
 * The call binds the socket, starts the exchange thread, waits for the
 * controller's first state frame (at most 1 s), then reads the control-point
 * and axis counts and the maximum speeds and exchanges versions with the
 * controller, going on at each reply: against a controller that answers, it
 * returns within a few milliseconds. Datagrams are accepted only from the
 * controller's address and, once the first state frame has come, only from
 * that frame's source port; others are dropped. After a silence of 0.5 s a
 * state frame from the controller's address re-locks the link to its source
 * port (a restarted controller may send from a new one): see
 * KALO_EXT_EVENT_LINK_RELOCKED in kalo_ext.h.
 *
 * @param[in] url The controller's URL, as above (e.g. "localhost",
 *                "udpxdr://10.0.0.2:4000#6000").
 * @return The new connection.
 * @retval NULL Failure, with #kaloGlobalError set to
 *         - #KALO_ERROR_URL_SYNTAX: the URL is NULL or does not parse, names
 *           another scheme, or has a port that is not made of digits or lies
 *           outside 1..65535;
 *         - #KALO_ERROR_COMMUNICATION: the socket could not be opened or
 *           bound, the host could not be resolved, or no state frame came
 *           within 1 s;
 *         - #KALO_ERROR_OUT_OF_MEMORY: the context or the exchange thread
 *           could not be created.
 */
KALO_API KaloContext *kaloOpen(const char *url);
/**
 * @brief Closes a connection and releases everything it holds.
 *
 * Stops the periodic loop (the function's calls are answered until its
 * current call ends), detaches the virtual objects, sends the closing request
 * to the controller with the answer to its next state frame, ends the threads
 * and frees the context; against a controller that streams, it returns within
 * a few milliseconds. Every wait has a limit: a periodic function still in its
 * call after 0.4 s (a host's shutdown may have stopped its thread) does not
 * hold the close up; its later calls get #KALO_ERROR_INVALID_CONTEXT and the
 * context is freed when it returns. Every thread blocked in a library wait on
 * this connection is woken and its call returns -1 with
 * #KALO_ERROR_COMMUNICATION in #kaloGlobalError. The handle
 * is invalid afterwards: any later call with it reports
 * #KALO_ERROR_INVALID_CONTEXT. May be called from the periodic function.
 *
 * @param[in] context The connection to close.
 * @retval 0 Closed.
 * @retval -1 Failure, with #kaloGlobalError set to
 *         - #KALO_ERROR_INVALID_CONTEXT: NULL, already closed or never
 *           opened;
 *         - #KALO_ERROR_COMMUNICATION: the connection had already failed;
 *           the context is released all the same.
 */
KALO_API int32_t kaloClose(KaloContext *context);
/**
 * @brief This library's interface version (4.4), the one sent to the
 *        controller at open. Needs no connection.
 * @param[out] major Receives 4 (ignored when NULL).
 * @param[out] minor Receives 4 (ignored when NULL).
 * @retval 0 Always.
 */
KALO_API int32_t kaloAPIVersion(int32_t *major, int32_t *minor);
/**
 * @brief Asks the controller for its version and waits up to 2 s for the
 *        answer.
 * @param[in] context The connection.
 * @param[out] major Receives the major version (ignored when NULL).
 * @param[out] minor Receives the minor version (ignored when NULL); the
 *                   library gates calls on major + minor / 100.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError),
 *         #KALO_ERROR_COMMUNICATION, or #KALO_ERROR_TIMEOUT when the
 *         controller did not answer.
 */
KALO_API int32_t kaloGetControlerVersion(KaloContext *context, int32_t *major, int32_t *minor);
/**
 * @brief Asks the controller for its device type and serial number (waits up
 *        to 2 s; controllers above version 5.4).
 * @param[in] context The connection.
 * @param[out] device_type Receives the device type (ignored when NULL).
 * @param[out] serial_number Receives the serial number (ignored when NULL).
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         5.4 or below; nothing is recorded.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError),
 *         #KALO_ERROR_COMMUNICATION, or #KALO_ERROR_TIMEOUT.
 */
KALO_API int32_t kaloGetDeviceID(KaloContext *context, int32_t *device_type,
                                 int32_t *serial_number);
/**
 * @brief Tells the controller whether it should keep running when our frames
 *        stop.
 *
 * The flag goes to the controller, then one stiffness query makes a round
 * trip (its result is not used). While the control connection is disabled,
 * a stalled stream does not end an application's watchdog either.
 *
 * @param[in] context The connection.
 * @param[in] disabled Non-zero to disable the control connection, 0 to
 *                     enable it again.
 * @retval 0 Success (also when the round trip times out).
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloDisableControlConnexion(KaloContext *context, int32_t disabled);
/**
 * @brief Takes the controller's control-point count (from the last state
 *        frame) as the count of every per-point array.
 *
 * kaloOpen() already does it; call it again only if the controller changes
 * its count.
 *
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetRobotNumberOfControlPoints(KaloContext *context);

/** @} */

/**
 * @defgroup kalo_loop Periodic loop
 * @brief A function of the application called in step with the controller's
 *        frames, on a real-time thread of the library.
 *
 * The exchange thread ticks the loop at the first state frame that comes
 * once a period has elapsed (200 us early, for jitter) since the frame that
 * ticked it last: if frames stop, the loop stops being called. The period is
 * measured in the controller's time, on the time stamps of the state frames
 * whenever they advance, so a frame that the network or the scheduler delays
 * does not cost the next, punctual frame its tick; arrival times are the
 * measure only for a controller that sends no time stamps. With a 1 ms
 * period, frames every 900 us tick every frame and frames every 500 us every
 * second frame; the first tick after a start waits a whole period. The time
 * that really passed between two calls is in kaloExtGetLoopTiming()
 * (kalo_ext.h). Each call is timed against the time step
 * (kaloSetTimeStep()): a call lasting 1 ms or more beyond it is an overrun,
 * reported in bit 17 of kaloGetAlarm() and, with bit 0 of the debug flags,
 * as "Overrun de N ms" on the output stream. Ticks are counted, so calls
 * that overran are followed by calls back to back.
 * @{
 */

/**
 * @brief The application's periodic function.
 *
 * Runs on the loop thread without the context's lock, so it may make any
 * call on the connection, including kaloStopLoop() and kaloClose().
 *
 * @param context The connection whose loop calls it.
 * @param user_data The pointer given to kaloSetPeriodicFunction().
 */
typedef void (*KaloPeriodicFunction)(KaloContext *context, void *user_data);

/**
 * @brief Registers the periodic function and its period.
 *
 * The period is rounded to the controller's unit, 1 ms (or 1/1024 s for
 * controllers of version 5.0 or below), to the nearest whole unit, an exact
 * half rounding down; the period actually used is written back. A running
 * loop calls the new function from its next tick.
 *
 * @param[in] context The connection.
 * @param[in] function The function to call; NULL leaves the loop without one.
 * @param[in,out] period In: the wanted period in seconds, finite and
 *                       positive. Out: the period used, in seconds.
 * @param[in] user_data Passed to every call of @p function.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p period NULL, not finite or not
 *         positive (nothing changed); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetPeriodicFunction(KaloContext *context, KaloPeriodicFunction function,
                                         float *period, void *user_data);
/**
 * @brief Starts the loop thread "LOOP". A stopped loop can be started again.
 * @param[in] context The connection.
 * @retval 0 Started.
 * @retval -1 #KALO_ERROR_NO_PERIODIC_FUNCTION: no function registered;
 *         #KALO_ERROR_LOOP_ALREADY_STARTED: the loop runs already, or a
 *         stopped loop's call has not ended within 1 s;
 *         #KALO_ERROR_OUT_OF_MEMORY: the thread could not be created;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloStartLoop(KaloContext *context);
/**
 * @brief Stops the loop.
 *
 * Once this returns the function is not called again; from another thread
 * the call waits for a call in progress to end, at most 1 s (a longer call
 * ends on its own, and kaloStartLoop() refuses with
 * #KALO_ERROR_LOOP_ALREADY_STARTED until it has). Called from the periodic
 * function itself, it returns at once and the function's current call is
 * its last.
 *
 * @param[in] context The connection.
 * @retval 0 Stopped (also when no loop ran).
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloStopLoop(KaloContext *context);

/** @} */

/**
 * @addtogroup kalo_commands
 * @{
 */

/**
 * @brief Chooses how the arm is driven.
 *
 * Records the command type and sends it; the controller switches mode when
 * it receives it. Nothing is set up or torn down locally: the set-point calls
 * consult the active type.
 *
 * @param[in] context The connection.
 * @param[in] type One of the KALO_COMMAND_TYPE_* values: 0, 3, 4, 5, 6 or 7.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_MODE_NOT_SUPPORTED for type 1;
 *         #KALO_ERROR_INCORRECT_VALUE for type 2 or above 7 (the active type
 *         is unchanged); #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetCommandType(KaloContext *context, uint32_t type);
/**
 * @brief Asks the controller which command type it runs (waits up to 2 s).
 * @param[in] context The connection.
 * @param[out] type Receives the command type; 0 for a mode the library does
 *                  not know.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_TIMEOUT: no answer; #KALO_ERROR_INCORRECT_VALUE:
 *         @p type NULL; #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetCommandType(KaloContext *context, uint32_t *type);
/**
 * @brief Force set-points: the wrench the arm applies at each control point.
 *
 * Allowed in command types 3, 6 and 7. Each wrench is expressed in the
 * observation frame and applied at the control point; the library converts it
 * for the arm with the last pose the controller reported. The first force or
 * position set-point of a connection also opens the set-point stream.
 *
 * @param[in] context The connection.
 * @param[in] force 6 floats per control point: fx, fy, fz (N), then mx, my,
 *                  mz (N.m).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE in #kaloGlobalError: a value is NaN
 *         or infinite; the connection is closed and the handle dead (points
 *         before the bad one were written but not sent);
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type 0, 4 or 5;
 *         #KALO_ERROR_INCORRECT_VALUE: @p force NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetForce(KaloContext *context, const float *force);
/**
 * @brief A wrench added to whatever the controller applies, in every command
 *        type (controllers above version 3.0).
 *
 * The wrench goes to the controller as given, without the observation-frame
 * conversion of kaloSetForce().
 *
 * @param[in] context The connection.
 * @param[in] force fx, fy, fz (N), then mx, my, mz (N.m).
 * @retval 0 Success.
 * @retval 7 #KALO_ERROR_NOT_IMPLEMENTED, bare: controller of version 3.0 or
 *         below; nothing is recorded.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE in #kaloGlobalError: a value is NaN
 *         or infinite; the connection is closed and the handle dead;
 *         #KALO_ERROR_INCORRECT_VALUE: @p force NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloAddForce(KaloContext *context, const float force[6]);
/**
 * @brief Position set-points: the pose of each control point, or in the
 *        coupling types the pose of the virtual object coupled to it.
 *
 * Allowed in every command type but 0. Poses are relative to the observation
 * frame and go to the controller as given. The first force or position
 * set-point of a connection also opens the set-point stream, and a change of
 * the speed factor is sent with position set-points (kaloSetSpeedFactor()).
 *
 * In the coupling types the first accepted set-point also switches the power
 * on; after kaloAttachVO() or its variants the next call completes the
 * attach with the controller (three stiffness round trips, so that call takes
 * a few frames); after kaloDetachVO() the next call resets the object's
 * offset from the device.
 *
 * @param[in] context The connection.
 * @param[in] position 7 floats per control point: x, y, z (m), then the unit
 *                     quaternion qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE in #kaloGlobalError: a value is NaN
 *         or infinite; the connection is closed and the handle dead;
 *         #KALO_ERROR_INCORRECT_VALUE: a quaternion whose norm differs from 1
 *         by FLT_EPSILON or more, or @p position NULL; the connection stays
 *         open and the points before the bad one are written (not sent);
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type 0;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetPosition(KaloContext *context, const float *position);
/**
 * @brief Speed set-points: the twist of each control point, or in the
 *        coupling types the twist of the virtual object coupled to it.
 *
 * Allowed in every command type but 0 and 3. Each twist is the linear
 * velocity of the point's origin and its angular velocity, projected on the
 * observation frame's axes.
 *
 * In the coupling types each set-point passes the kinetic-energy guard: the
 * first accepted one switches the power on; a refused one switches it off
 * again and the call fails with #KALO_ERROR_POSITION_DISCONTINUITY; the power
 * then comes back with the first accepted set-point once the guard has stayed
 * quiet for 10 s worth of time steps (kaloSetTimeStep()). In the other
 * command types the speed is not stored: the speed field is sent again with
 * the values it held.
 *
 * @param[in] context The connection.
 * @param[in] speed 6 floats per control point: vx, vy, vz (m/s), then wx,
 *                  wy, wz (rad/s).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE in #kaloGlobalError: a value is NaN
 *         or infinite; the connection is closed and the handle dead;
 *         #KALO_ERROR_POSITION_DISCONTINUITY: the energy guard refused the
 *         set-point and the power was switched off;
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type 0 or 3;
 *         #KALO_ERROR_INCORRECT_VALUE: @p speed NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetSpeed(KaloContext *context, const float *speed);
/**
 * @brief The arm's pose at each control point, as the last state frame gave
 *        it, relative to the observation frame. Sends nothing.
 * @param[in] context The connection.
 * @param[out] position 7 floats per control point: x, y, z (m), then qx, qy,
 *                      qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p position NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetPosition(KaloContext *context, float *position);
/**
 * @brief The arm's speed at each control point, from the last state frame,
 *        projected on the observation frame's axes. Sends nothing.
 * @param[in] context The connection.
 * @param[out] speed 6 floats per control point: vx, vy, vz (m/s), then wx,
 *                   wy, wz (rad/s).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p speed NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetSpeed(KaloContext *context, float *speed);
/**
 * @brief The arm's measured pose as the controller reported it, without the
 *        library's conversions. Sends nothing.
 * @param[in] context The connection.
 * @param[out] position x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p position NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetPhysicalPosition(KaloContext *context, float position[7]);
/**
 * @brief The arm's measured speed as the controller reported it, without the
 *        library's conversions. Sends nothing.
 * @param[in] context The connection.
 * @param[out] speed vx, vy, vz (m/s), then wx, wy, wz (rad/s).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p speed NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetPhysicalSpeed(KaloContext *context, float speed[6]);
/**
 * @brief The avatar's pose as the controller reported it (see
 *        kaloAttachVOAvatar()). Sends nothing.
 * @param[in] context The connection.
 * @param[out] position x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p position NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetAvatarPosition(KaloContext *context, float position[7]);
/**
 * @brief Switches the arm's power on or off.
 * @param[in] context The connection.
 * @param[in] on 1 for on, 0 for off.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p on above 1;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetPowerOn(KaloContext *context, uint32_t on);
/**
 * @brief Switches the controller's speed control on with its two settings,
 *        whose meaning the controller defines.
 * @param[in] context The connection.
 * @param[in] a First setting, finite and at least 0.
 * @param[in] b Second setting, finite and at least 0.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: a setting below 0, NaN or infinite
 *         (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloActiveSpeedControl(KaloContext *context, float a, float b);
/**
 * @brief Switches the controller's speed control off.
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloDeactiveSpeedControl(KaloContext *context);
/**
 * @brief Switches the controller's rotation speed control on with its two
 *        settings (controllers above version 3.2).
 * @param[in] context The connection.
 * @param[in] a First setting, finite and at least 0.
 * @param[in] b Second setting, finite and at least 0.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.2 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: a setting below 0, NaN or infinite
 *         (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloActiveRotationSpeedControl(KaloContext *context, float a, float b);
/**
 * @brief Switches the controller's rotation speed control off (controllers
 *        above version 3.2).
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.2 or below.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloDeactiveRotationSpeedControl(KaloContext *context);
/**
 * @brief The force limit of speed control (controllers above version 3.55).
 * @param[in] context The connection.
 * @param[in] force The limit in newtons, finite.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p force NaN or infinite (nothing
 *         is sent); #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetForceInSpeedControl(KaloContext *context, float force);
/**
 * @brief The torque limit of speed control (controllers above version 3.55).
 * @param[in] context The connection.
 * @param[in] torque The limit in newton-metres, finite.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p torque NaN or infinite (nothing
 *         is sent); #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetTorqueInSpeedControl(KaloContext *context, float torque);
/**
 * @brief The speed-control states the controller reported in its last state
 *        frame (controllers above version 3.55). Sends nothing.
 * @param[in] context The connection.
 * @param[out] first Receives the speed-control state.
 * @param[out] second Receives the rotation speed-control state.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: an output NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloIsInSpeedControl(KaloContext *context, int32_t *first, int32_t *second);
/**
 * @brief Enables or disables force feedback on the arm.
 * @param[in] context The connection.
 * @param[in] enable Non-zero to enable, 0 to disable; sent as given.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloEnableForceFeedback(KaloContext *context, int32_t enable);
/**
 * @brief Forces the shift button's state (controllers of version 3.0 and
 *        above).
 * @param[in] context The connection.
 * @param[in] value The state to force; sent as given.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller below
 *         version 3.0.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloForceShiftButton(KaloContext *context, int32_t value);
/**
 * @brief Chooses the indexing mode, whose meaning the controller defines.
 * @param[in] context The connection.
 * @param[in] mode 0 to 7.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p mode above 7;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetIndexingMode(KaloContext *context, uint32_t mode);
/**
 * @brief The indexing mode last set with kaloSetIndexingMode() (0 after
 *        open); the controller is not asked.
 * @param[in] context The connection.
 * @param[out] mode Receives the mode.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p mode NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetIndexingMode(KaloContext *context, uint32_t *mode);

/** @} */

/**
 * @defgroup kalo_parameters Parameters
 * @brief Time step, speed and force factors, the controller's simulation
 *        stiffness and damping, the observation, base and catch frames, the
 *        watchdog time-out and the diagnostics output.
 *
 * The library keeps its own copy of what the application set (time step,
 * factors, frames, time-out), and the getters of those never ask the
 * controller; the stiffness and damping getters do.
 * @{
 */

/**
 * @brief The application's time step: the period at which it simulates its
 *        virtual object and calls the servo (0.1 s at open).
 *
 * It sets the coupling gains computed by kaloAttachVO(), the kinetic-energy
 * guard's counts and the time a periodic-function call may take before it
 * counts as an overrun. Nothing is sent.
 *
 * @param[in] context The connection.
 * @param[in] step The time step in seconds, finite and positive.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p step not positive or not finite
 *         (the old value stays); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetTimeStep(KaloContext *context, float step);
/**
 * @brief The application's time step.
 * @param[in] context The connection.
 * @param[out] step Receives the time step in seconds.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p step NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetTimeStep(KaloContext *context, float *step);
/**
 * @brief The age of the last state frame: the wall clock now minus the time
 *        stamp the controller put on that frame.
 *
 * Both are the low 32 bits of a wall-clock time in microseconds and the
 * difference wraps with them, so the age is right across the wrap as long as
 * the controller stamps its frames with a clock synchronised with this
 * machine's. A frame stamped later than the clock reading gives 0.
 *
 * @param[in] context The connection.
 * @param[out] age Receives the age in microseconds.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p age NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetTimeLastUpdate(KaloContext *context, uint32_t *age);
/**
 * @brief The speed factor: a dimensionless scale of the arm's speed (1 at
 *        open).
 *
 * In command type 3 the factor is sent at once. In the other command types
 * the library approaches it smoothly (a first-order filter of 0.5 Hz, stepped
 * with each state frame) and sends the smoothed value with the position
 * set-points (kaloSetPosition()), so the arm's speed changes gradually.
 *
 * @param[in] context The connection.
 * @param[in] factor The factor, finite and positive.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p factor not positive or not
 *         finite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetSpeedFactor(KaloContext *context, float factor);
/**
 * @brief The speed factor the smoothing approaches: the last one set outside
 *        command type 3 (not the smoothed value, and not one sent at once in
 *        command type 3).
 * @param[in] context The connection.
 * @param[out] factor Receives the factor.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p factor NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetSpeedFactor(KaloContext *context, float *factor);
/**
 * @brief The force factor: a dimensionless scale of the forces the arm
 *        applies (1 at open).
 * @param[in] context The connection.
 * @param[in] factor The factor, finite and positive.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p factor not positive or not
 *         finite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetForceFactor(KaloContext *context, float factor);
/**
 * @brief The force factor last accepted by kaloSetForceFactor().
 * @param[in] context The connection.
 * @param[out] factor Receives the factor.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p factor NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetForceFactor(KaloContext *context, float *factor);
/**
 * @brief The stiffness the controller applies in its simulation, first
 *        control point.
 * @param[in] context The connection.
 * @param[in] stiffness 6 finite values: the three linear stiffnesses (N/m),
 *                      then the three angular ones (N.m/rad).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p stiffness NULL, or a value NaN
 *         or infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetSimulationStiffness(KaloContext *context, const float stiffness[6]);
/**
 * @brief Asks the controller for its simulation stiffness (waits up to 2 s).
 * @param[in] context The connection.
 * @param[out] stiffness Receives the first control point's 6 values, linear
 *                       (N/m) then angular (N.m/rad).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_TIMEOUT: no answer; #KALO_ERROR_INCORRECT_VALUE:
 *         @p stiffness NULL; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetSimulationStiffness(KaloContext *context, float stiffness[6]);
/**
 * @brief The damping the controller applies in its simulation, first control
 *        point.
 * @param[in] context The connection.
 * @param[in] damping 6 finite values: the three linear dampings (N.s/m), then
 *                    the three angular ones (N.m.s/rad).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p damping NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetSimulationDamping(KaloContext *context, const float damping[6]);
/**
 * @brief Asks the controller for its simulation damping (waits up to 2 s).
 * @param[in] context The connection.
 * @param[out] damping Receives the first control point's 6 values, linear
 *                     (N.s/m) then angular (N.m.s/rad).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_TIMEOUT: no answer; #KALO_ERROR_INCORRECT_VALUE:
 *         @p damping NULL; #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError)
 *         or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetSimulationDamping(KaloContext *context, float damping[6]);
/**
 * @brief The observation frame: the frame in which the application expresses
 *        poses, speeds and forces, given as a pose relative to the arm's base
 *        frame (the identity at open).
 * @param[in] context The connection.
 * @param[in] frame x, y, z (m), then the unit quaternion qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p frame NULL, a value NaN or
 *         infinite, or a quaternion whose norm differs from 1 by FLT_EPSILON
 *         or more (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetObservationFrame(KaloContext *context, const float frame[7]);
/**
 * @brief The observation frame last accepted by kaloSetObservationFrame().
 * @param[in] context The connection.
 * @param[out] frame Receives x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p frame NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetObservationFrame(KaloContext *context, float frame[7]);
/**
 * @brief The speed of the observation frame, for an application whose frame
 *        moves (a vehicle, a moving base). There is no getter.
 * @param[in] context The connection.
 * @param[in] twist vx, vy, vz (m/s), then wx, wy, wz (rad/s), finite.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p twist NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetObservationFrameSpeed(KaloContext *context, const float twist[6]);
/**
 * @brief The arm's base frame, as a pose relative to the controller's
 *        reference frame (the identity at open).
 * @param[in] context The connection.
 * @param[in] frame x, y, z (m), then the unit quaternion qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p frame NULL, a value NaN or
 *         infinite, or a quaternion whose norm differs from 1 by FLT_EPSILON
 *         or more (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetBaseFrame(KaloContext *context, const float frame[7]);
/**
 * @brief The base frame last accepted by kaloSetBaseFrame().
 * @param[in] context The connection.
 * @param[out] frame Receives x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p frame NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetBaseFrame(KaloContext *context, float frame[7]);
/**
 * @brief The catch frames: where each control point holds its virtual
 *        object, as the object's pose relative to the control point.
 *
 * The first control point's catch frame is also the local servo's
 * device-to-object displacement (its quaternion normalised). The first pose
 * is checked before the handle.
 *
 * @param[in] context The connection.
 * @param[in] frame 7 floats per control point: x, y, z (m), then the unit
 *                  quaternion qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p frame NULL, a value NaN or
 *         infinite, or a first quaternion whose norm differs from 1 by
 *         FLT_EPSILON or more (nothing is sent);
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetCatchFrame(KaloContext *context, const float *frame);
/**
 * @brief The first control point's device-to-object displacement: the catch
 *        frame set last, or the one the servo found since (the coupling
 *        updates it at each kaloGetForce()).
 * @param[in] context The connection.
 * @param[out] frame Receives x, y, z (m), then qx, qy, qz, qw, relative to
 *                   the control point; left untouched when the controller
 *                   reports no control point.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p frame NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetCatchFrame(KaloContext *context, float frame[7]);
/**
 * @brief The connection watchdog's period (0.1 s at open): a watchdog that
 *        sees no state frame for one period marks the connection lost.
 * @param[in] context The connection.
 * @param[in] seconds The period in seconds, finite and positive.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p seconds not positive or not
 *         finite (the old value stays); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetTimeoutValue(KaloContext *context, float seconds);
/**
 * @brief The connection watchdog's period.
 * @param[in] context The connection.
 * @param[out] seconds Receives the period in seconds.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p seconds NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetTimeoutValue(KaloContext *context, float *seconds);
/**
 * @brief Debug flags (0 at open).
 * @param[in] context The connection.
 * @param[in] flags Bit 0: print the coupling gains computed at each attach
 *                  and the periodic loop's overruns on the output stream.
 *                  Other bits are kept but unused.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetDebugFlags(KaloContext *context, uint32_t flags);
/**
 * @brief Sends the diagnostics text (gain printouts, overruns, energy-guard
 *        messages, drive diagnostics) to a file instead of standard output.
 *
 * The file is created or truncated. A file that an earlier call opened is
 * closed; the last one is closed by kaloClose().
 *
 * @param[in] context The connection.
 * @param[in] path The file's path.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_CONFIG_FILE_NOT_FOUND: the file cannot be opened
 *         (or @p path is NULL); diagnostics then go to standard output;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetOutputFile(KaloContext *context, const char *path);

/** @} */

/**
 * @defgroup kalo_readout Device state readout and diagnostics
 * @brief What the controller reported in its last state frame: buttons,
 *        power, drive failures, alarm and bound bits, inputs, trackball,
 *        joints; the drive diagnostics; the wait for a button press; the
 *        pose to homogeneous matrix conversions.
 *
 * These calls send nothing: they return what the last state frame held.
 * @{
 */

/**
 * @brief Whether a button is held down.
 * @param[in] context The connection.
 * @param[in] button The button's number, 1 to 16 (15: dead-man, 16:
 *                   emergency stop).
 * @param[out] pressed Receives 1 while the button is down, else 0; 0 for a
 *                     number outside 1..16.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p pressed NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetButton(KaloContext *context, uint32_t button, uint32_t *pressed);
/**
 * @brief The emergency-stop button's state: kaloGetButton() for button 16.
 * @param[in] context The connection.
 * @param[out] value Receives 1 while the button is down, else 0; untouched
 *                   when the read fails.
 * @retval 0 Always: a failed read is reported only by its code
 *         (#KALO_ERROR_INVALID_CONTEXT in #kaloGlobalError,
 *         #KALO_ERROR_COMMUNICATION, or #KALO_ERROR_INCORRECT_VALUE for a
 *         NULL @p value).
 */
KALO_API int32_t kaloGetEmergencyStop(KaloContext *context, uint32_t *value);
/**
 * @brief The dead-man button's state: kaloGetButton() for button 15.
 * @param[in] context The connection.
 * @param[out] value Receives 1 while the button is down, else 0; untouched
 *                   when the read fails.
 * @retval 0 Always: a failed read is reported only by its code
 *         (#KALO_ERROR_INVALID_CONTEXT in #kaloGlobalError,
 *         #KALO_ERROR_COMMUNICATION, or #KALO_ERROR_INCORRECT_VALUE for a
 *         NULL @p value).
 */
KALO_API int32_t kaloGetDeadMan(KaloContext *context, uint32_t *value);
/**
 * @brief Blocks until a button is pressed.
 *
 * A press is a change from up to down seen between two state frames: a
 * button already held when the wait starts must be released and pressed
 * again. There is no time-out; kaloClose() on another thread ends the wait.
 *
 * @param[in] context The connection.
 * @param[in] button The button's number, 1 to 16.
 * @retval 0 The button was pressed.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE at once: a button the device does
 *         not have; #KALO_ERROR_COMMUNICATION in #kaloGlobalError: the
 *         connection was closed during the wait; #KALO_ERROR_INVALID_CONTEXT
 *         (in #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloWaitPressButton(KaloContext *context, uint32_t button);
/**
 * @brief Whether the arm's power is on (bit 16 of the status word).
 * @param[in] context The connection.
 * @param[out] on Receives 1 while the power is on, else 0.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p on NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetPowerOn(KaloContext *context, uint32_t *on);
/**
 * @brief The drive failure word.
 * @param[in] context The connection.
 * @param[out] word Receives the word: bit k set when drive k+1 has failed
 *                  (k = 0..7).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p word NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetFailure(KaloContext *context, uint32_t *word);
/**
 * @brief Whether a drive has failed, as an error.
 *
 * On a failure the lowest failed drive is named on the output stream
 * ("Panne du variateur N" between line feeds).
 *
 * @param[in] context The connection.
 * @param[out] failed Receives 1 when a drive has failed, else 0.
 * @retval 0 No drive has failed.
 * @retval -1 #KALO_ERROR_HARDWARE, in the context and in #kaloGlobalError: a
 *         drive has failed; #KALO_ERROR_INCORRECT_VALUE: @p failed NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetError(KaloContext *context, uint32_t *failed);
/**
 * @brief Prints the state of the eight drives ("Variateur N : OK" or "NOK",
 *        under a "Diagnostic materiel" banner) on the output stream. A failed
 *        drive is not an error here.
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloDisplayHardwareStatus(KaloContext *context);
/**
 * @brief The alarm bits of the status word.
 * @param[in] context The connection.
 * @param[out] alarm Receives bits 14 to 31 of the status word (the lower bits
 *                   cleared), with bit 17 also set when the last call of the
 *                   periodic function overran.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p alarm NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetAlarm(KaloContext *context, uint32_t *alarm);
/**
 * @brief The bound indicators of the status word.
 * @param[in] context The connection.
 * @param[out] bounds Receives bits 0 to 13 of the status word, one per bound
 *                    the controller watches.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p bounds NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloIsInBounds(KaloContext *context, uint32_t *bounds);
/**
 * @brief Whether the arm is in its shift position (bit 19 of the status
 *        word).
 * @param[in] context The connection.
 * @param[out] shift Receives 1 while the arm is in its shift position, else 0.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p shift NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloIsInShiftPosition(KaloContext *context, uint32_t *shift);
/**
 * @brief The trackball's position.
 * @param[in] context The connection.
 * @param[out] x Receives the first position member, as the controller counts
 *               it.
 * @param[out] y Receives the second position member.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: an output NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetTrackball(KaloContext *context, uint32_t *x, uint32_t *y);
/**
 * @brief The trackball's four button members.
 * @param[in] context The connection.
 * @param[out] a Receives the first button member.
 * @param[out] b Receives the second button member.
 * @param[out] c Receives the third button member.
 * @param[out] d Receives the fourth button member.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: an output NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetTrackballButton(KaloContext *context, uint32_t *a, uint32_t *b, uint32_t *c,
                                        uint32_t *d);
/**
 * @brief One of the three analog-to-digital converter readings.
 * @param[in] context The connection.
 * @param[in] index The converter, 1 to 3.
 * @param[out] value Receives its reading, in the controller's unit.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p index outside 1..3 or @p value
 *         NULL; #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetADC(KaloContext *context, int32_t index, float *value);
/**
 * @brief The digital (on/off) input word (controllers above version 5.59).
 * @param[in] context The connection.
 * @param[out] inputs Receives the word, one bit per input.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         5.59 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p inputs NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetTorInputs(KaloContext *context, uint32_t *inputs);
/**
 * @brief The seven analog inputs (controllers above version 5.59).
 * @param[in] context The connection.
 * @param[out] inputs Receives the 7 readings, in the controller's unit.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         5.59 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p inputs NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetAnalogicInputs(KaloContext *context, float inputs[7]);
/**
 * @brief The pointer-emulation state and position the controller sent.
 *
 * Answers on any live context, connected or not: the pointer emulation reads
 * it from the exchange thread.
 *
 * @param[in] context The connection.
 * @param[out] state Receives the emulation state.
 * @param[out] x Receives the pointer's first coordinate.
 * @param[out] y Receives the pointer's second coordinate.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT in #kaloGlobalError: bad handle; an
 *         output NULL gives -1 with no code recorded.
 */
KALO_API int32_t kaloGetMouseState(KaloContext *context, int32_t *state, float *x, float *y);
/**
 * @brief The axis of rotation the controller reports.
 * @param[in] context The connection.
 * @param[out] axis Receives the axis' x, y, z, as the controller reports
 *                  them.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p axis NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetAxisOfRotation(KaloContext *context, float axis[3]);
/**
 * @brief The sphere centre the controller reports, as a pose.
 * @param[in] context The connection.
 * @param[out] centre Receives x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p centre NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetCenterSphere(KaloContext *context, float centre[7]);
/**
 * @brief Takes the controller's axis count (from the last state frame, at
 *        most 20) as the length of every joint array.
 *
 * kaloOpen() already does it (6 until then). The count itself is read with
 * kaloGetNbAxes().
 *
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetNumberOfAxes(KaloContext *context);
/**
 * @brief The axis count of the last state frame. Does not change the length
 *        of the joint arrays (see kaloGetNumberOfAxes()).
 * @param[in] context The connection.
 * @param[out] count Receives the count.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p count NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetNbAxes(KaloContext *context, uint32_t *count);
/**
 * @brief The joint positions (controllers above version 3.55).
 * @param[in] context The connection.
 * @param[out] values Receives one value per axis (the count taken by
 *                    kaloGetNumberOfAxes()): radians for revolute joints,
 *                    metres for prismatic ones.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p values NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetArticularPosition(KaloContext *context, float *values);
/**
 * @brief The joint speeds (controllers above version 3.55).
 * @param[in] context The connection.
 * @param[out] values Receives one value per axis: rad/s for revolute joints,
 *                    m/s for prismatic ones.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p values NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetArticularSpeed(KaloContext *context, float *values);
/**
 * @brief The additional axis' position.
 * @param[in] context The connection.
 * @param[out] value Receives the position, in radians or metres as the axis
 *                   turns or slides.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p value NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetArticularPositionOfAdditionalAxe(KaloContext *context, float *value);
/**
 * @brief The additional axis' speed.
 * @param[in] context The connection.
 * @param[out] value Receives the speed, in rad/s or m/s.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p value NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetArticularSpeedOfAdditionalAxe(KaloContext *context, float *value);
/**
 * @brief The 4 x 4 homogeneous matrix of a pose.
 *
 * The quaternion is normalised first, so a pose with a non-unit quaternion
 * gives the matrix of its normalised form. Needs a live connection although
 * nothing is exchanged.
 *
 * @param[in] context The connection.
 * @param[in] depl The pose: x, y, z (m), then qx, qy, qz, qw.
 * @param[out] matrix Receives the matrix column by column: element (r, c) at
 *                    matrix[4c + r], the translation in elements 12 to 14.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: an array NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloConvertDeplToHomogeneMatrix(KaloContext *context, const float depl[7],
                                                 float matrix[16]);
/**
 * @brief The pose of a 4 x 4 homogeneous matrix.
 *
 * Needs a live connection although nothing is exchanged.
 *
 * @param[in] context The connection.
 * @param[out] depl Receives the pose: x, y, z (m), then qx, qy, qz, qw.
 * @param[in] matrix The matrix column by column (element (r, c) at
 *                   matrix[4c + r]); its upper-left 3 x 3 block must be a
 *                   rotation; elements 3, 7, 11 and 15 are not read.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: an array NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloConvertHomogeneMatrixToDepl(KaloContext *context, float depl[7],
                                                 const float matrix[16]);

/** @} */

/**
 * @defgroup kalo_vm Virtual mechanisms
 * @brief Constraints the controller itself imposes on the arm (a guiding
 *        trajectory stored as a spline, joint bounds), chosen and configured
 *        from the application.
 *
 * Every call needs command type 5 (#KALO_COMMAND_TYPE_COUPLING_GAINS) and
 * fails with #KALO_ERROR_WRONG_COMMAND_MODE in any other. The library
 * forwards the settings and remembers the last ones; the controller is never
 * asked for them.
 * @{
 */

/**
 * @brief Switches the virtual mechanism on.
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmActivate(KaloContext *context);
/**
 * @brief Switches the virtual mechanism off.
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmDeactivate(KaloContext *context);
/**
 * @brief Chooses the mechanism type.
 * @param[in] context The connection.
 * @param[in] type 1 for a spline trajectory (the type the spline and
 *                 sampling calls need); other types are the controller's.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetType(KaloContext *context, uint32_t type);
/**
 * @brief Sets the mechanism's base frame.
 * @param[in] context The connection.
 * @param[in] frame The frame as a pose relative to the arm's base frame:
 *                  x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_MOMENT: no command type was set since open;
 *         #KALO_ERROR_INCORRECT_VALUE: @p frame NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_WRONG_COMMAND_MODE: command
 *         type other than 5; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetBaseFrame(KaloContext *context, const float frame[7]);
/**
 * @brief Asks the controller for the mechanism's base frame (waits up to
 *        2 s).
 * @param[in] context The connection.
 * @param[out] frame Receives the pose relative to the arm's base frame:
 *                   x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_TIMEOUT: no answer; #KALO_ERROR_INCORRECT_VALUE:
 *         @p frame NULL; #KALO_ERROR_WRONG_COMMAND_MODE: command type other
 *         than 5; #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmGetBaseFrame(KaloContext *context, float frame[7]);
/**
 * @brief The mechanism's lower joint bounds.
 * @param[in] context The connection.
 * @param[in] bounds 10 finite values, one per axis in axis order (radians
 *                   for revolute joints, metres for prismatic ones); those
 *                   beyond the axis count are unused.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p bounds NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_WRONG_COMMAND_MODE: command
 *         type other than 5; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetMinArtiBounds(KaloContext *context, const float bounds[10]);
/**
 * @brief The mechanism's upper joint bounds.
 * @param[in] context The connection.
 * @param[in] bounds 10 finite values, one per axis in axis order (radians
 *                   for revolute joints, metres for prismatic ones); those
 *                   beyond the axis count are unused.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p bounds NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_WRONG_COMMAND_MODE: command
 *         type other than 5; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetMaxArtiBounds(KaloContext *context, const float bounds[10]);
/**
 * @brief Outside the mechanism, the arm holds its Cartesian position.
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetDefaultToCartesianPosition(KaloContext *context);
/**
 * @brief Outside the mechanism, the arm is transparent (it follows the hand
 *        freely).
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetDefaultToTransparentMode(KaloContext *context);
/**
 * @brief Asks the controller to take the arm's current frame as the
 *        mechanism's base frame.
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetBaseFrameToCurrentFrame(KaloContext *context);
/**
 * @brief Sets the robot mode of the mechanism, whose values the controller
 *        defines.
 * @param[in] context The connection.
 * @param[in] mode The mode; sent as given.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSetRobotMode(KaloContext *context, uint32_t mode);
/**
 * @brief Asks the controller to save the current spline under a name
 *        (mechanism type 1).
 * @param[in] context The connection.
 * @param[in] name The spline's name, at most 31 characters.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VM: mechanism type other than 1;
 *         #KALO_ERROR_INCORRECT_VALUE: @p name NULL or longer than 31
 *         characters (nothing is sent); #KALO_ERROR_WRONG_COMMAND_MODE:
 *         command type other than 5; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmSaveCurrentSpline(KaloContext *context, const char *name);
/**
 * @brief Asks the controller to load the spline of that name (mechanism type
 *        1).
 * @param[in] context The connection.
 * @param[in] name The spline's name, at most 31 characters.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VM: mechanism type other than 1;
 *         #KALO_ERROR_INCORRECT_VALUE: @p name NULL or longer than 31
 *         characters (nothing is sent); #KALO_ERROR_WRONG_COMMAND_MODE:
 *         command type other than 5; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmLoadSpline(KaloContext *context, const char *name);
/**
 * @brief Asks the controller to delete the spline of that name (mechanism
 *        type 1).
 * @param[in] context The connection.
 * @param[in] name The spline's name, at most 31 characters.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VM: mechanism type other than 1;
 *         #KALO_ERROR_INCORRECT_VALUE: @p name NULL or longer than 31
 *         characters (nothing is sent); #KALO_ERROR_WRONG_COMMAND_MODE:
 *         command type other than 5; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmDeleteSpline(KaloContext *context, const char *name);
/**
 * @brief Asks the controller for a batch of trajectory samples, read with
 *        kaloVmGetTrajSamples(). A new batch discards the previous one.
 * @param[in] context The connection.
 * @param[in] count The number of samples, 1 to 3000.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p count outside 1..3000;
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmStartTrajSampling(KaloContext *context, int32_t count);
/**
 * @brief Waits for the batch of trajectory samples asked for and copies it
 *        (mechanism type 1).
 *
 * Waits up to 3 s for the first sample, then a short while for each further
 * one, and copies the batch as it stands: samples that did not come hold
 * what the sample array held before. At most the count asked for with
 * kaloVmStartTrajSampling() is copied, whatever the controller announces.
 *
 * @param[in] context The connection.
 * @param[out] samples Room for the count asked for, 7 floats per sample: a
 *                     pose x, y, z (m), then qx, qy, qz, qw.
 * @retval 0 Success.
 * @retval -1 No sample came within 3 s (no code recorded);
 *         #KALO_ERROR_COMMUNICATION in #kaloGlobalError: the connection
 *         was closed during the wait; #KALO_ERROR_INCORRECT_VM: mechanism
 *         type other than 1;
 *         #KALO_ERROR_INCORRECT_VALUE: @p samples NULL;
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmGetTrajSamples(KaloContext *context, float *samples);
/**
 * @brief Asks the controller for its upper-bound signal and blocks until it
 *        comes. There is no time-out; kaloClose() on another thread ends the
 *        wait.
 * @param[in] context The connection.
 * @retval 0 The signal came.
 * @retval -1 #KALO_ERROR_INCORRECT_VM: mechanism type above 1;
 *         #KALO_ERROR_WRONG_MOMENT: the mechanism is not active;
 *         #KALO_ERROR_COMMUNICATION in #kaloGlobalError: the connection
 *         was closed during the wait; #KALO_ERROR_WRONG_COMMAND_MODE:
 *         command type other than 5;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloVmWaitUpperBound(KaloContext *context);

/** @} */

/**
 * @defgroup kalo_vo Virtual objects
 * @brief Coupling the arm to an object the application simulates, through
 *        the library's local 6D spring and damper.
 *
 * In the coupling command types (4 and 5) the application simulates an
 * object, sends its pose and speed with kaloSetPosition() and kaloSetSpeed(),
 * and applies to it the wrench that kaloGetForce() returns. Objects attach to
 * control points in order, the first to point 0; a detach releases them all.
 * An attach is completed with the controller by the next kaloSetPosition().
 * @{
 */

/**
 * @brief Attaches an object of the given mass and inertia to the next free
 *        control point.
 *
 * The coupling gains follow from the mass, the inertia's diagonal and the
 * time step (kaloSetTimeStep()), and are printed when bit 0 of the debug
 * flags is set; in command type 5 they are also sent to the controller.
 *
 * @param[in] context The connection.
 * @param[in] inertia The object's 3 x 3 inertia matrix (kg.m^2) about its
 *                    origin, in its own frame, row by row; only the diagonal
 *                    is used, which must be finite and positive.
 * @param[in] mass The object's mass in kilograms, finite and positive.
 * @retval 0 Attached.
 * @retval -1 No code recorded: every control point already has an object;
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type 0 (checked first);
 *         #KALO_ERROR_INCORRECT_VALUE: @p mass or the inertia not finite and
 *         positive, or @p inertia NULL; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloAttachVO(KaloContext *context, const float inertia[9], float mass);
/**
 * @brief The same as kaloAttachVO(), reported to the controller as an avatar
 *        (whose pose kaloGetAvatarPosition() reads).
 * @param[in] context The connection.
 * @param[in] inertia The object's 3 x 3 inertia matrix (kg.m^2), row by row;
 *                    only the diagonal is used, which must be finite and
 *                    positive.
 * @param[in] mass The object's mass in kilograms, finite and positive.
 * @retval 0 Attached.
 * @retval -1 No code recorded: every control point already has an object;
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type 0;
 *         #KALO_ERROR_INCORRECT_VALUE: @p mass or the inertia not finite and
 *         positive, or @p inertia NULL; #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloAttachVOAvatar(KaloContext *context, const float inertia[9], float mass);
/**
 * @brief Attaches an object to the next free control point with the coupling
 *        gains given directly, no mass model; in command type 5 they are also
 *        sent to the controller.
 * @param[in] context The connection.
 * @param[in] stiffness 6 finite values, angular first: three angular
 *                      stiffnesses (N.m/rad), then three linear ones (N/m).
 * @param[in] damping 6 finite values, angular first: three angular dampings
 *                    (N.m.s/rad), then three linear ones (N.s/m).
 * @retval 0 Attached.
 * @retval -1 No code recorded: every control point already has an object;
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type 0;
 *         #KALO_ERROR_INCORRECT_VALUE: an array NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloAttachQSVO(KaloContext *context, const float stiffness[6],
                                const float damping[6]);
/**
 * @brief Detaches every virtual object and zeroes the coupling gains, in the
 *        servo and on the controller (one stiffness round trip, so the call
 *        takes a few frames).
 *
 * The next kaloSetPosition() in a coupling type resets the objects' offsets
 * from the device.
 *
 * @param[in] context The connection.
 * @retval 0 Detached.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloDetachVO(KaloContext *context);
/**
 * @brief The same as kaloDetachVO(), reported to the controller as the
 *        avatar's detach.
 * @param[in] context The connection.
 * @retval 0 Detached.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloDetachVOAvatar(KaloContext *context);
/**
 * @brief Runs one servo cycle per control point and returns the coupling
 *        wrenches to apply to the virtual objects.
 *
 * Each wrench is that of the spring and damper stretched between the arm's
 * control point and its object, applied at the object's origin and projected
 * on the observation frame's axes. With one control point, once the arm has
 * reached the object after an attach (within 2 mm and 0.02 rad), the gains
 * go to the controller, which takes a few frames. A pose from the controller
 * that is not a valid displacement (a zero quaternion) never yields a
 * non-finite wrench: that point's wrench is zero and the call returns -1 with
 * #KALO_ERROR_INCORRECT_VALUE, the other points being computed as usual.
 *
 * @param[in] context The connection.
 * @param[out] force 6 floats per control point: fx, fy, fz (N), then mx, my,
 *                   mz (N.m).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type 0 or 3;
 *         #KALO_ERROR_INCORRECT_VALUE: @p force NULL, or the controller's
 *         pose of a point is not valid (its wrench is zero);
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGetForce(KaloContext *context, float *force);
/**
 * @brief The controller's two torque saturation values, whose meaning it
 *        defines (stored in the order given).
 * @param[in] context The connection.
 * @param[in] a First value, finite and positive.
 * @param[in] b Second value, finite and positive.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: a value not positive or not finite
 *         (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSaturateTorque(KaloContext *context, float a, float b);

/** @} */

/**
 * @defgroup kalo_joint Joint space, additional axis and device outputs
 * @brief Joint set-points, the additional axis, the gripper, the device's
 *        outputs (digital word, PWM, finger-tip speeds), friction, textures
 *        and the controller's debug file.
 *
 * Most of these calls exist only on newer controllers: on a controller at or
 * below the call's version threshold they return the bare
 * #KALO_ERROR_INCOMPATIBLE_VERSION (20) before looking at the handle, and
 * record nothing. Joint arrays hold one value per axis, in axis order, for
 * the axis count taken by kaloGetNumberOfAxes().
 * @{
 */

/**
 * @brief Joint position set-points (controllers above version 3.55).
 * @param[in] context The connection.
 * @param[in] q One finite value per axis: radians for revolute joints,
 *              metres for prismatic ones.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p q NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetArticularPosition(KaloContext *context, const float *q);
/**
 * @brief Joint speed set-points (controllers above version 3.55).
 * @param[in] context The connection.
 * @param[in] q One finite value per axis: rad/s for revolute joints, m/s for
 *              prismatic ones.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p q NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetArticularSpeed(KaloContext *context, const float *q);
/**
 * @brief Joint torque set-points (controllers above version 3.55).
 * @param[in] context The connection.
 * @param[in] q One finite value per axis: N.m for revolute joints, N for
 *              prismatic ones.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.55 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p q NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetArticularForce(KaloContext *context, const float *q);
/**
 * @brief The additional axis' position set-point (controllers above version
 *        3.1).
 * @param[in] context The connection.
 * @param[in] value The position, finite: radians or metres as the axis turns
 *                  or slides.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.1 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p value NULL, NaN or infinite
 *         (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError)
 *         or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetArticularPositionOfAdditionalAxe(KaloContext *context, const float *value);
/**
 * @brief The additional axis' speed set-point (controllers above version
 *        3.1).
 * @param[in] context The connection.
 * @param[in] value The speed, finite: rad/s or m/s.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.1 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p value NULL, NaN or infinite
 *         (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError)
 *         or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetArticularSpeedOfAdditionalAxe(KaloContext *context, const float *value);
/**
 * @brief The additional axis' force set-point (controllers above version
 *        3.1).
 * @param[in] context The connection.
 * @param[in] value The force, finite: N.m or N.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.1 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p value NULL, NaN or infinite
 *         (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError)
 *         or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetArticularForceOfAdditionalAxe(KaloContext *context, const float *value);
/**
 * @brief The gripper's command type, whose values the controller defines
 *        (controllers above version 3.6).
 * @param[in] context The connection.
 * @param[in] type The command type; sent as given.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         3.6 or below.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetGripperCommandType(KaloContext *context, uint32_t type);
/**
 * @brief The digital output word (controllers above version 5.2).
 * @param[in] context The connection.
 * @param[in] outputs One bit per output; sent as given.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         5.2 or below.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloOutputsSetting(KaloContext *context, uint32_t outputs);
/**
 * @brief The seven PWM outputs (controllers above version 5.3).
 * @param[in] context The connection.
 * @param[in] pwm 7 finite values, in the controller's unit.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         5.3 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p pwm NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetPwmOutput(KaloContext *context, const float pwm[7]);
/**
 * @brief The five finger-tip speeds (controllers above version 5.8).
 * @param[in] context The connection.
 * @param[in] speed 5 finite values, in the controller's unit.
 * @retval 0 Success.
 * @retval 20 #KALO_ERROR_INCOMPATIBLE_VERSION, bare: controller of version
 *         5.8 or below.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: @p speed NULL, or a value NaN or
 *         infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetFingerTipSpeed(KaloContext *context, const float speed[5]);
/**
 * @brief The controller's three friction values, whose meaning it defines
 *        (sent in argument order).
 * @param[in] context The connection.
 * @param[in] a First value, finite.
 * @param[in] b Second value, finite.
 * @param[in] c Third value, finite.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE: a value NaN or infinite (nothing
 *         is sent); #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetFrictionForce(KaloContext *context, float a, float b, float c);
/**
 * @brief Asks the controller to write its debug file (on the controller's
 *        side).
 * @param[in] context The connection.
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloGenerateDebugFile(KaloContext *context);
/**
 * @brief Texture contact points with their intensities, one per control
 *        point.
 *
 * Only the translation of each pose is sent; intensities are checked point
 * by point, and the points before a bad intensity stay written (sent with
 * the next accepted call).
 *
 * @param[in] context The connection.
 * @param[in] position 7 finite floats per control point, a pose relative to
 *                     the observation frame: x, y, z (m), then qx, qy, qz, qw
 *                     (not used).
 * @param[in] intensity One intensity per control point, in [0, 1]
 *                      (kaloConvertRGBToGrayscale() turns a colour into one).
 * @param[in] flag The texture flag, whose meaning the controller defines;
 *                 sent as given.
 * @retval 0 Success.
 * @retval 9 #KALO_ERROR_INCORRECT_VALUE, bare: an intensity outside [0, 1]
 *         (NaN included); no code is recorded.
 * @retval -1 #KALO_ERROR_WRONG_COMMAND_MODE: command type 0;
 *         #KALO_ERROR_INCORRECT_VALUE: an array NULL, or a position value
 *         NaN or infinite (nothing is sent); #KALO_ERROR_INVALID_CONTEXT (in
 *         #kaloGlobalError) or #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetTexture(KaloContext *context, const float *position, const float *intensity,
                                int32_t flag);
/**
 * @brief Texture wrenches, one per control point, applied at the virtual
 *        object's origin and projected on the observation frame's axes; the
 *        library converts them for the arm.
 * @param[in] context The connection.
 * @param[in] wrench 6 floats per control point: fx, fy, fz (N), then mx, my,
 *                   mz (N.m).
 * @retval 0 Success.
 * @retval -1 #KALO_ERROR_INCORRECT_VALUE in #kaloGlobalError: a value is NaN
 *         or infinite; the connection is closed and the handle dead;
 *         #KALO_ERROR_WRONG_COMMAND_MODE: command type 0;
 *         #KALO_ERROR_INCORRECT_VALUE: @p wrench NULL;
 *         #KALO_ERROR_INVALID_CONTEXT (in #kaloGlobalError) or
 *         #KALO_ERROR_COMMUNICATION.
 */
KALO_API int32_t kaloSetTextureForce(KaloContext *context, const float *wrench);
/**
 * @brief The grey level of a colour, 0.299 R + 0.587 G + 0.114 B: the
 *        intensity kaloSetTexture() takes. Needs no connection.
 * @param[in] context Not used; may be NULL.
 * @param[in] rgb Red, green and blue, each in [0, 1].
 * @param[out] gray Receives the grey level, in [0, 1] for such a colour.
 * @retval 0 Success.
 * @retval -1 An array NULL (no code recorded).
 */
KALO_API int32_t kaloConvertRGBToGrayscale(KaloContext *context, const float rgb[3], float *gray);

/** @} */

/**
 * @defgroup kalo_mouse Pointer emulation
 * @brief Entry points through which the arm could drive the desktop pointer,
 *        called by the exchange thread when the controller sends its pointer
 *        field.
 *
 * This build drives no pointer: showing, hiding, moving and clicking do
 * nothing; activating and deactivating show or hide the pointer and forget
 * the pointer tracking. Applications have no reason to call them.
 * @{
 */

/**
 * @brief Prepares the pointer emulation (kaloOpen() calls it).
 * @param[in] context The connection (not used).
 * @retval 0 Always.
 */
KALO_API int32_t init_mouse(KaloContext *context);
/**
 * @brief Restores the pointer (kaloClose() calls it).
 * @param[in] context The connection (not used).
 * @retval 0 Always.
 */
KALO_API int32_t end_mouse(KaloContext *context);
/**
 * @brief Shows the pointer; does nothing in this build.
 * @param[in] context The connection (not used).
 * @retval 0 Always.
 */
KALO_API int32_t show_mouse(KaloContext *context);
/**
 * @brief Hides the pointer; does nothing in this build.
 * @param[in] context The connection (not used).
 * @retval 0 Always.
 */
KALO_API int32_t hide_mouse(KaloContext *context);
/**
 * @brief Starts following the arm: shows the pointer and forgets the
 *        pointer tracking.
 * @param[in,out] context The connection whose tracking is reset (nothing is
 *                        done for a handle that is not live).
 * @retval 0 Always.
 */
KALO_API int32_t active_mouse(KaloContext *context);
/**
 * @brief Stops following the arm: hides the pointer and forgets the pointer
 *        tracking.
 * @param[in,out] context The connection whose tracking is reset (nothing is
 *                        done for a handle that is not live).
 * @retval 0 Always.
 */
KALO_API int32_t desactive_mouse(KaloContext *context);
/**
 * @brief Moves the pointer; does nothing in this build.
 * @param[in] context The connection (not used).
 * @param[in] x The pointer's first coordinate.
 * @param[in] y The pointer's second coordinate.
 * @retval 0 Always.
 */
KALO_API int32_t move_mouse(KaloContext *context, float x, float y);
/**
 * @brief Clicks the pointer's buttons; does nothing in this build.
 * @param[in] context The connection (not used).
 * @param[in] left Non-zero to click the left button.
 * @param[in] right Non-zero to click the right button.
 * @retval 0 Always.
 */
KALO_API int32_t clic_mouse(KaloContext *context, int32_t left, int32_t right);

/** @} */

KALO_END_DECLS

#endif
