// Holding a volume's writes, and letting them go again.
//
// While a backup application freezes the volume for a shadow copy, or while the volume
// comes online, its writes wait in HeldWriteList, in the order they arrived. A held request
// is pending and keeps the removal-protection reference it took when it arrived; it is
// linked through the first two words of its driver-context area (the third is cleared too).
// When the last holder lets go, every held request goes through the driver's dispatch again,
// as if it had just arrived, and is tracked in the period open at that moment.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_removal_protection.h"
#include "tracking/cbt_tracking.h"

namespace {

LONG volatile* HoldCountOf(PCBT_DEVICE_EXTENSION Extension) {
  return reinterpret_cast<LONG volatile*>(&Extension->HoldCount);
}

// The driver-context words a held request is linked through.
constexpr ULONG kHeldLinkWords = 3;

PLIST_ENTRY HeldLinkOf(PIRP Irp) { return reinterpret_cast<PLIST_ENTRY>(&Irp->Tail.Overlay.DriverContext[0]); }

PIRP IrpOfHeldLink(PLIST_ENTRY Link) { return CONTAINING_RECORD(Link, IRP, Tail.Overlay.DriverContext[0]); }

VOID ClearHeldLink(PIRP Irp) {
  for (ULONG word = 0; word < kHeldLinkWords; ++word) Irp->Tail.Overlay.DriverContext[word] = NULL;
}

}  // namespace

VOID CbtHoldVolumeIo(PCBT_DEVICE_EXTENSION Extension) {
  KIRQL irql;
  KeAcquireSpinLock(&Extension->HoldLock, &irql);
  InterlockedIncrement(HoldCountOf(Extension));
  KeReleaseSpinLock(&Extension->HoldLock, irql);
}

ULONG CbtQueueHeldRequest(PCBT_DEVICE_EXTENSION Extension, PIRP Irp) {
  // A volume that flows, the common case, is told by one load, without the lock: every
  // change of the count is one interlocked operation. A request that reads 0 here goes on
  // just as one that took the lock before the hold began would; only a request that may
  // have to be queued takes the lock, and looks again under it, so that it is never queued
  // behind the resume that ended the hold.
  if (ReadAcquire(HoldCountOf(Extension)) == 0) return 0;
  KIRQL irql;
  KeAcquireSpinLock(&Extension->HoldLock, &irql);
  const ULONG holdCount = Extension->HoldCount;
  if (holdCount != 0) {
    IoMarkIrpPending(Irp);
    ClearHeldLink(Irp);
    InsertTailList(&Extension->HeldWriteList, HeldLinkOf(Irp));
  }
  KeReleaseSpinLock(&Extension->HoldLock, irql);
  return holdCount;
}

VOID CbtResumeVolumeIo(PCBT_DEVICE_EXTENSION Extension) {
  LIST_ENTRY replay;
  KIRQL irql;
  KeAcquireSpinLock(&Extension->HoldLock, &irql);
  if (Extension->HoldCount == 0 || InterlockedDecrement(HoldCountOf(Extension)) != 0 ||
      IsListEmpty(&Extension->HeldWriteList)) {
    // Not held, another holder remains, or nothing arrived meanwhile.
    KeReleaseSpinLock(&Extension->HoldLock, irql);
    return;
  }
  // The whole queue moves to a local head, so that requests arriving from now on (the
  // volume flows again) and requests held again by a new hold are not replayed here.
  replay.Flink = Extension->HeldWriteList.Flink;
  replay.Blink = Extension->HeldWriteList.Blink;
  replay.Flink->Blink = &replay;
  replay.Blink->Flink = &replay;
  InitializeListHead(&Extension->HeldWriteList);
  KeReleaseSpinLock(&Extension->HoldLock, irql);

  // The caller's own removal protection keeps the extension alive while the requests are
  // let go; each request takes a new reference of its own when it is dispatched again.
  PDEVICE_OBJECT device = Extension->DeviceObject;
  while (!IsListEmpty(&replay)) {
    PIRP irp = IrpOfHeldLink(RemoveHeadList(&replay));
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "[KVCBT] %s: Executing paused IRP %p on device %p\n",
               "CbtResumeVolumeIo", static_cast<PVOID>(irp), static_cast<PVOID>(device));
    CbtReleaseRemovalProtection(device);
    ClearHeldLink(irp);
    const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    device->DriverObject->MajorFunction[major](device, irp);
  }
}
