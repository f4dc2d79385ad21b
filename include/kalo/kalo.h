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

/* ---- Periodic loop -------------------------------------------------------- */

/* ---- Command types and Cartesian commands --------------------------------- */

/* ---- Parameters ----------------------------------------------------------- */

/* ---- Device state readout and diagnostics --------------------------------- */

/* ---- Virtual mechanisms --------------------------------------------------- */

/* ---- Virtual objects ------------------------------------------------------ */

/* ---- Joint space, additional axis and device outputs ---------------------- */

/* ---- Mouse emulation ------------------------------------------------------ */

KALO_END_DECLS

#endif
