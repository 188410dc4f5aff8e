// Raw volume I/O: where a file lies on its volume, and transfers of its bytes straight to and
// from the device below the filter.
//
// The tracking file, the debug log and the file-system metadata are read and written below
// the file system. A transfer built here goes to the device under the filter, so it never
// passes the driver's own dispatch (it is never tracked) and it works while the file system
// cannot serve the file (a locked or dismounting volume, shutdown).
#include <ntifs.h>

#include "driver/cbt_dispatch.h"
#include "driver/cbt_driver.h"
#include "trackfile/cbt_raw_io.h"

namespace {

// A transfer is never shorter than one page: the tracking-file header and the smallest
// metadata read both fit in it, and sector sizes up to 4096 bytes divide it.
constexpr ULONG kMinimumTransferBytes = 4096;
// The retrieval-pointers answer starts with room for far more than the one extent the
// callers accept.
constexpr ULONG kFirstExtentAnswerBytes = 4096;
// A lower driver that cancels a transfer (a volume briefly unable to take requests) gets the
// same transfer again, up to this many sends in all.
constexpr ULONG kMaximumSends = 10;
// The transfer key: "1TBC" in memory order, so a trace of the volume's requests shows which
// ones are the driver's own.
constexpr ULONG kRawTransferKey = 0x43425431;

ULONG TransferBytes(ULONG Length) { return Length > kMinimumTransferBytes ? Length : kMinimumTransferBytes; }

}  // namespace

NTSTATUS CbtGetFileExtent(_In_ HANDLE FileHandle, _Out_ PLONGLONG FirstLcn, _Out_ PLONGLONG EndLcn) {
  STARTING_VCN_INPUT_BUFFER input;
  input.StartingVcn.QuadPart = 0;
  ULONG answerBytes = kFirstExtentAnswerBytes;

  for (;;) {
    // Zeroed so that an answer without extents yields a first cluster of 0, not leftover
    // pool contents.
    auto* answer = static_cast<PRETRIEVAL_POINTERS_BUFFER>(ExAllocatePoolWithTag(NonPagedPoolNx, answerBytes, CBT_POOL_TAG));
    if (answer == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    RtlZeroMemory(answer, answerBytes);

    IO_STATUS_BLOCK ioStatus;
    NTSTATUS status = ZwFsControlFile(FileHandle, NULL, NULL, NULL, &ioStatus, FSCTL_GET_RETRIEVAL_POINTERS, &input,
                                      sizeof(input), answer, answerBytes);
    if (status == STATUS_BUFFER_OVERFLOW) {
      ExFreePoolWithTag(answer, CBT_POOL_TAG);
      // The answer doubles until it fits. A size that no longer fits in 32 bits cannot be
      // allocated on any volume the driver serves; stopping there keeps the doubling from
      // wrapping to zero and asking for ever.
      if (answerBytes > MAXULONG / 2) return STATUS_INSUFFICIENT_RESOURCES;
      answerBytes *= 2;
      continue;
    }
    if (!NT_SUCCESS(status)) {
      ExFreePoolWithTag(answer, CBT_POOL_TAG);
      return status;
    }

    *FirstLcn = answer->Extents[0].Lcn.QuadPart;
    if (answer->ExtentCount != 1) {
      // A file in several fragments (or none) has no single location to write raw.
      *EndLcn = -1;
      ExFreePoolWithTag(answer, CBT_POOL_TAG);
      return STATUS_NOT_TINY_STREAM;
    }
    *EndLcn = answer->Extents[0].NextVcn.QuadPart - answer->StartingVcn.QuadPart + answer->Extents[0].Lcn.QuadPart;
    ExFreePoolWithTag(answer, CBT_POOL_TAG);
    return status;
  }
}

PIRP CbtAllocateRawIrp(_In_ CCHAR StackSize, _In_opt_ PVOID Buffer, _In_ ULONG Length,
                       _In_ IO_PRIORITY_HINT PriorityHint) {
  const ULONG size = TransferBytes(Length);
  PVOID buffer = Buffer;
  if (buffer == NULL) {
    buffer = ExAllocatePoolWithTag(NonPagedPoolNx, size, CBT_POOL_TAG);
    if (buffer == NULL) return NULL;
  }

  PMDL mdl = IoAllocateMdl(buffer, size, FALSE, FALSE, NULL);
  PIRP irp = mdl != NULL ? IoAllocateIrp(StackSize, FALSE) : NULL;
  if (irp == NULL) {
    if (mdl != NULL) IoFreeMdl(mdl);
    if (Buffer == NULL) ExFreePoolWithTag(buffer, CBT_POOL_TAG);
    return NULL;
  }

  IoSetIoPriorityHint(irp, PriorityHint);
  MmBuildMdlForNonPagedPool(mdl);
  irp->MdlAddress = mdl;
  return irp;
}

NTSTATUS CbtSendRawIrp(_In_ PDEVICE_OBJECT TargetDevice, _In_ PIRP Irp, _In_ UCHAR MajorFunction,
                       _In_ PLONGLONG ByteOffset, _In_ ULONG Length) {
  const ULONG length = TransferBytes(Length);
  if (Irp->MdlAddress == NULL || length > MmGetMdlByteCount(Irp->MdlAddress)) return STATUS_INVALID_PARAMETER;
  // A volume always reports its sector size; a device that reports none gives no way to know
  // whether a transfer is whole sectors, and a partial sector would fail or corrupt below
  // the filter. Such a transfer is refused like a misaligned one.
  const ULONG sectorSize = TargetDevice->SectorSize;
  if (sectorSize == 0 || length % sectorSize != 0) return STATUS_INVALID_PARAMETER;

  Irp->Flags |= IRP_NOCACHE;
  NTSTATUS status = STATUS_CANCELLED;
  for (ULONG send = 1; send <= kMaximumSends; ++send) {
    Irp->Cancel = FALSE;
    Irp->Tail.Overlay.OriginalFileObject = NULL;
    Irp->Tail.Overlay.Thread = (PETHREAD)KeGetCurrentThread();

    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(Irp);
    next->MajorFunction = MajorFunction;
    next->Flags = SL_OVERRIDE_VERIFY_VOLUME;
    next->Parameters.Read.Length = length;
    next->Parameters.Read.Key = kRawTransferKey;
    next->Parameters.Read.ByteOffset.QuadPart = *ByteOffset;
    next->DeviceObject = TargetDevice;

    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(Irp, CbtSynchronousCompletion, &done, TRUE, TRUE, TRUE);
    if (IoCallDriver(TargetDevice, Irp) == STATUS_PENDING)
      KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);

    status = Irp->IoStatus.Status;
    if (status != STATUS_CANCELLED) break;
  }
  return status;
}

VOID CbtFreeRawIrp(_In_opt_ PIRP Irp, _In_ BOOLEAN FreeBuffer) {
  if (Irp == NULL) return;
  PMDL mdl = Irp->MdlAddress;
  if (mdl != NULL) {
    if (FreeBuffer) ExFreePoolWithTag(MmGetMdlVirtualAddress(mdl), CBT_POOL_TAG);
    Irp->MdlAddress = NULL;
    IoFreeMdl(mdl);
  }
  IoFreeIrp(Irp);
}
