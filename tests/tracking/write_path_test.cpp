// Writes through the top of a tracked volume's stack: marked and passed down inline, or on a
// critical work item when they arrive at DISPATCH_LEVEL or short of stack; refused when
// they can be neither; and the volumes whose writes are not tracked.
#include <gtest/gtest.h>
#include <ntddvol.h>
#include <wdm.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "driver/cbt_removal_protection.h"
#include "kvhost/io.h"
#include "kvhost/irql.h"
#include "kvhost/pool.h"
#include "kvhost/workqueue.h"
#include "tracked_volume.h"
#include "tracking/cbt_tracking.h"

namespace kvtest {
namespace {

using WritePathTest = TrackingTest;

int LowerWrites(const Volume& volume) { return volume.Lower->Requests[IRP_MJ_WRITE].load(); }

TEST_F(WritePathTest, AWriteIsMarkedThenPassedToTheVolume) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  std::vector<uint8_t> data(8192, 0x3C);
  const Transferred written = Transfer(volume.Filter, IRP_MJ_WRITE, data.data(), 8192, 12288);
  EXPECT_EQ(written.Returned, STATUS_SUCCESS) << "marked in the caller's thread";
  EXPECT_EQ(written.Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(written.Status.Information, 8192u) << "completed by the volume below";
  EXPECT_EQ(LowerWrites(volume), 1);
  EXPECT_EQ(std::memcmp(volume.Lower->Data.data() + 12288, data.data(), 8192), 0) << "the data is not changed";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{3, 4}));
  EXPECT_EQ(e->TrackedWriteCount, 1);
  EXPECT_EQ(e->DeferredWriteCount, 0);
  EXPECT_EQ(e->UntrackedWriteCount, 0);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_WRITTEN | CBT_FLAG_TRACKING_VALID));
  EXPECT_TRUE(Records().empty()) << "an ordinary write leaves no record";

  SentWrite paging;
  Send(paging, volume.Filter, 0, 4096, IRP_PAGING_IO);
  EXPECT_EQ(paging.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(paging.Completions, 1);
  EXPECT_EQ(e->PagingWriteCount, 1);
}

TEST_F(WritePathTest, WritesWithoutAFileSystemContextAreCountedAsUntracked) {
  Volume& volume = AddVolume(FixedVolume(1));
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  CbtSetFlags(e, CBT_FLAG_ONLINE);
  EXPECT_EQ(Write(volume.Filter, 0, 4096).Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(Write(volume.Filter, 4096, 512).Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(e->UntrackedWriteCount, 2);
  EXPECT_EQ(e->TrackedWriteCount, 0);
  EXPECT_EQ(LowerWrites(volume), 2);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_WRITTEN));
}

TEST_F(WritePathTest, AWriteAtDispatchLevelIsMarkedOnACriticalWorkItem) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  kvhost::SetManualWorkQueues(true);
  SentWrite write;
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { Send(write, volume.Filter, 40960, 4096); });
  EXPECT_EQ(write.Returned, STATUS_PENDING);
  EXPECT_EQ(LowerWrites(volume), 0) << "not passed down before it is marked";
  EXPECT_TRUE(SetBits(e).empty());
  std::vector<kvhost::PendingWorkItem> pending = kvhost::PendingWorkItems();
  ASSERT_EQ(pending.size(), 1u);
  EXPECT_EQ(pending[0].Routine, reinterpret_cast<const void*>(CbtWriteWorkItem));
  EXPECT_EQ(pending[0].Queue, CriticalWorkQueue);

  EXPECT_TRUE(kvhost::RunNextWorkItem());
  EXPECT_EQ(write.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(write.Completions, 1);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{10}));
  EXPECT_EQ(e->DeferredWriteCount, 1);
  EXPECT_EQ(LowerWrites(volume), 1);
}

TEST_F(WritePathTest, AWriteShortOfStackIsDeferredAndFailsOnlyWhenNoWorkContextIsLeft) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  {
    kvhost::ScopedShortStack shortStack(2048);
    SentWrite write;
    Send(write, volume.Filter, 0, 4096);
    EXPECT_EQ(write.Returned, STATUS_PENDING);
    EXPECT_EQ(write.Wait().Status, STATUS_SUCCESS);
    EXPECT_EQ(e->DeferredWriteCount, 1);
    EXPECT_EQ(SetBits(e), (std::set<ULONG>{0}));
  }

  kvhost::ExhaustLookasideList(&e->DriverExtension->WorkItemLookaside);
  {
    kvhost::ScopedShortStack shortStack(2048);
    SentWrite write;
    Send(write, volume.Filter, 8192, 4096);
    EXPECT_EQ(write.Returned, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(write.Wait().Status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(write.Completions, 1);
  }
  SentWrite atDispatch;
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { Send(atDispatch, volume.Filter, 16384, 4096); });
  EXPECT_EQ(atDispatch.Returned, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(atDispatch.Wait().Status, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(LowerWrites(volume), 1) << "a write that could not be marked never reaches the volume";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0}));
  kvhost::ExhaustLookasideList(&e->DriverExtension->WorkItemLookaside, false);

  // Each failed write gave its removal protection back: the volume's removal does not wait.
  EXPECT_EQ(RemoveVolume(volume), STATUS_SUCCESS);
}

