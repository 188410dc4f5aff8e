// Raw transfers (CbtAllocateRawIrp, CbtSendRawIrp, CbtFreeRawIrp) against a scripted device
// below: what the device receives, the one-page minimum, whole sectors, cancelled transfers
// sent again, and running out of memory while a request is built.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kvhost/io.h"
#include "kvhost/pool.h"
#include "probe_device.h"
#include "trackfile/cbt_raw_io.h"

namespace {

using kvtest::ProbeDevice;

constexpr ULONG kTestTag = 0x54527374;  // "tsRT"

// A caller's buffer in non-paged pool, as the tracking-file image is.
class PoolBuffer {
 public:
  explicit PoolBuffer(ULONG bytes) : bytes_(bytes), data_(static_cast<uint8_t*>(ExAllocatePoolWithTag(NonPagedPoolNx, bytes, kTestTag))) {}
  ~PoolBuffer() { ExFreePoolWithTag(data_, kTestTag); }
  uint8_t* get() { return data_; }
  void Fill(uint8_t seed) {
    for (ULONG i = 0; i < bytes_; ++i) data_[i] = static_cast<uint8_t>(seed + i * 13);
  }

 private:
  ULONG bytes_;
  uint8_t* data_;
};

TEST(RawTransfer, AShortTransferMovesOnePageMarkedAsTheDriversOwn) {
  ProbeDevice volume(512, 64 * 1024, /*stackSize=*/2);
  PIRP irp = CbtAllocateRawIrp(volume.Device()->StackSize, nullptr, 100, IoPriorityHigh);
  ASSERT_NE(irp, nullptr);
  EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), 4096u) << "the request always describes at least one page";
  irp->Cancel = TRUE;  // left over from an earlier life of the request
  LONGLONG offset = 8192;

  EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_WRITE, &offset, 100), STATUS_SUCCESS);

  ASSERT_EQ(volume.RequestCount(), 1u);
  const kvtest::ProbeRequest seen = volume.Requests()[0];
  EXPECT_EQ(seen.MajorFunction, IRP_MJ_WRITE);
  EXPECT_EQ(seen.Length, 4096u);
  EXPECT_EQ(seen.ByteOffset, 8192);
  EXPECT_EQ(seen.Key, 0x43425431u);
  EXPECT_EQ(std::memcmp(&seen.Key, "1TBC", 4), 0);
  EXPECT_EQ(seen.StackFlags, SL_OVERRIDE_VERIFY_VOLUME);
  EXPECT_NE(seen.IrpFlags & IRP_NOCACHE, 0u);
  EXPECT_EQ(seen.PriorityHint, IoPriorityHigh);
  EXPECT_FALSE(seen.Cancel);
  EXPECT_EQ(seen.Thread, PsGetCurrentThread());
  EXPECT_EQ(seen.OriginalFileObject, nullptr);
  CbtFreeRawIrp(irp, TRUE);
  CbtFreeRawIrp(nullptr, TRUE);
}

TEST(RawTransfer, ACallersBufferIsWrittenAndReadBackAndStaysTheCallers) {
  ProbeDevice volume(4096, 64 * 1024);
  PoolBuffer written(8192);
  PoolBuffer read(8192);
  written.Fill(0x21);
  std::memset(read.get(), 0, 8192);
  PIRP writer = CbtAllocateRawIrp(volume.Device()->StackSize, written.get(), 8192, IoPriorityHigh);
  PIRP reader = CbtAllocateRawIrp(volume.Device()->StackSize, read.get(), 8192, IoPriorityNormal);
  ASSERT_NE(writer, nullptr);
  ASSERT_NE(reader, nullptr);
  LONGLONG offset = 16384;

  // The same request may be sent any number of times.
  ASSERT_EQ(CbtSendRawIrp(volume.Device(), writer, IRP_MJ_WRITE, &offset, 8192), STATUS_SUCCESS);
  ASSERT_EQ(CbtSendRawIrp(volume.Device(), writer, IRP_MJ_WRITE, &offset, 8192), STATUS_SUCCESS);
  ASSERT_EQ(CbtSendRawIrp(volume.Device(), reader, IRP_MJ_READ, &offset, 8192), STATUS_SUCCESS);

  EXPECT_EQ(std::memcmp(read.get(), written.get(), 8192), 0);
  EXPECT_EQ(std::memcmp(volume.Disk().data() + 16384, written.get(), 8192), 0);
  CbtFreeRawIrp(writer, FALSE);
  CbtFreeRawIrp(reader, FALSE);
  EXPECT_EQ(kvhost::IoGetCounters().IrpsLive, 0u);
  EXPECT_EQ(kvhost::IoGetCounters().MdlsLive, 0u);
}

