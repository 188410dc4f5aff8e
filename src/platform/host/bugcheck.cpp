// KeBugCheckEx: a driver ends the machine on purpose.
#include <cstdio>
#include <string>

#include <wdm.h>

#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"

extern "C" {

VOID KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR BugCheckParameter1, ULONG_PTR BugCheckParameter2,
                  ULONG_PTR BugCheckParameter3, ULONG_PTR BugCheckParameter4) {
  char reason[600];
  std::snprintf(reason, sizeof reason, "KeBugCheckEx by %s (0x%llx, 0x%llx, 0x%llx, 0x%llx)",
                kvhost::DescribeCodeAddress(__builtin_return_address(0)).c_str(),
                static_cast<unsigned long long>(BugCheckParameter1), static_cast<unsigned long long>(BugCheckParameter2),
                static_cast<unsigned long long>(BugCheckParameter3), static_cast<unsigned long long>(BugCheckParameter4));
  kvhost::BugCheck(BugCheckCode, reason);
}

VOID KeBugCheck(ULONG BugCheckCode) {
  kvhost::BugCheck(BugCheckCode, "KeBugCheck by " + kvhost::DescribeCodeAddress(__builtin_return_address(0)));
}

}  // extern "C"
