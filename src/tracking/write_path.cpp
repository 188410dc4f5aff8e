// The write path of a tracked volume: every write that reaches the filter is held while
// the volume is frozen, and otherwise marked in the change bitmap before it goes down.
//
// The first stage runs in the caller's thread at up to DISPATCH_LEVEL and never blocks.
// The second stage (watching the file system's restart or checkpoint writes, marking, and
// flushing the tracking file when such a count changed) may wait, so it runs inline only
// below DISPATCH_LEVEL with room left on the stack, and otherwise on a critical work item
// whose context comes from the lookaside list. A write that can be neither marked inline
// nor deferred fails: a write that reached the disk unmarked would be a change the backup
// never sees.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_removal_protection.h"
#include "fs/cbt_fs.h"
#include "trackfile/cbt_trackfile.h"
#include "tracking/cbt_tracking.h"

namespace {

// Stage two may wait, map and flush; below this much stack it goes to a worker thread.
constexpr ULONG_PTR kInlineStageTwoStackBytes = 4096;

// A write's data mapped for the file-system reader, without a bug check when no mapping
// is to be had.
constexpr ULONG kReaderMappingPriority = NormalPagePriority | MdlMappingNoExecute;

NTSTATUS CompleteWrite(PIRP Irp, NTSTATUS Status) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = 0;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

// The checkpoint count a ReFS checkpoint write carries, when the write is one. The ReFS
// check keeps the newest checkpoint count in the reader's state: it changes the reader, so
// it runs under FileSystemMutex, one write at a time, and finds out again there whether the
// reader is still a ReFS one.
BOOLEAN RefsCheckpointCountOf(PCBT_DEVICE_EXTENSION Extension, PIRP Irp, LONGLONG ByteOffset, PULONG Count) {
  if (Irp->MdlAddress == NULL) return FALSE;
  BOOLEAN found = FALSE;
  KeWaitForSingleObject(&Extension->FileSystemMutex, Executive, KernelMode, FALSE, NULL);
  if ((CbtReadFlags(Extension) & CBT_FLAG_FS_CONTEXT) != 0 && Extension->FileSystemType == CBT_FILE_SYSTEM_REFS) {
    // Data that cannot be mapped is taken for a write that touches no checkpoint.
    PVOID data = MmGetSystemAddressForMdlSafe(Irp->MdlAddress, kReaderMappingPriority);
    PREFS_VOLUME_CONTEXT refs = CbtRefsContext(&Extension->FileSystemContext);
    if (data != NULL && RefsIsWriteToCheckpoint(refs, data, static_cast<ULONGLONG>(ByteOffset))) {
      *Count = static_cast<ULONG>(refs->CheckpointCount);
      found = TRUE;
    }
  }
  KeSetEvent(&Extension->FileSystemMutex, IO_NO_INCREMENT, FALSE);
  return found;
}

// TRUE when the write carries a file-system restart or checkpoint count other than the one
// last seen, which then becomes LastRestartCount.
//
// NTFS's check only reads the reader's state, so concurrent writes make it side by side
// under a reference on the reader rather than one at a time under FileSystemMutex: every
// teardown of the reader (removal, offline, a new boot sector) takes the mutex and waits
// for these references before the reader goes, and a write that finds a teardown under way,
// or the reader gone, does not look. The context flag is read with acquire semantics, so
// that a reader set up since the last teardown is seen whole. The count is exchanged as one
// operation: of writes racing with the same new count, exactly one sees the change.
BOOLEAN WriteChangesRestartCount(PCBT_DEVICE_EXTENSION Extension, PIRP Irp, LONGLONG ByteOffset) {
  ULONG count = 0;
  BOOLEAN found = FALSE;
  ULONG type = CBT_FILE_SYSTEM_NONE;
  if (ExAcquireRundownProtection(&Extension->FileSystemRundown)) {
    const LONG flags = ReadAcquire(reinterpret_cast<LONG const volatile*>(&Extension->Flags));
    if ((static_cast<ULONG>(flags) & CBT_FLAG_FS_CONTEXT) != 0) type = Extension->FileSystemType;
    if (type == CBT_FILE_SYSTEM_NTFS)
      found = NtfsIsLogFileRestartCountIrp(CbtNtfsContext(&Extension->FileSystemContext), Irp, &count);
    ExReleaseRundownProtection(&Extension->FileSystemRundown);
  }
  if (type == CBT_FILE_SYSTEM_REFS) found = RefsCheckpointCountOf(Extension, Irp, ByteOffset, &count);
  if (!found) return FALSE;
  const ULONG previous = static_cast<ULONG>(
      InterlockedExchange(reinterpret_cast<LONG volatile*>(&Extension->LastRestartCount), static_cast<LONG>(count)));
  return previous != count;
}

// The tracking file takes the new restart or checkpoint count in its header, and the
// write's new bits in its entries, before the metadata write itself reaches the volume.
VOID FlushForRestartCount(PCBT_DEVICE_EXTENSION Extension, BOOLEAN NewBits) {
  // Interlocked even under Lock: other bits of Flags change without it.
  KIRQL irql;
  KeAcquireSpinLock(&Extension->Lock, &irql);
  CbtSetFlags(Extension, CBT_FLAG_FLUSH_METADATA | (NewBits ? CBT_FLAG_BITMAP_DIRTY : 0));
  KeReleaseSpinLock(&Extension->Lock, irql);
  const NTSTATUS status =
      CbtFlushTrackingFile(Extension, (CbtReadFlags(Extension) & CBT_FLAG_SHUTDOWN) != 0, FALSE);
  if (!NT_SUCCESS(status)) CBT_LOG_VOLUME(Extension, "CbtWriteWorkerStageTwo", status);
}

}  // namespace

