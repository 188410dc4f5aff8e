// The change bitmap: its geometry, its allocation, and the one routine that marks it.
//
// Bit i of a volume's bitmap stands for bytes [i * BytesPerBit, (i + 1) * BytesPerBit) of
// the volume; a set bit means the block was written since the bitmap was last cleared.
#include "driver/cbt_device_extension.h"
#include "tracking/cbt_tracking.h"

namespace {

// About 3.5 million bits for each started 64 TiB of volume: 100 MiB of bits, over 30.
constexpr ULONGLONG kTargetBitsPer64TiB = 104857600ull;
constexpr ULONGLONG kTargetBitsDivisor = 30;
constexpr unsigned kBytesPer64TiBShift = 46;
// A bit never covers less than 64 KiB, so a small volume's bitmap stays small and one
// file-system allocation unit rarely spans two bits.
constexpr ULONG kMinimumBytesPerBit = 65536;
// Bitmap buffers are whole pages.
constexpr ULONG kBitmapAllocationGranule = 4096;

ULONG BitmapAllocationSize(ULONG BitCount) {
  return (((BitCount + 7) >> 3) + (kBitmapAllocationGranule - 1)) & ~(kBitmapAllocationGranule - 1);
}

// How a range compared with the bitmap it was to be marked in.
enum class RangeFit { Inside, RunsPastEnd, StartsOutside };

}  // namespace

NTSTATUS CbtCalculateBitmapGeometry(ULONG ClusterCount, ULONG BytesPerCluster, PULONG BitCount, PULONG BytesPerBit) {
  if (ClusterCount == 0 || BytesPerCluster == 0 || BitCount == NULL || BytesPerBit == NULL)
    return STATUS_INVALID_PARAMETER;
  *BitCount = 0;
  *BytesPerBit = 0;

  const ULONGLONG volumeBytes = static_cast<ULONGLONG>(ClusterCount) * BytesPerCluster;
  const ULONGLONG targetBits =
      (static_cast<ULONGLONG>(static_cast<ULONG>(volumeBytes >> kBytesPer64TiBShift)) + 1) * kTargetBitsPer64TiB /
      kTargetBitsDivisor;
  ULONG clustersPerBit = static_cast<ULONG>(volumeBytes / targetBits / BytesPerCluster);
  if (clustersPerBit == 0) clustersPerBit = 1;
  ULONG bytesPerBit = clustersPerBit * BytesPerCluster;
  if (bytesPerBit < kMinimumBytesPerBit) {
    ULONG minimumClusters = kMinimumBytesPerBit / BytesPerCluster;
    if (minimumClusters == 0) minimumClusters = 1;
    bytesPerBit = minimumClusters * BytesPerCluster;
  }
  ULONG bits = static_cast<ULONG>(volumeBytes / bytesPerBit);
  if (volumeBytes % bytesPerBit != 0) ++bits;

  *BitCount = bits;
  *BytesPerBit = bytesPerBit;
  // A bit count cut to 32 bits no longer covers the volume: the caller gets the outputs
  // but must not use them.
  const ULONGLONG covered = static_cast<ULONGLONG>(bytesPerBit) * bits;
  if (covered < volumeBytes || covered > volumeBytes + bytesPerBit - 1) return STATUS_INVALID_BUFFER_SIZE;
  return STATUS_SUCCESS;
}

