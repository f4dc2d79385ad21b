/* kalo: the device interface. An application opens a connection to the arm's
 * controller with kaloOpen, drives and reads the arm through the kalo* calls
 * and closes it with kaloClose. Calls return 0 on success and -1 on failure,
 * with the code in the context (kaloGetErrorCode) or, when no valid context is
 * at hand, in kaloGlobalError. Version-gated calls return the bare value 20 when
 * the controller is too old. */
#ifndef KALO_H
#define KALO_H

#include <stdint.h>

#include "kalo_export.h"

KALO_BEGIN_DECLS

/* Opaque connection handle. */
typedef struct KaloContext KaloContext;

/* Error codes (kaloGetErrorMessage gives their texts). */
#define KALO_NO_ERROR 0
#define KALO_ERROR_OUT_OF_MEMORY 1
#define KALO_ERROR_COMMUNICATION 2
#define KALO_ERROR_INVALID_CONTEXT 3
#define KALO_ERROR_CONFIG_FILE_NOT_FOUND 4
#define KALO_ERROR_INCORRECT_CONFIG_FILE 5
#define KALO_ERROR_TIMEOUT 6
#define KALO_ERROR_NOT_IMPLEMENTED 7
#define KALO_ERROR_VARIABLE_NOT_AVAILABLE 8
#define KALO_ERROR_INCORRECT_VALUE 9
#define KALO_ERROR_URL_SYNTAX 10
#define KALO_ERROR_HARDWARE 11
#define KALO_ERROR_POSITION_DISCONTINUITY 12
#define KALO_ERROR_NO_PERIODIC_FUNCTION 14
#define KALO_ERROR_NO_PERFORMANCE_COUNTER 15
#define KALO_ERROR_WRONG_DLL_VERSION 16
#define KALO_ERROR_WRONG_COMMAND_MODE 17
#define KALO_ERROR_MODE_NOT_SUPPORTED 18
#define KALO_ERROR_WRONG_MOMENT 19
#define KALO_ERROR_INCOMPATIBLE_VERSION 20
#define KALO_ERROR_INCORRECT_VM 21
#define KALO_ERROR_LOOP_ALREADY_STARTED 22

/* Command types accepted by kaloSetCommandType. */
#define KALO_COMMAND_TYPE_NONE 0
#define KALO_COMMAND_TYPE_SPEED_FORCE 3   /* speed set-points, forces accepted */
#define KALO_COMMAND_TYPE_COUPLING 4      /* coupling to a virtual object */
#define KALO_COMMAND_TYPE_COUPLING_GAINS 5 /* coupling, gains sent to the controller */
#define KALO_COMMAND_TYPE_FORCE 6
#define KALO_COMMAND_TYPE_FORCE_POSITION 7

/* One entry of the error table: a code and its message (unused entries: 0, NULL). */
typedef struct KaloErrorEntry {
  int32_t code;
  const char *message;
} KaloErrorEntry;

/* Last error of a call that had no valid context. Never cleared by the library. */
KALO_API extern int32_t kaloGlobalError;
/* The error codes and their messages, 256 entries. */
KALO_API extern const KaloErrorEntry _kaloErrorTable[256];

/* ---- Errors --------------------------------------------------------------- */

/* The context's last error, cleared by the read; kaloGlobalError for NULL; 3
 * for a handle that is not a live context. */
KALO_API int32_t kaloGetErrorCode(KaloContext *context);
/* The message of an error code; "Unknown error code" for codes without one. */
KALO_API const char *kaloGetErrorMessage(int32_t code);

/* ---- Connection ----------------------------------------------------------- */

/* Opens a connection on a URL: [url:][udpxdr://]host[:local-port][#controller-port[+...]].
 * Returns the new context, or NULL with kaloGlobalError 1 (out of memory),
 * 2 (no socket, or no frame from the controller within 1 s) or 10 (bad URL). */
KALO_API KaloContext *kaloOpen(const char *url);
/* Stops the threads, sends the closing request, releases everything. 0, or -1
 * (bad handle: kaloGlobalError 3; the connection had already failed: the
 * context is released all the same and kaloGlobalError is 2). Threads blocked
 * in a library wait on the context return -1 with code 2. A closed handle
 * gives kaloGlobalError 3 in every later call, a second close included. */
