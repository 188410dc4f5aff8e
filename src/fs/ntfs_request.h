// The reader's raw reads: one request with a buffer of its own, sent to the volume's lower
// device below this driver's filter, so that metadata reads are never tracked.
#pragma once
#include <ntddk.h>

#include "fs/cbt_fs_context.h"
#include "trackfile/cbt_raw_io.h"

// A read request over a buffer of at least Length bytes (never less than 4096); NULL when
// the request or its buffer cannot be had. Freed with CbtFreeRawIrp(Irp, TRUE).
FORCEINLINE PIRP NtfsAllocateReadRequest(PDEVICE_OBJECT Device, ULONG Length) {
  return CbtAllocateRawIrp(Device->StackSize, NULL, Length, IoPriorityNormal);
}

// The request's buffer: non-paged pool, mapped in system space by construction.
FORCEINLINE PUCHAR NtfsRequestBuffer(PIRP Irp) { return static_cast<PUCHAR>(Irp->MdlAddress->MappedSystemVa); }

// Reads Length bytes (at least 4096 are transferred) at the volume's ByteOffset into the
// request's buffer.
FORCEINLINE NTSTATUS NtfsReadVolume(PDEVICE_OBJECT Device, PIRP Irp, LONGLONG ByteOffset, ULONG Length) {
  return CbtSendRawIrp(Device, Irp, IRP_MJ_READ, &ByteOffset, Length);
}
