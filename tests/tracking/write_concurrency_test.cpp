// Many writers on one volume while holds come and go and the bitmap is reallocated under
// them: every write that reached the volume has its blocks marked, nothing else is marked,
// and every write completes exactly once. And writers on a volume whose file-system reader
// is torn down under them. Built for ThreadSanitizer as well.
#include <gtest/gtest.h>
#include <ntddvol.h>
#include <wdm.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "driver/cbt_removal_protection.h"
#include "kvhost/irql.h"
#include "tracked_volume.h"
#include "tracking/cbt_tracking.h"

namespace kvtest {
namespace {

// Each write touches one block that no other write touches, so a bit lost to a race stays
// lost. The written blocks all survive a reallocation down to kSmallBitmap bits.
constexpr ULONG kBlock = 512;
constexpr ULONG kVolumeBlocks = 4096;
constexpr int kWriters = 4;
constexpr int kWritesEach = 1000;
constexpr ULONG kSmallBitmap = kWriters * kWritesEach;

struct WriterLog {
  std::set<ULONG> Touched;  // blocks of the writes the volume accepted
  int Succeeded = 0;
  int Paging = 0;
  int Failures = 0;
  int BadCompletions = 0;
};

class WriteConcurrencyTest : public TrackingTest {
 protected:
  // One run on a fresh volume: the writers, a holder and a reallocator at once.
  void Run(unsigned number);
};

void WriteConcurrencyTest::Run(unsigned number) {
  Volume& volume = AddTrackedVolume({.BytesPerBit = kBlock, .VolumeBytes = kVolumeBlocks * kBlock, .Number = number});
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  PDEVICE_OBJECT filter = volume.Filter;
  std::atomic<bool> stop{false};
  std::atomic<int> holds{0}, reallocations{0};

  std::vector<WriterLog> logs(kWriters);
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w)
    writers.emplace_back([&, w] {
      std::mt19937 random(number * 100 + w);
      WriterLog& log = logs[w];
      for (int n = 0; n < kWritesEach; ++n) {
        const ULONG block = static_cast<ULONG>(n * kWriters + w);
        const ULONG skip = random() % kBlock;
        const LONGLONG offset = LONGLONG{block} * kBlock + skip;
        const ULONG length = 1 + random() % (kBlock - skip);
        const bool atDispatch = random() % 4 == 0;
        const bool paging = random() % 3 == 0;
        SentWrite write;
        Prepare(write, filter, offset, length, paging ? IRP_PAGING_IO : 0);
        write.Returned = kvhost::RunAtIrql(atDispatch ? DISPATCH_LEVEL : PASSIVE_LEVEL,
                                           [&] { return IoCallDriver(filter, write.Irp); });
        const NTSTATUS status = write.Wait().Status;
        if (write.Completions != 1) ++log.BadCompletions;
        if (status != STATUS_SUCCESS) {
          ++log.Failures;
          continue;
        }
        ++log.Succeeded;
        log.Paging += paging ? 1 : 0;
        log.Touched.insert(block);
      }
    });