KALO_API int32_t kaloClose(KaloContext *context);
/* This library's version: 4 and 4. Returns 0. */
KALO_API int32_t kaloAPIVersion(int32_t *major, int32_t *minor);
/* Asks the controller for its version (codes 2, 6; 3 in kaloGlobalError). */
KALO_API int32_t kaloGetControlerVersion(KaloContext *context, int32_t *major, int32_t *minor);
/* Asks the controller for its device type and serial number; controllers of
 * version 5.4 or below give the bare 20. */
KALO_API int32_t kaloGetDeviceID(KaloContext *context, int32_t *device_type, int32_t *serial_number);
/* Tells the controller whether it should keep running when our frames stop;
 * while disabled, a stalled stream does not end the watchdog. */
KALO_API int32_t kaloDisableControlConnexion(KaloContext *context, int32_t disabled);
/* Takes the controller's control-point count into the context. Returns 0. */
KALO_API int32_t kaloGetRobotNumberOfControlPoints(KaloContext *context);

/* ---- Periodic loop -------------------------------------------------------- */

/* The application's periodic function: the context and the user data given
 * to kaloSetPeriodicFunction. */
typedef void (*KaloPeriodicFunction)(KaloContext *context, void *user_data);

/* Registers the periodic function and its period in seconds; *period is
 * rounded to the controller's unit (1 ms, or 1/1024 s for controllers of
 * version 5.0 or below) and written back. */
KALO_API int32_t kaloSetPeriodicFunction(KaloContext *context, KaloPeriodicFunction function,
                                         float *period, void *user_data);
/* Starts the loop thread (codes 14: no function, 22: already started, 1). */
KALO_API int32_t kaloStartLoop(KaloContext *context);
/* Stops the loop; the function is not called again once this returns (unless
 * it is called from the periodic function itself, which then ends its call). */
KALO_API int32_t kaloStopLoop(KaloContext *context);

/* ---- Command types and Cartesian commands --------------------------------- */

/* Set-points hold one entry per control point (kaloGetRobotNumberOfControlPoints):
 * a position is 7 floats (x, y, z, then the quaternion x, y, z, w) in the
 * observation frame, a speed 6 floats (linear, then angular), a force 6 floats
 * (force, then moment). A NaN or infinite value in any set-point closes the
 * connection: the call returns -1, kaloGlobalError holds 9 and the handle is
 * dead. Calls used in a command type that does not allow them fail with 17. */

/* Chooses how the arm is driven: 0 (none), 3, 4 and 5 (coupling types, where
 * the library computes the coupling force), 6, 7. 1 gives 18, 2 and above 7
 * give 9. */
KALO_API int32_t kaloSetCommandType(KaloContext *context, uint32_t type);
/* Asks the controller which command type it runs (code 6 without reply). */
KALO_API int32_t kaloGetCommandType(KaloContext *context, uint32_t *type);
/* Force set-points (command types 3, 6, 7). */
KALO_API int32_t kaloSetForce(KaloContext *context, const float *force);
/* A wrench added to whatever the controller applies (controllers above 3.0;
 * the bare 7 otherwise). Allowed in every command type. */
KALO_API int32_t kaloAddForce(KaloContext *context, const float force[6]);
/* Position set-points (command type 2 and above); a quaternion that is not of
 * unit length gives 9 and leaves the connection open. In the coupling types
 * the first accepted set-point also switches the power on. */
KALO_API int32_t kaloSetPosition(KaloContext *context, const float *position);
/* Speed set-points (all command types but 0 and 3). In the coupling types each
 * set-point passes the kinetic-energy guard: the first accepted one switches
 * the power on; a refused one switches it off again (code 12), after which the
 * power returns once the guard stayed quiet for 10 s of time steps. */
KALO_API int32_t kaloSetSpeed(KaloContext *context, const float *speed);
/* The device's pose per control point, as the last state frame gave it. */
KALO_API int32_t kaloGetPosition(KaloContext *context, float *position);
/* The device's speed per control point, converted for the application. */
KALO_API int32_t kaloGetSpeed(KaloContext *context, float *speed);
/* Raw readings of the last state frame (no conversion). */
KALO_API int32_t kaloGetPhysicalPosition(KaloContext *context, float position[7]);
KALO_API int32_t kaloGetPhysicalSpeed(KaloContext *context, float speed[6]);
KALO_API int32_t kaloGetAvatarPosition(KaloContext *context, float position[7]);
/* Switches the power on (1) or off (0); other values give 9. */
KALO_API int32_t kaloSetPowerOn(KaloContext *context, uint32_t on);
/* Speed control with its two values (both at least 0, else 9). */
KALO_API int32_t kaloActiveSpeedControl(KaloContext *context, float a, float b);
KALO_API int32_t kaloDeactiveSpeedControl(KaloContext *context);
/* The same for rotations (controllers above 3.2). */
KALO_API int32_t kaloActiveRotationSpeedControl(KaloContext *context, float a, float b);
KALO_API int32_t kaloDeactiveRotationSpeedControl(KaloContext *context);
/* Force and torque limits of speed control (controllers above 3.55). */
KALO_API int32_t kaloSetForceInSpeedControl(KaloContext *context, float force);
KALO_API int32_t kaloSetTorqueInSpeedControl(KaloContext *context, float torque);
/* The controller's speed-control and rotation speed-control states
 * (controllers above 3.55). */
