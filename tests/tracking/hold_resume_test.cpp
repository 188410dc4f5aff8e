// Holding a volume's writes and letting them go: held writes wait unmarked, keep their
// place in line, and are dispatched again when the last holder resumes.
#include <gtest/gtest.h>
#include <wdm.h>

#include <cstdio>
#include <cstring>

#include "driver/cbt_removal_protection.h"
#include "kvhost/dbgprint.h"
#include "kvhost/irql.h"
#include "tracked_volume.h"
#include "tracking/cbt_tracking.h"

namespace kvtest {
namespace {

class HoldResumeTest : public TrackingTest {
 protected:
  // A holder lets go under removal protection of its own, as flush-and-hold and volume
  // online do.
  static void Resume(PCBT_DEVICE_EXTENSION e) {
    ASSERT_EQ(CbtAcquireRemovalProtection(e->DeviceObject), ULONG{CbtRemovalActive});
    CbtResumeVolumeIo(e);
    CbtReleaseRemovalProtection(e->DeviceObject);
  }

  static ULONG HoldCount(const CBT_DEVICE_EXTENSION* e) { return e->HoldCount; }
};

int LowerWrites(const Volume& volume) { return volume.Lower->Requests[IRP_MJ_WRITE].load(); }

TEST_F(HoldResumeTest, HeldWritesWaitUnmarkedAndGoOnInArrivalOrder) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  CbtHoldVolumeIo(e);
  SentWrite writes[3];
  for (int i = 0; i < 3; ++i) {
    Prepare(writes[i], volume.Filter, 4096, 4096);
    std::memset(writes[i].Buffer.data(), 0x11 * (i + 1), 4096);
    // One of them arrives at DISPATCH_LEVEL: holding never waits.
    writes[i].Returned = kvhost::RunAtIrql(i == 1 ? DISPATCH_LEVEL : PASSIVE_LEVEL,
                                           [&] { return IoCallDriver(volume.Filter, writes[i].Irp); });
    EXPECT_EQ(writes[i].Returned, STATUS_PENDING);
    EXPECT_TRUE(IoGetCurrentIrpStackLocation(writes[i].Irp)->Control & SL_PENDING_RETURNED);
  }
  EXPECT_EQ(LowerWrites(volume), 0);
  EXPECT_TRUE(SetBits(e).empty());
  std::vector<CBT_LOG_RECORD_BODY> records = RecordsOf("CbtDispatchWrite");
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(+records[0].Status, 1u) << "the hold count";

  PIRP irps[3] = {writes[0].Irp, writes[1].Irp, writes[2].Irp};
  kvhost::TakeDebugOutput();
  Resume(e);
  for (SentWrite& write : writes) EXPECT_EQ(write.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(LowerWrites(volume), 3);
  EXPECT_EQ(volume.Lower->Data[4096], 0x33) << "the last to arrive is the last written";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{1}));
  EXPECT_EQ(e->DeferredWriteCount, 0) << "replayed in the resuming thread, at PASSIVE_LEVEL";
  EXPECT_TRUE(IsListEmpty(&e->HeldWriteList));

  std::vector<kvhost::DebugOutputLine> lines = kvhost::TakeDebugOutput();
  ASSERT_EQ(lines.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    char expected[160];
    std::snprintf(expected, sizeof expected, "[KVCBT] CbtResumeVolumeIo: Executing paused IRP %016llX on device %016llX\n",
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(irps[i])),
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(volume.Filter)));
    EXPECT_EQ(lines[i].ComponentId, 77u);
    EXPECT_EQ(lines[i].Level, 2u);
    EXPECT_EQ(lines[i].Text, expected) << "in arrival order";
  }
}

TEST_F(HoldResumeTest, HoldsStackAndOnlyTheLastResumeLetsTheWritesGo) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  Resume(e);
  EXPECT_EQ(HoldCount(e), 0u) << "a resume without a hold changes nothing";

  CbtHoldVolumeIo(e);
  CbtHoldVolumeIo(e);
  SentWrite write;
  Send(write, volume.Filter, 0, 4096);
  ASSERT_EQ(write.Returned, STATUS_PENDING);
  EXPECT_EQ(+RecordsOf("CbtDispatchWrite").at(0).Status, 2u);
  Resume(e);
  EXPECT_EQ(HoldCount(e), 1u);
  EXPECT_EQ(LowerWrites(volume), 0) << "another holder remains";
  Resume(e);
  EXPECT_EQ(write.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(write.Completions, 1);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0}));

  Resume(e);
  EXPECT_EQ(HoldCount(e), 0u);
  EXPECT_EQ(Write(volume.Filter, 4096, 4096).Status.Status, STATUS_SUCCESS) << "the volume flows again";
}

}  // namespace
}  // namespace kvtest
