// What the I/O manager gives a driver beside requests: MDLs and their system mappings, work
// items, the thread's stack limits and hard-error mode, the requester's bitness.
#include <cstring>
#include <thread>

#include "io_test_stack.h"
#include "kvhost/object.h"
#include "kvhost/pool.h"
#include "kvhost/verifier.h"
#include "kvhost/workqueue.h"

namespace {

constexpr ULONG kBufferTag = KV_POOL_TAG('T', 'e', 's', 't');

TEST(Mdl, DescribesABufferAndMapsItUnlessSystemSpaceRunsOut) {
  auto* pool = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 3 * PAGE_SIZE, kBufferTag));
  unsigned char* start = pool + 100;
  PMDL mdl = IoAllocateMdl(start, 5000, FALSE, FALSE, nullptr);
  ASSERT_NE(mdl, nullptr);
  EXPECT_EQ(MmGetMdlByteCount(mdl), 5000u);
  EXPECT_EQ(MmGetMdlByteOffset(mdl), BYTE_OFFSET(start));
  EXPECT_EQ(MmGetMdlVirtualAddress(mdl), start);
  EXPECT_EQ(static_cast<size_t>(mdl->Size), sizeof(MDL) + sizeof(PFN_NUMBER) * ADDRESS_AND_SIZE_TO_SPAN_PAGES(start, 5000));

  // Non-paged pool is mapped already: there is no mapping that could fail.
  MmBuildMdlForNonPagedPool(mdl);
  EXPECT_TRUE(mdl->MdlFlags & MDL_SOURCE_IS_NONPAGED_POOL);
  EXPECT_EQ(mdl->MappedSystemVa, start);
  kvhost::MmFailSystemMappings(-1);
  EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), start);
  MDL partial[2] = {};  // room for the header and a page frame
  IoBuildPartialMdl(mdl, partial, start + 4000, 200);
  EXPECT_EQ(MmGetSystemAddressForMdlSafe(partial, NormalPagePriority), start + 4000);
  kvhost::MmFailSystemMappings(0);
  IoFreeMdl(mdl);

  // Any other buffer is locked, then mapped, and the mapping can fail.
  std::vector<unsigned char> buffer(8192);
  mdl = IoAllocateMdl(buffer.data(), 8192, FALSE, FALSE, nullptr);
  MmProbeAndLockPages(mdl, KernelMode, IoWriteAccess);
  EXPECT_EQ(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_WRITE_OPERATION), MDL_PAGES_LOCKED | MDL_WRITE_OPERATION);
  kvhost::MmFailSystemMappings(1);
  EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority | MdlMappingNoExecute), nullptr);
  EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority | MdlMappingNoExecute), buffer.data());
  EXPECT_TRUE(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA);
  kvhost::MmFailSystemMappings(-1);
  EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), buffer.data()) << "an existing mapping is reused";
  kvhost::MmFailSystemMappings(0);
  MmUnlockPages(mdl);
  EXPECT_EQ(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA), 0);
  {
    kvhost::ViolationCapture capture;
    MmUnlockPages(mdl);
    EXPECT_TRUE(capture.Saw("MdlNotLocked"));
    MmProbeAndLockPages(mdl, KernelMode, IoReadAccess);
    IoFreeMdl(mdl);
    EXPECT_TRUE(capture.Saw("MdlFreedWithPagesLocked"));
  }

  // The first MDL of a request is its MdlAddress; a secondary one is chained after it.
  PIRP irp = IoAllocateIrp(1, FALSE);
  PMDL first = IoAllocateMdl(pool, 100, FALSE, FALSE, irp);
  PMDL second = IoAllocateMdl(pool + 100, 100, TRUE, FALSE, irp);
  EXPECT_EQ(irp->MdlAddress, first);
  EXPECT_EQ(first->Next, second);
  EXPECT_EQ(kvhost::IoGetCounters().MdlsLive, 2u);
  IoFreeMdl(first);
  IoFreeMdl(second);
  IoFreeIrp(irp);
  ExFreePoolWithTag(pool, kBufferTag);
}

struct WorkRun {
  KIRQL Irql = HIGH_LEVEL;
  std::thread::id Thread;
  PVOID Object = nullptr;
  PIO_WORKITEM Item = nullptr;
  int Runs = 0;
};

void RecordWork(PDEVICE_OBJECT DeviceObject, PVOID Context) {
  auto* run = static_cast<WorkRun*>(Context);
  run->Irql = KeGetCurrentIrql();
  run->Thread = std::this_thread::get_id();
  run->Object = DeviceObject;
  ++run->Runs;
}

void RecordWorkEx(PVOID IoObject, PVOID Context, PIO_WORKITEM IoWorkItem) {
  auto* run = static_cast<WorkRun*>(Context);
  run->Object = IoObject;
  run->Item = IoWorkItem;
  ++run->Runs;
}