KALO_API int32_t kaloIsInSpeedControl(KaloContext *context, int32_t *first, int32_t *second);
/* Enables or disables force feedback (the value is passed as given). */
KALO_API int32_t kaloEnableForceFeedback(KaloContext *context, int32_t enable);
/* Forces the shift button's state (controllers of version 3.0 and above). */
KALO_API int32_t kaloForceShiftButton(KaloContext *context, int32_t value);
/* Indexing mode 0..7 (9 above); the getter returns the last value set. */
KALO_API int32_t kaloSetIndexingMode(KaloContext *context, uint32_t mode);
KALO_API int32_t kaloGetIndexingMode(KaloContext *context, uint32_t *mode);

/* ---- Parameters ----------------------------------------------------------- */

/* The application's time step in seconds (above 0, else 9; 0.1 at open). It
 * sets the coupling gains of kaloAttachVO and the energy guard's counts. */
KALO_API int32_t kaloSetTimeStep(KaloContext *context, float step);
KALO_API int32_t kaloGetTimeStep(KaloContext *context, float *step);
/* Microseconds since the controller stamped its last state frame, on the
 * wall clock (the controller stamps with a synchronised one); 0 for a stamp
 * newer than the clock reading. */
KALO_API int32_t kaloGetTimeLastUpdate(KaloContext *context, uint32_t *age);
/* Speed factor (above 0, else 9): taken at once in command type 3, approached
 * smoothly (0.5 Hz) otherwise. The getter returns the factor asked for. */
KALO_API int32_t kaloSetSpeedFactor(KaloContext *context, float factor);
KALO_API int32_t kaloGetSpeedFactor(KaloContext *context, float *factor);
/* Force factor (above 0, else 9). */
KALO_API int32_t kaloSetForceFactor(KaloContext *context, float factor);
KALO_API int32_t kaloGetForceFactor(KaloContext *context, float *factor);
/* The controller's simulation stiffness and damping, 6 values each (linear,
 * then angular); the getters ask the controller (code 6 without reply). */
KALO_API int32_t kaloSetSimulationStiffness(KaloContext *context, const float stiffness[6]);
KALO_API int32_t kaloGetSimulationStiffness(KaloContext *context, float stiffness[6]);
KALO_API int32_t kaloSetSimulationDamping(KaloContext *context, const float damping[6]);
KALO_API int32_t kaloGetSimulationDamping(KaloContext *context, float damping[6]);
/* Observation and base frames (a non-unit quaternion gives 9); the getters
 * return the last frame set. */
KALO_API int32_t kaloSetObservationFrame(KaloContext *context, const float frame[7]);
KALO_API int32_t kaloGetObservationFrame(KaloContext *context, float frame[7]);
/* The speed of the observation frame (no reader). */
KALO_API int32_t kaloSetObservationFrameSpeed(KaloContext *context, const float twist[6]);
KALO_API int32_t kaloSetBaseFrame(KaloContext *context, const float frame[7]);
KALO_API int32_t kaloGetBaseFrame(KaloContext *context, float frame[7]);
/* Catch frames, one per control point; the first one is also the servo's
 * object displacement, which the getter returns. */
KALO_API int32_t kaloSetCatchFrame(KaloContext *context, const float *frame);
KALO_API int32_t kaloGetCatchFrame(KaloContext *context, float frame[7]);
/* The connection watchdog's period in seconds (above 0, else 9). */
KALO_API int32_t kaloSetTimeoutValue(KaloContext *context, float seconds);
KALO_API int32_t kaloGetTimeoutValue(KaloContext *context, float *seconds);
/* Bit 0: gain printouts and loop overrun messages. */
KALO_API int32_t kaloSetDebugFlags(KaloContext *context, uint32_t flags);
/* Sends the diagnostics to a file (truncated); when it cannot be opened: code
 * 4, and diagnostics go to standard output. */
