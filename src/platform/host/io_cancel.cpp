// Cancelling requests: the cancel spin lock and IoCancelIrp.
#include "io_internal.h"

namespace {

KSPIN_LOCK g_cancelLock = 0;

}  // namespace

extern "C" {

void IoAcquireCancelSpinLock(PKIRQL Irql) { KeAcquireSpinLock(&g_cancelLock, Irql); }

void IoReleaseCancelSpinLock(KIRQL Irql) { KeReleaseSpinLock(&g_cancelLock, Irql); }

// Marks the request cancelled and, when its current owner has set a cancel routine, calls it
// with the cancel spin lock held (the routine releases it with Irp->CancelIrql).
BOOLEAN IoCancelIrp(PIRP Irp) {
  if (kvhost::io::CheckedHeader(Irp, "IoCancelIrp") == nullptr) return FALSE;
  KIRQL irql;
  IoAcquireCancelSpinLock(&irql);
  Irp->Cancel = TRUE;
  PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
  if (routine == nullptr) {
    IoReleaseCancelSpinLock(irql);
    return FALSE;
  }
  Irp->CancelIrql = irql;
  PDEVICE_OBJECT device =
      Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
  routine(device, Irp);
  return TRUE;
}

}  // extern "C"
