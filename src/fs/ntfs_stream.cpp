// Reading a stream through its cluster map: whole clusters, batched by runs of up to 64 KiB
// into one request that is reused for the whole stream; holes read as zeros.
#include "fs/cbt_ntfs.h"
#include "fs/ntfs_request.h"

namespace {

// Reads are batched up to this many bytes, or one cluster when clusters are larger.
constexpr ULONG kBatchBytes = 64 * 1024;

}  // namespace

NTSTATUS NtfsMapStream(PNTFS_VOLUME_CONTEXT Context, PLARGE_MCB Mcb, LONGLONG ByteOffset, ULONG Length,
                       PNTFS_MAPPED_STREAM Stream) {
  if (Stream == NULL) return STATUS_INVALID_PARAMETER;
  Stream->Buffer = NULL;
  Stream->Data = NULL;

  if (Length == 0) return STATUS_INVALID_PARAMETER;
  const ULONG bytesPerCluster = Context->BytesPerCluster;
  // Bytes before the stream, or so far on that the end overflows, are at no VCN.
  if (ByteOffset < 0 || ByteOffset > MAXLONGLONG - Length - bytesPerCluster) {
    NTFS_LOG(Context, "NtfsMapStream", STATUS_NOT_FOUND);
    return STATUS_NOT_FOUND;
  }
  const LONGLONG firstVcn = ByteOffset / bytesPerCluster;
  const LONGLONG endVcn = (ByteOffset + Length + bytesPerCluster - 1) / bytesPerCluster;
  const ULONGLONG size = static_cast<ULONGLONG>(endVcn - firstVcn) * bytesPerCluster;
  NTSTATUS status = STATUS_SUCCESS;
  PIRP request = NULL;
  // A span that does not fit one allocation cannot be read at once.
  if (size > MAXULONG) status = STATUS_INSUFFICIENT_RESOURCES;
  // The stream must be mapped to its last cluster; finding that out first spares
  // allocating a buffer for a stream that cannot be read.
  if (NT_SUCCESS(status) && !FsRtlLookupLargeMcbEntry(Mcb, endVcn - 1, NULL, NULL, NULL, NULL, NULL))
    status = STATUS_NOT_FOUND;
  if (NT_SUCCESS(status)) {
    Stream->Buffer = ExAllocatePoolWithTag(PagedPool, static_cast<SIZE_T>(size), NTFS_POOL_TAG);
    if (Stream->Buffer == NULL) status = STATUS_INSUFFICIENT_RESOURCES;
  }

  // Whole clusters per batch, so that the VCN and the buffer advance together whatever the
  // cluster size.
  const ULONG chunk = bytesPerCluster > kBatchBytes ? bytesPerCluster : kBatchBytes / bytesPerCluster * bytesPerCluster;
  if (NT_SUCCESS(status)) {
    request = NtfsAllocateReadRequest(Context->Device, chunk);
    if (request == NULL) status = STATUS_INSUFFICIENT_RESOURCES;
  }

  LONGLONG vcn = firstVcn;
  ULONG remaining = static_cast<ULONG>(size);
  PUCHAR next = static_cast<PUCHAR>(Stream->Buffer);
  while (NT_SUCCESS(status) && remaining != 0) {
    LONGLONG lcn;
    LONGLONG clustersLeft;
    if (!FsRtlLookupLargeMcbEntry(Mcb, vcn, &lcn, &clustersLeft, NULL, NULL, NULL)) {
      status = STATUS_NOT_FOUND;
      break;
    }
    ULONG bytes = chunk;
    if (static_cast<ULONGLONG>(clustersLeft) < chunk / bytesPerCluster)
      bytes = static_cast<ULONG>(clustersLeft) * bytesPerCluster;
    if (bytes > remaining) bytes = remaining;
    if (bytes < bytesPerCluster) bytes = bytesPerCluster;

    if (lcn == -1) {
      RtlZeroMemory(NtfsRequestBuffer(request), bytes);
    } else {
      status = NtfsReadVolume(Context->Device, request, lcn * bytesPerCluster, bytes);
      if (!NT_SUCCESS(status)) break;
    }
    vcn += bytes / bytesPerCluster;
    const ULONG copied = bytes < remaining ? bytes : remaining;
    RtlCopyMemory(next, NtfsRequestBuffer(request), copied);
    next += copied;
    remaining -= copied;
  }

  CbtFreeRawIrp(request, TRUE);
  if (!NT_SUCCESS(status)) {
    NtfsFreeMappedStream(Stream);
    NTFS_LOG(Context, "NtfsMapStream", status);
    return status;
  }
  Stream->Data = static_cast<PUCHAR>(Stream->Buffer) + (ByteOffset - firstVcn * bytesPerCluster);
  return STATUS_SUCCESS;
}

VOID NtfsFreeMappedStream(PNTFS_MAPPED_STREAM Stream) {
  if (Stream->Buffer != NULL) ExFreePoolWithTag(Stream->Buffer, NTFS_POOL_TAG);
  Stream->Buffer = NULL;
  Stream->Data = NULL;
}