KALO_API int32_t kaloSetOutputFile(KaloContext *context, const char *path);

/* ---- Device state readout and diagnostics --------------------------------- */

/* Everything below returns what the last state frame held and sends nothing. */

/* *pressed = 1 while button (1..16) is down, else 0 (0 for any other number). */
KALO_API int32_t kaloGetButton(KaloContext *context, uint32_t button, uint32_t *pressed);
/* The emergency-stop button (16); returns 0. */
KALO_API int32_t kaloGetEmergencyStop(KaloContext *context, uint32_t *value);
/* The dead-man button (15); returns 0. */
KALO_API int32_t kaloGetDeadMan(KaloContext *context, uint32_t *value);
/* Blocks until button (1..16, else 9 at once) is pressed: a button already
 * held must be released and pressed again. No time-out; kaloClose ends the
 * wait (-1, code 2). */
KALO_API int32_t kaloWaitPressButton(KaloContext *context, uint32_t button);
/* *on = 1 while the arm's power is on. */
KALO_API int32_t kaloGetPowerOn(KaloContext *context, uint32_t *on);
/* *word = the drive failure word, bit k set when drive k+1 has failed. */
KALO_API int32_t kaloGetFailure(KaloContext *context, uint32_t *word);
/* *failed = 1 and -1 with code 11 (context and kaloGlobalError) when a drive has
 * failed, the lowest one being named on the output stream; else 0 and 0. */
KALO_API int32_t kaloGetError(KaloContext *context, uint32_t *failed);
/* Prints the OK/NOK state of the eight drives on the output stream. */
KALO_API int32_t kaloDisplayHardwareStatus(KaloContext *context);
/* *alarm = the alarm bits (14..31) of the status word, bit 17 also set after a
 * periodic-loop overrun. */
KALO_API int32_t kaloGetAlarm(KaloContext *context, uint32_t *alarm);
/* *bounds = the bound indicators (bits 0..13) of the status word. */
KALO_API int32_t kaloIsInBounds(KaloContext *context, uint32_t *bounds);
/* *shift = 1 while the arm is in its shift position. */
KALO_API int32_t kaloIsInShiftPosition(KaloContext *context, uint32_t *shift);
/* The trackball's two position members. */
KALO_API int32_t kaloGetTrackball(KaloContext *context, uint32_t *x, uint32_t *y);
/* The trackball's four button members. */
KALO_API int32_t kaloGetTrackballButton(KaloContext *context, uint32_t *a, uint32_t *b,
                                        uint32_t *c, uint32_t *d);
/* *value = analog-to-digital converter index (1..3); -1 with code 9 otherwise. */
KALO_API int32_t kaloGetADC(KaloContext *context, int32_t index, float *value);
/* *inputs = the digital input word (controllers above 5.59, else 20). */
KALO_API int32_t kaloGetTorInputs(KaloContext *context, uint32_t *inputs);
/* inputs[7] = the analog inputs (controllers above 5.59, else 20). */
KALO_API int32_t kaloGetAnalogicInputs(KaloContext *context, float inputs[7]);
/* The pointer emulation state and position sent by the controller. */
KALO_API int32_t kaloGetMouseState(KaloContext *context, int32_t *state, float *x, float *y);
/* axis[3] = the axis of rotation reported by the controller. */
KALO_API int32_t kaloGetAxisOfRotation(KaloContext *context, float axis[3]);
/* centre[7] = the sphere centre reported by the controller (a displacement). */
KALO_API int32_t kaloGetCenterSphere(KaloContext *context, float centre[7]);
/* Takes the controller's axis count as the count of every joint-space call;
 * returns 0 (the count is read with kaloGetNbAxes). */
