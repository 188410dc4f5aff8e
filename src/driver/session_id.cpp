// Tracking-period stamps.
#include "driver/cbt_session_id.h"

ULONG CbtSessionIdFromSystemTime(LONGLONG SystemTime) {
  const ULONG seconds = static_cast<ULONG>(SystemTime / 10000000);
  return seconds - CBT_SESSION_EPOCH_SECONDS;
}

ULONG CbtCurrentSessionId(VOID) {
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  return CbtSessionIdFromSystemTime(now.QuadPart);
}