TEST_F(WritePathTest, TheInlinePathTakesNoPool) {
  Volume& volume = AddTrackedVolume();
  EXPECT_EQ(Write(volume.Filter, 0, 4096).Status.Status, STATUS_SUCCESS);
  for (LONGLONG offset : {0ll, 65536ll}) {  // blocks marked already, and a new one
    SentWrite write;
    Prepare(write, volume.Filter, offset, 4096);
    const kvhost::PoolMark mark = kvhost::MarkPool();
    EXPECT_EQ(IoCallDriver(volume.Filter, write.Irp), STATUS_SUCCESS);
    EXPECT_EQ(kvhost::AllocationsSince(mark), 0u) << "a write at " << offset;
    EXPECT_EQ(write.Wait().Status, STATUS_SUCCESS);
  }
  EXPECT_EQ(SetBits(volume.Extension()), (std::set<ULONG>{0, 16}));
}

TEST_F(WritePathTest, WritesOfNoBytesAndPastTheEndEndAsTheVolumeEndsThem) {
  Volume& volume = AddTrackedVolume();  // 1 MiB, 256 bits
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  SentWrite empty;
  Send(empty, volume.Filter, 4096, 0);
  EXPECT_EQ(empty.Wait().Status, STATUS_SUCCESS);
  EXPECT_TRUE(SetBits(e).empty()) << "a write of no bytes changes no block";
  EXPECT_EQ(e->TrackedWriteCount, 0);

  SentWrite across;
  Send(across, volume.Filter, (1 << 20) - 4096, 8192);
  EXPECT_EQ(across.Wait().Status, STATUS_INVALID_PARAMETER) << "the volume refuses it";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{255})) << "the part inside the volume is marked all the same";

  SentWrite beyond;
  Send(beyond, volume.Filter, 2 << 20, 4096);
  EXPECT_EQ(beyond.Wait().Status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{255}));
  EXPECT_EQ(RecordsOf("CbtSetBitsInTrackingBitmap").size(), 2u);
  EXPECT_EQ(empty.Completions + across.Completions + beyond.Completions, 3);
}

TEST_F(WritePathTest, AReadOnlyShadowCopyPassesWritesDownUntracked) {
  Volume& snapshot = AddVolume(ShadowCopy(1));
  PCBT_DEVICE_EXTENSION e = snapshot.Extension();
  ASSERT_EQ(CbtAllocateTrackingBitMap(e, 256), STATUS_SUCCESS);
  e->BytesPerBit = 4096;
  CbtSetFlags(e, CBT_FLAG_READ_ONLY | CBT_FLAG_FS_CONTEXT | CBT_FLAG_ONLINE);
  DropRecords();
  EXPECT_EQ(Write(snapshot.Filter, 0, 4096).Status.Status, STATUS_SUCCESS) << "what the device below makes of it";
  EXPECT_EQ(LowerWrites(snapshot), 1);
  EXPECT_TRUE(SetBits(e).empty());
  EXPECT_EQ(e->UntrackedWriteCount, 0);
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_WRITTEN));
  std::vector<CBT_LOG_RECORD_BODY> records = RecordsOf("CbtDispatchWrite");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(+records[0].Status, static_cast<ULONG>(STATUS_INVALID_DEVICE_STATE));

  CbtClearFlags(e, CBT_FLAG_READ_ONLY);
  EXPECT_EQ(Write(snapshot.Filter, 0, 4096).Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0})) << "a writable shadow copy is tracked";
}

TEST_F(WritePathTest, AWriteBeforeTheFileSystemIsReadableMakesTrackingInvalidButIsMarked) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  CbtClearFlags(e, CBT_FLAG_FILE_SYSTEM_READABLE);
  EXPECT_EQ(Write(volume.Filter, 0, 4096).Status.Status, STATUS_SUCCESS);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_TRACKING_VALID)) << "online is enough";
  EXPECT_TRUE(Records().empty());

  CbtClearFlags(e, CBT_FLAG_ONLINE);
  EXPECT_EQ(Write(volume.Filter, 4096, 4096).Status.Status, STATUS_SUCCESS);
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_TRACKING_VALID));
  std::vector<CBT_LOG_RECORD_BODY> records = RecordsOf("CbtDispatchWrite");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(+records[0].Status, static_cast<ULONG>(STATUS_FILE_CORRUPT_ERROR));
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0, 1}));
}