KALO_API int32_t kaloGetNumberOfAxes(KaloContext *context);
/* *count = the axis count of the last state frame. */
KALO_API int32_t kaloGetNbAxes(KaloContext *context, uint32_t *count);
/* values[axis count] = joint positions (controllers above 3.55, else 20). */
KALO_API int32_t kaloGetArticularPosition(KaloContext *context, float *values);
/* values[axis count] = joint speeds (controllers above 3.55, else 20). */
KALO_API int32_t kaloGetArticularSpeed(KaloContext *context, float *values);
/* *value = the additional axis's position. */
KALO_API int32_t kaloGetArticularPositionOfAdditionalAxe(KaloContext *context, float *value);
/* *value = the additional axis's speed. */
KALO_API int32_t kaloGetArticularSpeedOfAdditionalAxe(KaloContext *context, float *value);
/* matrix[16] (column-major 4x4) = the homogeneous form of depl[7]. */
KALO_API int32_t kaloConvertDeplToHomogeneMatrix(KaloContext *context, const float depl[7],
                                                 float matrix[16]);
/* depl[7] = the displacement of the column-major homogeneous matrix[16]. */
KALO_API int32_t kaloConvertHomogeneMatrixToDepl(KaloContext *context, float depl[7],
                                                 const float matrix[16]);

/* ---- Virtual mechanisms --------------------------------------------------- */

/* Every call needs command type 5 (code 17 otherwise). */

/* Switches the controller's virtual mechanism on. */
KALO_API int32_t kaloVmActivate(KaloContext *context);
/* Switches it off. */
KALO_API int32_t kaloVmDeactivate(KaloContext *context);
/* Chooses the mechanism type (1: spline trajectory). */
KALO_API int32_t kaloVmSetType(KaloContext *context, uint32_t type);
/* Sets the mechanism's base frame (code 19 before any command type was set). */
KALO_API int32_t kaloVmSetBaseFrame(KaloContext *context, const float frame[7]);
/* Asks the controller for the mechanism's base frame (code 6 without reply). */
KALO_API int32_t kaloVmGetBaseFrame(KaloContext *context, float frame[7]);
/* Lower joint bounds, one per axis up to ten. */
KALO_API int32_t kaloVmSetMinArtiBounds(KaloContext *context, const float bounds[10]);
/* Upper joint bounds, one per axis up to ten. */
KALO_API int32_t kaloVmSetMaxArtiBounds(KaloContext *context, const float bounds[10]);
/* Outside the mechanism the arm holds its Cartesian position. */
KALO_API int32_t kaloVmSetDefaultToCartesianPosition(KaloContext *context);
/* Outside the mechanism the arm is transparent. */
KALO_API int32_t kaloVmSetDefaultToTransparentMode(KaloContext *context);
/* Takes the arm's current frame as the mechanism's base frame. */
KALO_API int32_t kaloVmSetBaseFrameToCurrentFrame(KaloContext *context);
/* Sets the controller-defined robot mode. */
KALO_API int32_t kaloVmSetRobotMode(KaloContext *context, uint32_t mode);
/* Saves the current spline under name (at most 31 characters; type 1 only, else 21). */
KALO_API int32_t kaloVmSaveCurrentSpline(KaloContext *context, const char *name);
/* Loads the spline called name (same rules). */
KALO_API int32_t kaloVmLoadSpline(KaloContext *context, const char *name);
/* Deletes the spline called name (same rules). */
KALO_API int32_t kaloVmDeleteSpline(KaloContext *context, const char *name);
/* Asks for count (1..3000) trajectory samples. */
KALO_API int32_t kaloVmStartTrajSampling(KaloContext *context, int32_t count);
/* Waits for the samples asked for and copies them, 7 floats each (type 1 only):
 * never more than the count given to kaloVmStartTrajSampling. */
KALO_API int32_t kaloVmGetTrajSamples(KaloContext *context, float *samples);
/* Asks the controller for its upper-bound signal and blocks until it comes. */
KALO_API int32_t kaloVmWaitUpperBound(KaloContext *context);

/* ---- Virtual objects ------------------------------------------------------ */

/* In the coupling command types the application simulates an object and the
 * library couples it to the arm with a 6D spring and damper. Objects attach to
 * control points in order; an attach when every point has one returns -1 with
 * no error code. Attaching needs command type 2 or above (17 otherwise) and is
 * completed by the next kaloSetPosition. */

/* Attaches an object of the given mass (above 0, else 9) and inertia (3 x 3,
 * row by row; its diagonal is used); the gains follow from the time step. */
KALO_API int32_t kaloAttachVO(KaloContext *context, const float inertia[9], float mass);
/* The same, reported to the controller as an avatar. */
KALO_API int32_t kaloAttachVOAvatar(KaloContext *context, const float inertia[9], float mass);
/* Attaches an object with the given stiffness and damping (6 each, angular first). */
KALO_API int32_t kaloAttachQSVO(KaloContext *context, const float stiffness[6],
                                const float damping[6]);
