// Many writers on one volume while holds come and go and the bitmap is reallocated under
// them: every write that reached the volume has its blocks marked, nothing else is marked,
// and every write completes exactly once. Built for ThreadSanitizer as well.
#include <gtest/gtest.h>
#include <wdm.h>

#include <atomic>
#include <chrono>
#include <random>
#include <set>
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

}  // namespace
}  // namespace kvtest
