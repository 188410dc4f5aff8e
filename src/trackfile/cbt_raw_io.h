// Raw volume I/O: a file's single extent, and transfers the driver builds itself and sends
// below its own filter device, so they are never tracked and do not need the file system.
// All run at PASSIVE_LEVEL.
#pragma once
#include <ntddk.h>

// The clusters of a file that is one extent: FirstLcn, and EndLcn just past its last.
NTSTATUS CbtGetFileExtent(_In_ HANDLE FileHandle, _Out_ PLONGLONG FirstLcn, _Out_ PLONGLONG EndLcn);

// A transfer request over Buffer (NULL: a buffer of Length bytes, at least 4096, is
// allocated); NULL when an allocation fails.
PIRP CbtAllocateRawIrp(_In_ CCHAR StackSize, _In_opt_ PVOID Buffer, _In_ ULONG Length,
                       _In_ IO_PRIORITY_HINT PriorityHint);

// Sends the request (IRP_MJ_READ or IRP_MJ_WRITE) to TargetDevice and waits for it; the
// request stays the caller's. Returns the transfer's final status.
NTSTATUS CbtSendRawIrp(_In_ PDEVICE_OBJECT TargetDevice, _Inout_ PIRP Irp, _In_ UCHAR MajorFunction,
                       _In_ PLONGLONG ByteOffset, _In_ ULONG Length);

VOID CbtFreeRawIrp(_In_opt_ PIRP Irp, _In_ BOOLEAN FreeBuffer);