TEST(RawTransfer, TransfersThatAreNotWholeSectorsOrExceedTheRequestAreRefusedUnsent) {
  ProbeDevice volume(4096, 64 * 1024);
  PIRP irp = CbtAllocateRawIrp(volume.Device()->StackSize, nullptr, 8192, IoPriorityNormal);
  ASSERT_NE(irp, nullptr);
  LONGLONG offset = 0;
  EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_READ, &offset, 6144), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_READ, &offset, 12288), STATUS_INVALID_PARAMETER)
      << "longer than the request's 8192 bytes";
  EXPECT_EQ(volume.RequestCount(), 0u);
  EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_READ, &offset, 8192), STATUS_SUCCESS);
  EXPECT_EQ(volume.RequestCount(), 1u);

  // A device that reports no sector size gives no way to tell whole sectors from parts.
  volume.Device()->SectorSize = 0;
  EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_READ, &offset, 8192), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(volume.RequestCount(), 1u);
  CbtFreeRawIrp(irp, TRUE);
}

TEST(RawTransfer, CancelledTransfersAreSentAgainUpToTenTimes) {
  for (bool pend : {false, true}) {
    SCOPED_TRACE(pend ? "the device completes later" : "the device completes at once");
    ProbeDevice volume(512, 64 * 1024);
    volume.PendTransfers(pend);
    PIRP irp = CbtAllocateRawIrp(volume.Device()->StackSize, nullptr, 4096, IoPriorityHigh);
    ASSERT_NE(irp, nullptr);
    LONGLONG offset = 4096;

    volume.CancelTransfers(-1);
    EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_WRITE, &offset, 4096), STATUS_CANCELLED);
    EXPECT_EQ(volume.RequestCount(), 10u);

    volume.CancelTransfers(1);
    EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_WRITE, &offset, 4096), STATUS_SUCCESS);
    EXPECT_EQ(volume.RequestCount(), 12u);
    for (const kvtest::ProbeRequest& seen : volume.Requests()) {
      EXPECT_EQ(seen.Length, 4096u);
      EXPECT_EQ(seen.ByteOffset, 4096);
      EXPECT_EQ(seen.Key, 0x43425431u);
    }

    // Any other failure is the caller's to act on, at once.
    LONGLONG beyond = 1 << 20;
    EXPECT_EQ(CbtSendRawIrp(volume.Device(), irp, IRP_MJ_READ, &beyond, 4096), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(volume.RequestCount(), 13u);
    CbtFreeRawIrp(irp, TRUE);
  }
}

TEST(RawTransfer, EachAllocationThatFailsLeavesNoRequestAndNothingAllocated) {
  ProbeDevice volume;
  for (bool ownBuffer : {true, false}) {
    SCOPED_TRACE(ownBuffer ? "buffer allocated here" : "caller's buffer");
    PoolBuffer callers(4096);
    const unsigned long long attempts = kvhost::ForEachAllocationFailure([&](unsigned long long k) {
      PIRP irp = CbtAllocateRawIrp(volume.Device()->StackSize, ownBuffer ? nullptr : callers.get(), 512,
                                   IoPriorityNormal);
      if (k == 0) {
        ASSERT_NE(irp, nullptr);
      } else {
        EXPECT_EQ(irp, nullptr) << "attempt " << k;
      }
      CbtFreeRawIrp(irp, ownBuffer ? TRUE : FALSE);
    });
    EXPECT_EQ(attempts, ownBuffer ? 3u : 2u) << "buffer, MDL and request";
  }
}

}  // namespace