/* Detaches every virtual object and zeroes the coupling gains. */
KALO_API int32_t kaloDetachVO(KaloContext *context);
/* The same for avatars. */
KALO_API int32_t kaloDetachVOAvatar(KaloContext *context);
/* Runs one servo cycle per control point and returns the coupling wrenches
 * (6 floats each) to apply to the virtual object (command types 2, 4 to 7).
 * A point whose wrench is not a number (the controller reported a pose with
 * a zero quaternion) gets a zero wrench, and the call returns -1 with 9. */
KALO_API int32_t kaloGetForce(KaloContext *context, float *force);
/* The two torque saturation values (both above 0, else 9). */
KALO_API int32_t kaloSaturateTorque(KaloContext *context, float a, float b);

/* ---- Joint space, additional axis and device outputs ---------------------- */

/* Version-gated calls return the bare 20 on a controller at or below their
 * threshold. Joint arrays hold one value per axis (kaloGetNumberOfAxes). */

/* Joint position set-points (controllers above 3.55). */
KALO_API int32_t kaloSetArticularPosition(KaloContext *context, const float *q);
/* Joint speed set-points (controllers above 3.55). */
KALO_API int32_t kaloSetArticularSpeed(KaloContext *context, const float *q);
/* Joint torques (controllers above 3.55). */
KALO_API int32_t kaloSetArticularForce(KaloContext *context, const float *q);
/* Additional axis position (controllers above 3.1). */
KALO_API int32_t kaloSetArticularPositionOfAdditionalAxe(KaloContext *context, const float *value);
/* Additional axis speed (controllers above 3.1). */
KALO_API int32_t kaloSetArticularSpeedOfAdditionalAxe(KaloContext *context, const float *value);
/* Additional axis force (controllers above 3.1). */
KALO_API int32_t kaloSetArticularForceOfAdditionalAxe(KaloContext *context, const float *value);
/* Gripper command type (controllers above 3.6). */
KALO_API int32_t kaloSetGripperCommandType(KaloContext *context, uint32_t type);
/* Digital output word (controllers above 5.2). */
KALO_API int32_t kaloOutputsSetting(KaloContext *context, uint32_t outputs);
/* The seven PWM outputs (controllers above 5.3). */
KALO_API int32_t kaloSetPwmOutput(KaloContext *context, const float pwm[7]);
/* The five finger-tip speeds (controllers above 5.8). */
KALO_API int32_t kaloSetFingerTipSpeed(KaloContext *context, const float speed[5]);
/* The three friction values, in argument order. */
KALO_API int32_t kaloSetFrictionForce(KaloContext *context, float a, float b, float c);
/* Asks the controller to write its debug file. */
KALO_API int32_t kaloGenerateDebugFile(KaloContext *context);
/* Texture contact points (the translations of position[7 x points]) with their
 * intensities in [0, 1] (the bare 9 otherwise, nothing recorded); command type
 * 2 or above (17 otherwise). */
KALO_API int32_t kaloSetTexture(KaloContext *context, const float *position, const float *intensity,
                                int32_t flag);
/* Texture wrenches, 6 floats per control point; a non-finite value closes the
 * connection (code 9 in kaloGlobalError). */
KALO_API int32_t kaloSetTextureForce(KaloContext *context, const float *wrench);
/* *gray = 0.299 R + 0.587 G + 0.114 B; needs no connection. */
KALO_API int32_t kaloConvertRGBToGrayscale(KaloContext *context, const float rgb[3], float *gray);

/* ---- Mouse emulation ------------------------------------------------------ */

/* Desktop pointer emulation driven by the controller's pointer field. In this
 * build showing, hiding, moving and clicking do nothing; activating and
 * deactivating show or hide the pointer and reset the pointer tracking. All
 * return 0. */
KALO_API int32_t init_mouse(KaloContext *context);
KALO_API int32_t end_mouse(KaloContext *context);
KALO_API int32_t show_mouse(KaloContext *context);
KALO_API int32_t hide_mouse(KaloContext *context);
KALO_API int32_t active_mouse(KaloContext *context);
KALO_API int32_t desactive_mouse(KaloContext *context);
KALO_API int32_t move_mouse(KaloContext *context, float x, float y);
KALO_API int32_t clic_mouse(KaloContext *context, int32_t left, int32_t right);

KALO_END_DECLS

#endif