TEST_F(IoStackTest, WorkItemsRunOnWorkerThreadsAndKeepTheirDeviceMeanwhile) {
  PDEVICE_OBJECT disk = NewDisk();
  kvhost::SetManualWorkQueues(true);
  const LONG_PTR references = kvhost::ObGetReferenceCount(disk);
  WorkRun run;
  PIO_WORKITEM item = IoAllocateWorkItem(disk);
  ASSERT_NE(item, nullptr);
  IoQueueWorkItem(item, RecordWork, CriticalWorkQueue, &run);
  EXPECT_EQ(kvhost::ObGetReferenceCount(disk), references + 1);
  ASSERT_EQ(kvhost::PendingWorkItems().size(), 1u);
  EXPECT_EQ(kvhost::PendingWorkItems()[0].Routine, reinterpret_cast<const void*>(RecordWork));
  EXPECT_EQ(kvhost::PendingWorkItems()[0].Queue, CriticalWorkQueue);
  {
    kvhost::ViolationCapture capture;
    IoQueueWorkItem(item, RecordWork, CriticalWorkQueue, &run);
    EXPECT_TRUE(capture.Saw("WorkItemQueuedTwice"));
    kvhost::ViolationCapture freeing;
    IoFreeWorkItem(item);
    EXPECT_TRUE(freeing.Saw("WorkItemReleasedWhileQueued"));
  }
  EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);
  EXPECT_EQ(run.Runs, 1);
  EXPECT_EQ(run.Irql, PASSIVE_LEVEL);
  EXPECT_NE(run.Thread, std::this_thread::get_id());
  EXPECT_EQ(run.Object, disk);
  EXPECT_EQ(kvhost::ObGetReferenceCount(disk), references);
  IoFreeWorkItem(item);

  // An item in the caller's storage, run in its Ex form, sees its object and itself.
  std::vector<unsigned char> storage(IoSizeofWorkItem());
  auto* own = reinterpret_cast<PIO_WORKITEM>(storage.data());
  IoInitializeWorkItem(disk, own);
  IoQueueWorkItemEx(own, RecordWorkEx, DelayedWorkQueue, &run);
  EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);
  EXPECT_EQ(run.Object, disk);
  EXPECT_EQ(run.Item, own);
  IoUninitializeWorkItem(own);
}

// Requests, MDLs, work items and system buffers come from pool, so low memory reaches them
// as it does in Windows; a request that cannot be built completely is not built at all.
TEST_F(IoStackTest, IoAllocationsFailAsLowMemoryWould) {
  PDEVICE_OBJECT disk = NewDisk();
  kvhost::FailAllocationsWithTag(KV_POOL_TAG('I', 'r', 'p', ' '));
  EXPECT_EQ(IoAllocateIrp(1, FALSE), nullptr);
  kvhost::ClearPoolFaults();
  kvhost::FailAllocationsWithTag(KV_POOL_TAG('M', 'd', 'l', ' '));
  unsigned char buffer[64];
  EXPECT_EQ(IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr), nullptr);
  IO_STATUS_BLOCK iosb{};
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  LARGE_INTEGER at{};
  EXPECT_EQ(IoBuildSynchronousFsdRequest(IRP_MJ_READ, disk, buffer, sizeof buffer, &at, &done, &iosb), nullptr)
      << "no MDL for the direct-I/O disk, no request";
  kvhost::ClearPoolFaults();
  kvhost::FailAllocationsWithTag(KV_POOL_TAG('I', 'o', 'S', 'b'));
  EXPECT_EQ(IoBuildDeviceIoControlRequest(IOCTL_RAMDISK_FILL, disk, buffer, 1, nullptr, 0, FALSE, &done, &iosb),
            nullptr)
      << "no system buffer, no request";
  kvhost::ClearPoolFaults();
  kvhost::FailAllocationsWithTag(KV_POOL_TAG('I', 'o', 'W', 'i'));
  EXPECT_EQ(IoAllocateWorkItem(disk), nullptr);
  kvhost::ClearPoolFaults();
  EXPECT_EQ(kvhost::IoGetCounters().IrpsLive, 0u);
  EXPECT_EQ(kvhost::IoGetCounters().MdlsLive, 0u);
}

TEST(ThreadEnvironment, StackLimitsAreTheThreadsOwnAndCanBeMadeShort) {
  ULONG_PTR low = 0, high = 0;
  IoGetStackLimits(&low, &high);
  const auto here = reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
  EXPECT_LT(low, here);
  EXPECT_LT(here, high);
  EXPECT_GT(here - low, 64u * 1024);
  {
    kvhost::ScopedShortStack shortOfStack(1024);
    ULONG_PTR shortLow = 0, shortHigh = 0;
    IoGetStackLimits(&shortLow, &shortHigh);
    EXPECT_LT(here - shortLow, 4096u) << "a driver measuring from its own frame finds less than a page";
    EXPECT_EQ(shortHigh, high);
  }
  ULONG_PTR again = 0;
  IoGetStackLimits(&again, &high);
  EXPECT_EQ(again, low);

  ULONG_PTR otherLow = 0, otherHigh = 0;
  std::thread([&] { IoGetStackLimits(&otherLow, &otherHigh); }).join();
  EXPECT_NE(otherLow, low);
  EXPECT_GT(otherHigh, otherLow);
}

TEST(ThreadEnvironment, HardErrorModeIsPerThread) {
  EXPECT_EQ(IoSetThreadHardErrorMode(FALSE), TRUE);
  EXPECT_EQ(IoSetThreadHardErrorMode(FALSE), FALSE);
  BOOLEAN other = FALSE;
  std::thread([&] { other = IoSetThreadHardErrorMode(FALSE); }).join();
  EXPECT_EQ(other, TRUE);
  EXPECT_EQ(IoSetThreadHardErrorMode(TRUE), FALSE);
}

TEST(ThreadEnvironment, RequestsFromA32bitProcessAreRecognisedOnlyFromUserMode) {
  PIRP irp = IoAllocateIrp(1, FALSE);
  EXPECT_FALSE(IoIs32bitProcess(irp));
  kvhost::IoSetIrpFrom32bitProcess(irp, true);
  EXPECT_FALSE(IoIs32bitProcess(irp)) << "a kernel-mode request has no process of its own";
  irp->RequestorMode = UserMode;
  EXPECT_TRUE(IoIs32bitProcess(irp));
  EXPECT_FALSE(IoIs32bitProcess(nullptr));
  IoFreeIrp(irp);
}

}  // namespace