TEST_F(WritePathTest, ANewBootSectorOnALockedVolumeDropsTheReaderAndTrackingStops) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  CbtSetFlags(e, CBT_FLAG_LOCKED);
  EXPECT_EQ(Write(volume.Filter, 4096, 4096).Status.Status, STATUS_SUCCESS) << "not the boot sector";
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));

  EXPECT_EQ(Write(volume.Filter, 0, 512).Status.Status, STATUS_SUCCESS);
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NONE});
  EXPECT_EQ(KeReadStateEvent(&e->FileSystemMutex), 1) << "the mutex is free again";
  std::vector<CBT_LOG_RECORD_BODY> records = RecordsOf("CbtWriteWorkerStageTwo");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(+records[0].Status, static_cast<ULONG>(STATUS_FAIL_CHECK));

  EXPECT_EQ(Write(volume.Filter, 8192, 4096).Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{1}));
  EXPECT_EQ(e->UntrackedWriteCount, 2) << "the boot sector and every write after it";
  EXPECT_EQ(LowerWrites(volume), 3);
}

// A $LogFile restart page whose count differs from the last one seen makes the tracking file
// take the new count (and the write's new bits) before the write reaches the volume: with
// the tracking file ready, the flush is asked for and made while the volume has not seen
// the write yet, and it finalizes once the system is shutting down. A count equal to the
// last one is only marked; without a ready tracking file the count is only remembered.
TEST_F(WritePathTest, ARestartCountChangeFlushesTheTrackingFileBeforeTheWriteGoesDown) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  constexpr ULONG kFlushRequests = CBT_FLAG_FLUSH_METADATA | CBT_FLAG_BITMAP_DIRTY;
  e->LastRestartCount = 4;
  SentWrite unready;
  SendData(unready, volume.Filter, 4096, RestartPage(5));
  EXPECT_EQ(unready.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(e->LastRestartCount, 5u);
  EXPECT_EQ(CbtReadFlags(e) & kFlushRequests, 0u);
  EXPECT_TRUE(RecordsOf("CbtFlushTrackingFile").empty());

  CbtSetFlags(e, CBT_FLAG_TRACKING_FILE_READY);
  volume.Lower->HoldTransfers = true;  // the volume keeps the write: the flush must be made by then
  SentWrite changed;
  SendData(changed, volume.Filter, 8192, RestartPage(6));
  ASSERT_EQ(volume.Lower->HeldCount(), 1u);
  std::vector<CBT_LOG_RECORD_BODY> flushes = RecordsOf("CbtFlushTrackingFile");
  ASSERT_EQ(flushes.size(), 1u) << "made before the write reached the volume";
  const ULONG ordinaryFlushLine = flushes[0].Line;
  EXPECT_EQ(CbtReadFlags(e) & kFlushRequests, kFlushRequests) << "the new count and the write's new bit";
  EXPECT_EQ(e->LastRestartCount, 6u);
  volume.Lower->ReleaseHeld();
  EXPECT_EQ(changed.Wait().Status, STATUS_SUCCESS);
  EXPECT_FALSE(IsCleanRestartPage(volume.Lower->Data.data() + 8192)) << "the log is no longer closed cleanly";
  // A real flush consumes its requests; this one leaves them, so they are taken back here.
  CbtClearFlags(e, kFlushRequests);
  DropRecords();

  SentWrite same;
  SendData(same, volume.Filter, 16384, RestartPage(6));
  EXPECT_EQ(same.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{1, 2, 4})) << "marked all the same";
  EXPECT_TRUE(RecordsOf("CbtFlushTrackingFile").empty()) << "the count did not change";
  EXPECT_EQ(CbtReadFlags(e) & kFlushRequests, 0u);

  // The shutdown request marks the system as shutting down (and flushes, not finally).
  EXPECT_EQ(SendMajor(volume.Filter, IRP_MJ_SHUTDOWN).Status.Status, STATUS_SUCCESS);
  flushes = RecordsOf("CbtFlushTrackingFile");
  ASSERT_EQ(flushes.size(), 1u);
  EXPECT_EQ(+flushes[0].Line, ordinaryFlushLine);
  CbtClearFlags(e, kFlushRequests);
  DropRecords();
  // A new count in a block marked already: the flush finalizes, with no new bits to ask for.
  SentWrite final;
  SendData(final, volume.Filter, 8192, RestartPage(7));
  EXPECT_EQ(final.Wait().Status, STATUS_SUCCESS);
  flushes = RecordsOf("CbtFlushTrackingFile");
  ASSERT_EQ(flushes.size(), 1u);
  const ULONG finalizingLine = flushes[0].Line;
  EXPECT_NE(finalizingLine, ordinaryFlushLine);
  EXPECT_EQ(CbtReadFlags(e) & kFlushRequests, ULONG{CBT_FLAG_FLUSH_METADATA});
  DropRecords();
  // The set-power request into the shutdown state makes the finalizing flush by definition.
  EXPECT_EQ(SendSetSystemPower(volume.Filter, PowerSystemShutdown), STATUS_SUCCESS);
  flushes = RecordsOf("CbtFlushTrackingFile");
  ASSERT_EQ(flushes.size(), 1u);
  EXPECT_EQ(+flushes[0].Line, finalizingLine);
}

