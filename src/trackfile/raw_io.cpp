// Raw volume I/O.
//
// Seam: until raw transfers are built, no extent is found and no request can be had;
// callers see the failures they already handle.
#include "trackfile/cbt_raw_io.h"

NTSTATUS CbtGetFileExtent(HANDLE FileHandle, PLONGLONG FirstLcn, PLONGLONG EndLcn) {
  UNREFERENCED_PARAMETER(FileHandle);
  *FirstLcn = 0;
  *EndLcn = -1;
  return STATUS_NOT_IMPLEMENTED;
}

PIRP CbtAllocateRawIrp(CCHAR StackSize, PVOID Buffer, ULONG Length, IO_PRIORITY_HINT PriorityHint) {
  UNREFERENCED_PARAMETER(StackSize);
  UNREFERENCED_PARAMETER(Buffer);
  UNREFERENCED_PARAMETER(Length);
  UNREFERENCED_PARAMETER(PriorityHint);
  return NULL;
}

NTSTATUS CbtSendRawIrp(PDEVICE_OBJECT TargetDevice, PIRP Irp, UCHAR MajorFunction, PLONGLONG ByteOffset,
                       ULONG Length) {
  UNREFERENCED_PARAMETER(TargetDevice);
  UNREFERENCED_PARAMETER(Irp);
  UNREFERENCED_PARAMETER(MajorFunction);
  UNREFERENCED_PARAMETER(ByteOffset);
  UNREFERENCED_PARAMETER(Length);
  return STATUS_NOT_IMPLEMENTED;
}

VOID CbtFreeRawIrp(PIRP Irp, BOOLEAN FreeBuffer) {
  UNREFERENCED_PARAMETER(Irp);
  UNREFERENCED_PARAMETER(FreeBuffer);
}
