// IRQL: one level per thread. On the host nothing is masked; the level exists so that the
// rules that depend on it (no waits, no paged pool, spin locks at DISPATCH_LEVEL) are
// checked where Windows would enforce them.
#include <cstdio>

#include "kernel_thread.h"
#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"

namespace {

thread_local KIRQL t_irql = PASSIVE_LEVEL;

}  // namespace

namespace kvhost::detail {

void ForceIrql(KIRQL irql) { t_irql = irql; }

}  // namespace kvhost::detail

extern "C" {

KIRQL KeGetCurrentIrql(VOID) { return t_irql; }

KIRQL KfRaiseIrql(KIRQL NewIrql) {
  KIRQL old = t_irql;
  if (NewIrql < old || NewIrql > HIGH_LEVEL) {
    // Windows: bug check 0x9, IRQL_NOT_GREATER_OR_EQUAL. The level stays where it was.
    kvhost::ReportViolationF("IrqlNotGreaterOrEqual", "KeRaiseIrql to %u at IRQL %u by %s", NewIrql, old,
                             kvhost::DescribeCodeAddress(__builtin_return_address(0)).c_str());
    return old;
  }
  t_irql = NewIrql;
  return old;
}

VOID KeLowerIrql(KIRQL NewIrql) {
  KIRQL current = t_irql;
  if (NewIrql > current) {
    // Windows: bug check 0xA, IRQL_NOT_LESS_OR_EQUAL. The level stays where it was.
    kvhost::ReportViolationF("IrqlNotLessOrEqual", "KeLowerIrql to %u at IRQL %u by %s", NewIrql, current,
                             kvhost::DescribeCodeAddress(__builtin_return_address(0)).c_str());
    return;
  }
  if (NewIrql < DISPATCH_LEVEL && current >= DISPATCH_LEVEL) {
    ULONG held = kvhost::detail::CurrentThread().SpinLocksHeld;
    if (held != 0)
      kvhost::ReportViolationF("IrqlLoweredHoldingSpinLock", "KeLowerIrql to %u by %s while holding %lu spin lock(s)",
                               NewIrql, kvhost::DescribeCodeAddress(__builtin_return_address(0)).c_str(),
                               static_cast<unsigned long>(held));
  }
  t_irql = NewIrql;
}

KIRQL KeRaiseIrqlToDpcLevel(VOID) {
  KIRQL old = t_irql;
  if (old > DISPATCH_LEVEL) {
    kvhost::ReportViolationF("IrqlNotGreaterOrEqual", "KeRaiseIrqlToDpcLevel at IRQL %u by %s", old,
                             kvhost::DescribeCodeAddress(__builtin_return_address(0)).c_str());
    return old;
  }
  t_irql = DISPATCH_LEVEL;
  return old;
}

KIRQL KeRaiseIrqlToSynchLevel(VOID) {
  KIRQL old = t_irql;
  if (old > SYNCH_LEVEL) {
    kvhost::ReportViolationF("IrqlNotGreaterOrEqual", "KeRaiseIrqlToSynchLevel at IRQL %u by %s", old,
                             kvhost::DescribeCodeAddress(__builtin_return_address(0)).c_str());
    return old;
  }
  t_irql = SYNCH_LEVEL;
  return old;
}

}  // extern "C"