  // Holds as flush-and-hold and volume online make them, each let go under the holder's own
  // removal protection.
  std::thread holder([&] {
    while (!stop.load()) {
      CbtHoldVolumeIo(e);
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      CbtAcquireRemovalProtection(filter);
      CbtResumeVolumeIo(e);
      CbtReleaseRemovalProtection(filter);
      ++holds;
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
  });
  // Reallocations as the file system's initialisation makes them, under FileSystemMutex.
  std::thread reallocator([&] {
    for (ULONG round = 0; !stop.load(); ++round) {
      KeWaitForSingleObject(&e->FileSystemMutex, Executive, KernelMode, FALSE, nullptr);
      EXPECT_EQ(CbtAllocateTrackingBitMap(e, round % 2 == 0 ? kSmallBitmap : kVolumeBlocks), STATUS_SUCCESS);
      KeSetEvent(&e->FileSystemMutex, IO_NO_INCREMENT, FALSE);
      ++reallocations;
      std::this_thread::yield();
    }
  });

  for (std::thread& writer : writers) writer.join();
  stop = true;
  holder.join();
  reallocator.join();

  std::set<ULONG> touched;
  int succeeded = 0, paging = 0;
  for (const WriterLog& log : logs) {
    EXPECT_EQ(log.BadCompletions, 0);
    EXPECT_EQ(log.Failures, 0);
    succeeded += log.Succeeded;
    paging += log.Paging;
    touched.insert(log.Touched.begin(), log.Touched.end());
  }
  EXPECT_EQ(succeeded, kWriters * kWritesEach);
  EXPECT_EQ(volume.Lower->Requests[IRP_MJ_WRITE].load(), succeeded) << "each write reached the volume once";
  EXPECT_EQ(SetBits(e), touched) << "every block written is marked, and no other";
  EXPECT_EQ(e->TrackedWriteCount, succeeded) << "each write set a bit of its own";
  EXPECT_EQ(e->TrackedWriteBits, succeeded);
  EXPECT_EQ(e->PagingWriteCount, paging);
  EXPECT_GT(e->DeferredWriteCount, 0);
  EXPECT_EQ(e->UntrackedWriteCount, 0);
  EXPECT_EQ(e->HoldCount, 0u);
  EXPECT_TRUE(IsListEmpty(&e->HeldWriteList));
  EXPECT_GT(holds.load(), 0);
  EXPECT_GT(reallocations.load(), 1);
  int held = 0;
  for (const CBT_LOG_RECORD_BODY& record : RecordsOf("CbtDispatchWrite")) held += record.Status == 1 ? 1 : 0;
  EXPECT_GT(held, 0) << "some writes arrived while the volume was held";
  DropRecords();
}

TEST_F(WriteConcurrencyTest, WritersHoldsAndReallocationsLoseNoBitAndCompleteEachWriteOnce) {
  for (unsigned run = 1; run <= 3 && !HasFailure(); ++run) Run(run);
}

// The teardowns of a volume's file-system reader, each racing writes that look at their
// data through it.
enum class Teardown { BootSector, Offline, Removal };

struct TeardownWrite {
  ULONG Block = 0;
  bool RestartPage = false;
  bool Looked = false;  // the reader took the restart page's clean flag
  NTSTATUS Status = STATUS_PENDING;
  int Completions = 0;
};

class ReaderTeardownTest : public TrackingTest, public testing::WithParamInterface<Teardown> {};

// Writes run on a volume with an NTFS reader while one of its teardowns takes the reader
// away under them (how a teardown and a write inside the check meet, step by step, is
// write_path_test's). Every write completes once, none is held up by the teardown for
// good, and, where the bitmap stays, every write that reached the volume is either marked
// or counted as untracked: none is lost between the two.
TEST_P(ReaderTeardownTest, WritesNeverUseATornDownReaderAndLoseNoBit) {
  const Teardown teardown = GetParam();
  constexpr ULONG kPage = 4096;
  constexpr int kTeardownWriters = 4;
  constexpr int kTeardownWritesEach = 300;
  constexpr ULONG kRestartCount = 7;
  Volume& volume = AddTrackedVolume({.BytesPerBit = kPage, .VolumeBytes = 2048 * kPage});
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  PDEVICE_OBJECT filter = volume.Filter;
  volume.Lower->ControlStatus = STATUS_SUCCESS;  // the volume below goes offline when told
  if (teardown == Teardown::BootSector) CbtSetFlags(e, CBT_FLAG_LOCKED);
  // The removal waits for this reference, so that writes can still reach the filter while
  // the removal's teardown runs; each writer stops at its first write refused.
  if (teardown == Teardown::Removal) {
    ASSERT_EQ(CbtAcquireRemovalProtection(filter), ULONG{CbtRemovalActive});
  }

  std::atomic<int> completed{0};
  std::vector<std::vector<TeardownWrite>> logs(kTeardownWriters);
  std::vector<std::thread> writers;
  for (int w = 0; w < kTeardownWriters; ++w)
    writers.emplace_back([&, w] {
      std::mt19937 random(w + 1);
      for (int n = 0; n < kTeardownWritesEach; ++n) {
        TeardownWrite done;
        done.Block = 1 + static_cast<ULONG>(n * kTeardownWriters + w);  // block 0 is the boot sector
        done.RestartPage = random() % 3 == 0;
        SentWrite write;
        Prepare(write, filter, LONGLONG{done.Block} * kPage, kPage);
        if (done.RestartPage) {
          const std::vector<uint8_t> page = RestartPage(kRestartCount);
          std::copy(page.begin(), page.end(), write.Buffer.begin());
        }
        const bool atDispatch = random() % 4 == 0;
        write.Returned = kvhost::RunAtIrql(atDispatch ? DISPATCH_LEVEL : PASSIVE_LEVEL,
                                           [&] { return IoCallDriver(filter, write.Irp); });
        done.Status = write.Wait().Status;
        done.Completions = write.Completions;
        done.Looked = done.RestartPage && !IsCleanRestartPage(write.Buffer.data());
        logs[w].push_back(done);
        ++completed;
        if (done.Status == STATUS_DEVICE_NOT_CONNECTED) break;
      }
    });

  // A third of the way in, the reader goes.
  while (completed.load() < kTeardownWriters * kTeardownWritesEach / 3) std::this_thread::yield();
  std::thread removal;
  switch (teardown) {
    case Teardown::BootSector:
      EXPECT_EQ(Write(filter, 0, 512).Status.Status, STATUS_SUCCESS);
      break;
    case Teardown::Offline:
      EXPECT_EQ(DeviceControl(filter, IOCTL_VOLUME_OFFLINE).Status.Status, STATUS_SUCCESS);
      break;
    case Teardown::Removal:
      removal = std::thread([&] { EXPECT_EQ(SendPnp(filter, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS); });
      break;
  }
  for (std::thread& writer : writers) writer.join();

  std::set<ULONG> written;
  int succeeded = 0, looked = 0;
  for (const std::vector<TeardownWrite>& log : logs)
    for (const TeardownWrite& write : log) {
      EXPECT_EQ(write.Completions, 1) << "block " << write.Block;
      looked += write.Looked ? 1 : 0;
      if (write.Status == STATUS_SUCCESS) {
        ++succeeded;
        written.insert(write.Block);
      } else {
        EXPECT_TRUE(teardown == Teardown::Removal && write.Status == STATUS_DEVICE_NOT_CONNECTED)
            << "block " << write.Block << ": 0x" << std::hex << write.Status;
      }
    }
  EXPECT_EQ(volume.Lower->Requests[IRP_MJ_WRITE].load(), succeeded + (teardown == Teardown::BootSector ? 1 : 0));

  if (teardown == Teardown::Removal) {
    // The volume goes once the last reference is given back; with it its counters.
    CbtReleaseRemovalProtection(filter);
    removal.join();
    DeleteTestVolume(volume.Lower);
    volume.Removed = true;
    volume.Filter = nullptr;
    return;
  }
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NONE});
  const std::set<ULONG> marked = SetBits(e);
  EXPECT_TRUE(std::includes(written.begin(), written.end(), marked.begin(), marked.end()))
      << "only written blocks are marked";
  const LONG64 untrackedWriters = e->UntrackedWriteCount - (teardown == Teardown::BootSector ? 1 : 0);
  EXPECT_EQ(static_cast<LONG64>(marked.size()) + untrackedWriters, succeeded)
      << "each write is marked or counted as untracked";
  EXPECT_EQ(e->TrackedWriteCount, static_cast<LONG64>(marked.size()));
  EXPECT_GT(e->UntrackedWriteCount, 0) << "the reader went while writes still came";
  EXPECT_GT(looked, 0) << "writes looked through the reader while it was there";
  EXPECT_EQ(e->LastRestartCount, kRestartCount);
}

INSTANTIATE_TEST_SUITE_P(Teardowns, ReaderTeardownTest,
                         testing::Values(Teardown::BootSector, Teardown::Offline, Teardown::Removal),
                         [](const testing::TestParamInfo<Teardown>& info) {
                           switch (info.param) {
                             case Teardown::BootSector:
                               return std::string("BootSector");
                             case Teardown::Offline:
                               return std::string("Offline");
                             default:
                               return std::string("Removal");
                           }
                         });

}  // namespace
}  // namespace kvtest
