// The change bitmap: geometry, allocation and marking.
//
// Seam: the bitmap is built together with the write path. Until then no volume gets a
// geometry, so no bitmap exists and no write is marked.
#include "driver/cbt_device_extension.h"
#include "tracking/cbt_tracking.h"

NTSTATUS CbtCalculateBitmapGeometry(ULONG ClusterCount, ULONG BytesPerCluster, PULONG BitCount, PULONG BytesPerBit) {
  UNREFERENCED_PARAMETER(ClusterCount);
  UNREFERENCED_PARAMETER(BytesPerCluster);
  UNREFERENCED_PARAMETER(BitCount);
  UNREFERENCED_PARAMETER(BytesPerBit);
  return STATUS_NOT_IMPLEMENTED;
}

NTSTATUS CbtAllocateTrackingBitMap(PCBT_DEVICE_EXTENSION Extension, ULONG BitCount) {
  UNREFERENCED_PARAMETER(Extension);
  UNREFERENCED_PARAMETER(BitCount);
  return STATUS_NOT_IMPLEMENTED;
}

BOOLEAN CbtSetBitsInTrackingBitmap(PCBT_DEVICE_EXTENSION Extension, LONGLONG ByteOffset, ULONG Length,
                                   BOOLEAN PagingIo) {
  UNREFERENCED_PARAMETER(Extension);
  UNREFERENCED_PARAMETER(ByteOffset);
  UNREFERENCED_PARAMETER(Length);
  UNREFERENCED_PARAMETER(PagingIo);
  return FALSE;
}