NTSTATUS CbtDispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  Irp->IoStatus.Information = 0;
  const ULONG state = CbtAcquireRemovalProtection(DeviceObject);
  if (state != CbtRemovalActive) {
    CBT_LOG_VOLUME(extension, "CbtDispatchWrite", STATUS_DEVICE_NOT_CONNECTED);
    if (state == CbtRemovalPending) CbtReleaseRemovalProtection(DeviceObject);
    return CompleteWrite(Irp, STATUS_DEVICE_NOT_CONNECTED);
  }

  // Once queued, the write may be let go and finished by another thread, and the volume
  // may go with it: its record is made from what was read before.
  const ULONG flags = CbtReadFlags(extension);
  const ULONG volumeNumber = extension->VolumeNumber;
  const WCHAR driveLetter = extension->DriveLetter;
  const ULONG holdCount = CbtQueueHeldRequest(extension, Irp);
  if (holdCount != 0) {
    CbtLogEvent(flags, volumeNumber, driveLetter, "CbtDispatchWrite", __LINE__, holdCount);
    return STATUS_PENDING;
  }

  if ((flags & (CBT_FLAG_READ_ONLY | CBT_FLAG_SNAPSHOT_DEVICE)) == (CBT_FLAG_READ_ONLY | CBT_FLAG_SNAPSHOT_DEVICE)) {
    // A read-only shadow copy has nothing to track; what the volume below makes of the
    // write is its own affair.
    CBT_LOG_VOLUME(extension, "CbtDispatchWrite", STATUS_INVALID_DEVICE_STATE);
    return CbtReleaseAndPassDown(DeviceObject, Irp);
  }
  if ((flags & (CBT_FLAG_ONLINE | CBT_FLAG_FILE_SYSTEM_READABLE)) == 0) {
    // Written before the volume came online: whatever is tracked from here on cannot vouch
    // for the period, until tracking is switched on again.
    CBT_LOG_VOLUME(extension, "CbtDispatchWrite", STATUS_FILE_CORRUPT_ERROR);
    CbtClearFlags(extension, CBT_FLAG_TRACKING_VALID);
  }
  if ((flags & CBT_FLAG_WRITTEN) == 0) CbtSetFlags(extension, CBT_FLAG_WRITTEN);

  if (KeGetCurrentIrql() < DISPATCH_LEVEL && IoGetRemainingStackSize() >= kInlineStageTwoStackBytes)
    return CbtWriteWorkerStageTwo(DeviceObject, Irp);
  // Failing is what is left when no work context is to be had: a write that reached the
  // volume unmarked would be a change the backup never sees.
  return CbtDeferToCriticalWorkItem(DeviceObject, extension, Irp, CbtWorkWriteStageTwo, CbtWriteWorkItem);
}

VOID CbtWriteWorkItem(PDEVICE_OBJECT DeviceObject, PVOID Context) {
  PCBT_WORK_CONTEXT context = static_cast<PCBT_WORK_CONTEXT>(Context);
  if (context == NULL) return;
  PCBT_DEVICE_EXTENSION extension = context->DeviceExtension;
  PIRP irp = context->Irp;
  InterlockedIncrement64(&extension->DeferredWriteCount);
  IoUninitializeWorkItem(CbtWorkContextItem(context));
  ExFreeToNPagedLookasideList(&extension->DriverExtension->WorkItemLookaside, context);
  CbtWriteWorkerStageTwo(DeviceObject, irp);
}

NTSTATUS CbtWriteWorkerStageTwo(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  const LONGLONG byteOffset = stack->Parameters.Write.ByteOffset.QuadPart;

  if (byteOffset == 0 && CbtFlagsSet(extension, CBT_FLAG_LOCKED | CBT_FLAG_FS_CONTEXT)) {
    // A new boot sector on a locked volume: the file system is being replaced (formatted or
    // converted), so the reader's picture of it is stale. Writes go untracked until the file
    // system is initialised again.
    CBT_LOG_VOLUME(extension, "CbtWriteWorkerStageTwo", STATUS_FAIL_CHECK);
    CbtUninitializeFileSystem(extension);
  }

  if ((CbtReadFlags(extension) & CBT_FLAG_FS_CONTEXT) != 0) {
    const BOOLEAN changed = WriteChangesRestartCount(extension, Irp, byteOffset);
    const BOOLEAN newBits = CbtSetBitsInTrackingBitmap(extension, byteOffset, stack->Parameters.Write.Length,
                                                       (Irp->Flags & IRP_PAGING_IO) != 0);
    if (changed && (CbtReadFlags(extension) & CBT_FLAG_TRACKING_FILE_READY) != 0)
      FlushForRestartCount(extension, newBits);
  } else {
    InterlockedIncrement64(&extension->UntrackedWriteCount);
  }

  return CbtReleaseAndPassDown(DeviceObject, Irp);
}
