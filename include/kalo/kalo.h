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
 * context is released all the same and kaloGlobalError is 2). */
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

/* ---- Parameters ----------------------------------------------------------- */

/* ---- Device state readout and diagnostics --------------------------------- */

/* Takes the controller's axis count (field 69) into the context. Returns 0. */
KALO_API int32_t kaloGetNumberOfAxes(KaloContext *context);

/* ---- Virtual mechanisms --------------------------------------------------- */

/* ---- Virtual objects ------------------------------------------------------ */

/* Detaches every virtual object and zeroes the coupling gains. */
KALO_API int32_t kaloDetachVO(KaloContext *context);

/* ---- Joint space, additional axis and device outputs ---------------------- */

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
