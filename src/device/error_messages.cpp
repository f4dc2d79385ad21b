// Error codes, their messages and the last error of calls without a context.
#include "device/call_frame.h"
#include "device/context.h"
#include "kalo/kalo.h"
#include "kalo/kalo_ext.h"
#include "protocol/error_detail.h"

extern "C" {

int32_t kaloGlobalError = 0;

// Entry 3 precedes entry 2 and 13 and 22 have none: lookups go by code, so
// the order is immaterial to callers, but it is kept as published.
const KaloErrorEntry _kaloErrorTable[256] = {
    {0, "No error reported"},
    {1, "Out of memory"},
    {3, "Invalid context"},
    {2, "Communication failure"},
    {4, "Config file not found"},
    {5, "Incorrect config file"},
    {6, "Command timed out"},
    {7, "Function not implemented"},
    {8, "Variable not available"},
    {9, "Incorrect value"},
    {10, "URL syntax error"},
    {11, "Hardware error"},
    {12, "Position discontinuity detected"},
    {14, "Periodic function not defined"},
    {15, "No performance counter available"},
    {16, "Wrong DLL version number"},
    {17, "Function called in wrong command mode"},
    {18, "Control mode not supported by this device"},
    {19, "Function called at wrong moment"},
    {20, "Incompatible version between API and controler"},
    {21, "Incorrect virtual mechanism"},
};

int32_t kaloGetErrorCode(KaloContext *context) {
  if (context == nullptr)
    return kaloGlobalError;
  if (!kalo::is_live(context))
    return KALO_ERROR_INVALID_CONTEXT;
  const auto code = static_cast<int32_t>(context->error_code);
  context->error_code = 0;
  return code;
}

const char *kaloGetErrorMessage(int32_t code) {
  if (code == 0)
    return _kaloErrorTable[0].message;
  for (int i = 1; i < 256; ++i)
    if (_kaloErrorTable[i].code == code && _kaloErrorTable[i].message != nullptr)
      return _kaloErrorTable[i].message;
  return "Unknown error code";
}

const char *kaloExtLastErrorDetail(void) {
  return kalo::error_detail();
}

} // extern "C"