NTSTATUS CbtAllocateTrackingBitMap(PCBT_DEVICE_EXTENSION Extension, ULONG BitCount) {
  if (BitCount == 0) {
    CBT_LOG_VOLUME(Extension, "CbtAllocateTrackingBitMap", STATUS_INVALID_PARAMETER);
    return STATUS_INVALID_PARAMETER;
  }
  KIRQL irql;
  KeAcquireSpinLock(&Extension->BitmapLock, &irql);
  const BOOLEAN sameSize = Extension->TrackingBitmap.SizeOfBitMap == BitCount;
  KeReleaseSpinLock(&Extension->BitmapLock, irql);
  if (sameSize) return STATUS_SUCCESS;

  // Pool is taken and given back outside the lock: writes go on marking the old buffer
  // meanwhile, and whatever they mark is copied over in the swap below.
  const ULONG allocationSize = BitmapAllocationSize(BitCount);
  PULONG buffer = static_cast<PULONG>(ExAllocatePoolWithTag(NonPagedPoolNx, allocationSize, CBT_POOL_TAG));
  if (buffer == NULL) {
    CBT_LOG_VOLUME(Extension, "CbtAllocateTrackingBitMap", allocationSize);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(buffer, allocationSize);

  KeAcquireSpinLock(&Extension->BitmapLock, &irql);
  PULONG oldBuffer = Extension->TrackingBitmap.Buffer;
  if (oldBuffer != NULL) {
    const ULONG keep =
        allocationSize < Extension->BitmapAllocationSize ? allocationSize : Extension->BitmapAllocationSize;
    RtlCopyMemory(buffer, oldBuffer, keep);
  }
  RtlInitializeBitMap(&Extension->TrackingBitmap, buffer, BitCount);
  Extension->BitmapAllocationSize = allocationSize;
  KeReleaseSpinLock(&Extension->BitmapLock, irql);

  if (oldBuffer != NULL) ExFreePoolWithTag(oldBuffer, CBT_POOL_TAG);
  return STATUS_SUCCESS;
}

BOOLEAN CbtSetBitsInTrackingBitmap(PCBT_DEVICE_EXTENSION Extension, LONGLONG ByteOffset, ULONG Length,
                                   BOOLEAN PagingIo) {
  const ULONG bytesPerBit = Extension->BytesPerBit;
  if (bytesPerBit == 0) return FALSE;  // no geometry yet

  // The range in bits, in 64-bit arithmetic so that no offset wraps into the bitmap. A
  // negative offset lies before the volume like one past its end does. A write of no bytes
  // touches no block.
  const ULONGLONG first = ByteOffset < 0 ? ~0ull : static_cast<ULONGLONG>(ByteOffset / bytesPerBit);
  const ULONG remainder = ByteOffset < 0 ? 0 : static_cast<ULONG>(ByteOffset - static_cast<LONGLONG>(first) * bytesPerBit);
  ULONGLONG count = Length == 0 ? 0 : (static_cast<ULONGLONG>(remainder) + (bytesPerBit - 1) + Length) / bytesPerBit;

  // The range is held against the bitmap's size under the lock: a reallocation may change
  // the size at any moment before.
  RangeFit fit = RangeFit::Inside;
  BOOLEAN newBits = FALSE;
  const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Extension->BitmapLock);
  const ULONG size = Extension->TrackingBitmap.SizeOfBitMap;
  if (first > size) {
    fit = RangeFit::StartsOutside;
    count = 0;
  } else if (count > size - first) {
    fit = RangeFit::RunsPastEnd;
    count = size - first;
  }
  // A range of no bits (a write of no bytes, or one that starts right at the end of the
  // bitmap) sets nothing, so it is no tracked write: counting it would report a change
  // where none was made, and asking for a flush would write the tracking file for nothing.
  //
  // The clock is read only once the test found bits to set: a rewrite of marked blocks, the
  // common write, then costs the lock and the test alone, and the time accumulated is the
  // time spent changing the bitmap.
  LARGE_INTEGER started = {};
  if (count != 0 && !RtlAreBitsSet(&Extension->TrackingBitmap, static_cast<ULONG>(first), static_cast<ULONG>(count))) {
    started = KeQueryPerformanceCounter(NULL);
    RtlSetBits(&Extension->TrackingBitmap, static_cast<ULONG>(first), static_cast<ULONG>(count));
    newBits = TRUE;
  }
  KeReleaseSpinLock(&Extension->BitmapLock, irql);

  if (fit != RangeFit::Inside) CBT_LOG_VOLUME(Extension, "CbtSetBitsInTrackingBitmap", STATUS_INVALID_PARAMETER);
  if (!newBits) return FALSE;

  LARGE_INTEGER frequency;
  const LARGE_INTEGER finished = KeQueryPerformanceCounter(&frequency);
  if (PagingIo) InterlockedIncrement64(&Extension->PagingWriteCount);
  InterlockedIncrement64(&Extension->TrackedWriteCount);
  InterlockedAdd64(&Extension->TrackedWriteBytes, Length);
  InterlockedAdd64(&Extension->TrackedWriteBits, static_cast<LONG64>(count));
  InterlockedAdd64(&Extension->TrackingTimeMicroseconds,
                   (finished.QuadPart - started.QuadPart) * 1000000 / frequency.QuadPart);
  return TRUE;
}