// A write looking at its data through the NTFS reader holds a reference on it (taken here
// by hand, as by a write inside the check). The reader's teardown, here the volume going
// offline, waits for that reference before the reader goes; a write that comes meanwhile
// leaves the reader alone (its restart page keeps the clean flag) and is marked all the
// same. Once the teardown is done, a reader set up again is looked through again.
TEST_F(WritePathTest, TheReadersTeardownWaitsForTheWritesLookingThroughIt) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  volume.Lower->ControlStatus = STATUS_SUCCESS;  // the volume below goes offline when told
  ASSERT_TRUE(ExAcquireRundownProtection(&e->FileSystemRundown));
  std::atomic<bool> offline{false};
  std::thread teardown([&] {
    EXPECT_EQ(DeviceControl(volume.Filter, IOCTL_VOLUME_OFFLINE).Status.Status, STATUS_SUCCESS);
    offline = true;
  });
  // The wait has begun once no further reference can be had.
  while (!offline.load() && ExAcquireRundownProtection(&e->FileSystemRundown)) {
    ExReleaseRundownProtection(&e->FileSystemRundown);
    std::this_thread::yield();
  }
  ASSERT_FALSE(offline.load()) << "the teardown did not wait for the reference";

  SentWrite meanwhile;
  SendData(meanwhile, volume.Filter, 8192, RestartPage(9));
  EXPECT_EQ(meanwhile.Wait().Status, STATUS_SUCCESS);
  EXPECT_TRUE(IsCleanRestartPage(meanwhile.Buffer.data())) << "the reader is not looked through while it goes";
  EXPECT_EQ(e->LastRestartCount, 0u);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{2}));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(offline.load());
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT)) << "the reader is still there";

  ExReleaseRundownProtection(&e->FileSystemRundown);
  teardown.join();
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NONE});

  // A reader set up again, as the file system's initialisation does it.
  KeInitializeSemaphore(&e->FileSystemContext.Ntfs.Lock, 1, 1);
  e->FileSystemType = CBT_FILE_SYSTEM_NTFS;
  CbtSetFlags(e, CBT_FLAG_FS_CONTEXT | CBT_FLAG_ONLINE);
  SentWrite again;
  SendData(again, volume.Filter, 16384, RestartPage(9));
  EXPECT_EQ(again.Wait().Status, STATUS_SUCCESS);
  EXPECT_FALSE(IsCleanRestartPage(again.Buffer.data()));
  EXPECT_EQ(e->LastRestartCount, 9u);
}

TEST_F(WritePathTest, WritesArrivingWhileTheVolumeIsRemovedAreRefused) {
  Volume& volume = AddTrackedVolume();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  PDEVICE_OBJECT filter = volume.Filter;
  CbtHoldVolumeIo(e);
  SentWrite held;
  Send(held, filter, 0, 4096);
  ASSERT_EQ(held.Returned, STATUS_PENDING);

  // The removal tears the volume's tracking down, then waits for the held write's reference.
  std::thread removal([&] { EXPECT_EQ(SendPnp(filter, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS); });
  while (ReadAcquire(&e->RemovalState) != CbtRemovalPending) std::this_thread::yield();
  SentWrite late;
  Send(late, filter, 8192, 4096);
  EXPECT_EQ(late.Returned, STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(late.Wait().Status, STATUS_DEVICE_NOT_CONNECTED);

  // The holder lets go under a reference of its own; the held write is dispatched again and
  // finds the volume going as well.
  ASSERT_EQ(CbtAcquireRemovalProtection(filter), ULONG{CbtRemovalPending});
  CbtResumeVolumeIo(e);
  EXPECT_EQ(held.Wait().Status, STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(RecordsOf("CbtDispatchWrite").size(), 3u) << "held, then refused twice";
  CbtReleaseRemovalProtection(filter);
  removal.join();
  EXPECT_EQ(LowerWrites(volume), 0);
  EXPECT_EQ(held.Completions + late.Completions, 2);
  DeleteTestVolume(volume.Lower);
  volume.Removed = true;
  volume.Filter = nullptr;
}

}  // namespace
}  // namespace kvtest
