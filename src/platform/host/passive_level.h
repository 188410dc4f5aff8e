// Routines that Windows allows at PASSIVE_LEVEL only (the registry, export lookup, the
// code-page conversions): their code and data are pageable, so above PASSIVE_LEVEL they
// can bug-check. The host kernel reports the call, naming the routine and its caller.
#pragma once

#include <wdm.h>

#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"

namespace kvhost {

inline void RequirePassiveLevel(const char* routine, const void* caller) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql != PASSIVE_LEVEL)
    ReportViolationF("PassiveLevelRequired", "%s called by %s at IRQL %u (PASSIVE_LEVEL required)", routine,
                     DescribeCodeAddress(caller).c_str(), irql);
}

}  // namespace kvhost

#define KV_REQUIRE_PASSIVE_LEVEL(routine) kvhost::RequirePassiveLevel(routine, __builtin_return_address(0))
