// Requests on their way down a stack and back: the filters a driver is built from, over a
// RAM disk that completes inline or from a worker thread.
#include <cstring>
#include <tuple>

#include "io_test_stack.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"
#include "kvhost/workqueue.h"

namespace {

constexpr ULONG kBufferTag = KV_POOL_TAG('T', 'e', 's', 't');

// ---------------------------------------------------------------------------------------
// A pass-through filter carries reads and writes to the disk whatever the disk's I/O
// method and however it completes, and the I/O manager frees what it built.

class PassThroughTest : public IoStackTest,
                        public testing::WithParamInterface<std::tuple<RAMDISK_COMPLETION, ULONG>> {};

TEST_P(PassThroughTest, CarriesWritesAndReadsToTheDiskAndBack) {
  const auto [completion, method] = GetParam();
  PDEVICE_OBJECT disk = NewDisk(completion, method);
  PDEVICE_OBJECT filter = Attach(disk, FilterPassThrough);
  EXPECT_EQ(filter->StackSize, 2);

  std::vector<unsigned char> data = Pattern(4096, 3);
  NTSTATUS sent = 0;
  IO_STATUS_BLOCK written = Transfer(filter, IRP_MJ_WRITE, data.data(), 4096, 8192, &sent);
  EXPECT_EQ(sent, completion == RamDiskCompleteInline ? STATUS_SUCCESS : STATUS_PENDING);
  EXPECT_EQ(written.Status, STATUS_SUCCESS);
  EXPECT_EQ(written.Information, 4096u);
  EXPECT_EQ(std::memcmp(Disk(disk)->Data + 8192, data.data(), data.size()), 0);

  std::vector<unsigned char> back(4096, 0);
  IO_STATUS_BLOCK read = Transfer(filter, IRP_MJ_READ, back.data(), 4096, 8192);
  EXPECT_EQ(read.Status, STATUS_SUCCESS);
  EXPECT_EQ(back, data) << "read data reaches the caller's buffer (through the system buffer when buffered)";
  EXPECT_EQ(Disk(disk)->Writes, 1);
  EXPECT_EQ(Disk(disk)->Reads, 1);
  kvhost::IoCounters counters = kvhost::IoGetCounters();
  EXPECT_EQ(counters.IrpsAllocated, 2u);
  EXPECT_EQ(counters.IrpsLive, 0u);
  EXPECT_EQ(counters.MdlsLive, 0u);
}

INSTANTIATE_TEST_SUITE_P(CompletionAndMethod, PassThroughTest,
                         testing::Combine(testing::Values(RamDiskCompleteInline, RamDiskCompleteFromWorker),
                                          testing::Values(ULONG{DO_DIRECT_IO}, ULONG{DO_BUFFERED_IO}, ULONG{0})));

// ---------------------------------------------------------------------------------------
// A filter that forwards synchronously waits for the disk, then completes the request
// itself: the caller sees one final status, never STATUS_PENDING.

TEST_F(IoStackTest, ForwardingFilterCompletesTheRequestAfterTheDiskFinished) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteFromWorker);
  PDEVICE_OBJECT filter = Attach(disk, FilterForwardSynchronously);
  std::vector<kvhost::IrpCompletion> completions;
  kvhost::IoSetCompletionObserver([&](const kvhost::IrpCompletion& c) { completions.push_back(c); });

  std::vector<unsigned char> data = Pattern(1024, 9);
  NTSTATUS sent = 0;
  IO_STATUS_BLOCK iosb = Transfer(filter, IRP_MJ_WRITE, data.data(), 1024, 0, &sent);
  EXPECT_EQ(sent, STATUS_SUCCESS);
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_TRUE(Filter(filter)->LastLowerPended);
  ASSERT_EQ(completions.size(), 2u) << "completed by the disk, then again by the filter";
  EXPECT_EQ(completions[0].CompletedBy, disk);
  EXPECT_EQ(completions[1].CompletedBy, filter);
  EXPECT_EQ(completions[1].MajorFunction, IRP_MJ_WRITE);
  EXPECT_EQ(completions[1].PriorityBoost, IO_DISK_INCREMENT);

  // The disk's failure reaches the caller through the filter.
  Disk(disk)->FailCount = 1;
  Disk(disk)->FailStatus = STATUS_IO_DEVICE_ERROR;
  iosb = Transfer(filter, IRP_MJ_READ, data.data(), 1024, 0, &sent);
  EXPECT_EQ(sent, STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(iosb.Status, STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(completions.back().PriorityBoost, IO_NO_INCREMENT);

  // Device control goes through IoForwardIrpSynchronously.
  ULONGLONG size = 0;
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  PIRP irp = IoBuildDeviceIoControlRequest(IOCTL_RAMDISK_GET_SIZE, filter, nullptr, 0, &size, sizeof size, FALSE,
                                           &done, &iosb);
  ASSERT_NE(irp, nullptr);
  EXPECT_EQ(IoCallDriver(filter, irp), STATUS_SUCCESS);
  EXPECT_EQ(size, 64u * 1024);
}

// ---------------------------------------------------------------------------------------
// A completion routine that returns STATUS_MORE_PROCESSING_REQUIRED keeps the request; the
// caller is woken only when the filter completes it later.

TEST_F(IoStackTest, ReadKeptByACompletionRoutineFinishesWhenCompletedLater) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteFromWorker);
  PDEVICE_OBJECT filter = Attach(disk, FilterHoldReadCompletions);
  std::vector<unsigned char> data = Pattern(2048, 5);
  std::memcpy(Disk(disk)->Data, data.data(), data.size());

  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  std::vector<unsigned char> back(2048, 0);
  LARGE_INTEGER at{};
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_READ, filter, back.data(), 2048, &at, &done, &iosb);
  ASSERT_NE(irp, nullptr);
  EXPECT_EQ(IoCallDriver(filter, irp), STATUS_PENDING);
  LARGE_INTEGER limit;
  limit.QuadPart = -10LL * 1000 * 1000 * 10;  // 10 s
  ASSERT_EQ(KeWaitForSingleObject(&Filter(filter)->ReadHeld, Executive, KernelMode, FALSE, &limit), STATUS_SUCCESS);

  EXPECT_EQ(KeReadStateEvent(&done), 0) << "the caller must not be woken while the filter keeps the read";
  EXPECT_EQ(kvhost::IoGetCounters().IrpsLive, 1u);
  kvhost::IrpCompletion last;
  ASSERT_TRUE(kvhost::IoGetLastCompletion(irp, &last));
  EXPECT_EQ(last.CompletedBy, disk);
  EXPECT_EQ(back, data) << "the disk has already filled the buffer";

  TestFilterCompleteHeldRead(filter);
  EXPECT_NE(KeReadStateEvent(&done), 0);
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 2048u);
  EXPECT_EQ(kvhost::IoGetCounters().IrpsLive, 0u);
}

// ---------------------------------------------------------------------------------------
// Writes held by a filter and later replayed through its own dispatch table reach the disk
// in order, and each caller is woken once.

TEST_F(IoStackTest, HeldWritesAreReplayedThroughTheFiltersOwnDispatchTable) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteInline);
  PDEVICE_OBJECT filter = Attach(disk, FilterHoldWrites);
  TestFilterHoldWrites(filter);

  struct Pending {
    KEVENT Done;
    IO_STATUS_BLOCK Iosb;
    std::vector<unsigned char> Data;
  } writes[3];
  for (int i = 0; i < 3; ++i) {
    Pending& w = writes[i];
    KeInitializeEvent(&w.Done, NotificationEvent, FALSE);
    w.Data = Pattern(512, static_cast<unsigned char>(i * 40));
    LARGE_INTEGER at;
    at.QuadPart = 512LL * i;
    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_WRITE, filter, w.Data.data(), 512, &at, &w.Done, &w.Iosb);
    ASSERT_NE(irp, nullptr);
    EXPECT_EQ(IoCallDriver(filter, irp), STATUS_PENDING);
  }
  EXPECT_EQ(Disk(disk)->Writes, 0);
  EXPECT_EQ(KeReadStateEvent(&writes[0].Done), 0);

  TestFilterReleaseWrites(filter);
  EXPECT_EQ(Filter(filter)->Replays, 3u);
  EXPECT_EQ(Disk(disk)->Writes, 3);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(KeReadStateEvent(&writes[i].Done), 0);
    EXPECT_EQ(writes[i].Iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(std::memcmp(Disk(disk)->Data + 512 * i, writes[i].Data.data(), 512), 0);
  }
}

// ---------------------------------------------------------------------------------------
// A device-control request the I/O manager built is waited on through its event; buffered
// output is copied back (only what the device reported), direct output goes through an
// MDL the I/O manager builds and frees.

TEST_F(IoStackTest, BuiltDeviceControlRequestIsWaitedOnThroughItsEvent) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteFromWorker);
  PDEVICE_OBJECT filter = Attach(disk, FilterPassThrough);
  std::vector<unsigned char> data = Pattern(4096, 11);
  std::memcpy(Disk(disk)->Data, data.data(), data.size());

  unsigned char out[16];
  std::memset(out, 0xAB, sizeof out);
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  PIRP irp =
      IoBuildDeviceIoControlRequest(IOCTL_RAMDISK_GET_SIZE, filter, nullptr, 0, out, sizeof out, FALSE, &done, &iosb);
  ASSERT_NE(irp, nullptr);
  EXPECT_EQ(irp->Flags & (IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | IRP_INPUT_OPERATION),
            ULONG{IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | IRP_INPUT_OPERATION});
  EXPECT_EQ(IoCallDriver(filter, irp), STATUS_PENDING);
  EXPECT_EQ(KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, sizeof(ULONGLONG));
  ULONGLONG size = 0;
  std::memcpy(&size, out, sizeof size);
  EXPECT_EQ(size, 64u * 1024);
  EXPECT_EQ(out[8], 0xAB) << "only Information bytes are copied back";

  ULONG offset = 100;
  std::vector<unsigned char> direct(256, 0);
  KeClearEvent(&done);
  irp = IoBuildDeviceIoControlRequest(IOCTL_RAMDISK_READ_DIRECT, filter, &offset, sizeof offset, direct.data(),
                                      256, FALSE, &done, &iosb);
  ASSERT_NE(irp, nullptr);
  ASSERT_NE(irp->MdlAddress, nullptr);
  EXPECT_EQ(MmGetMdlByteCount(irp->MdlAddress), 256u);
  if (IoCallDriver(filter, irp) == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(std::memcmp(direct.data(), data.data() + 100, 256), 0);
  EXPECT_EQ(kvhost::IoGetCounters().MdlsLive, 0u);

  // A failed request copies nothing back.
  std::memset(out, 0xAB, sizeof out);
  KeClearEvent(&done);
  irp = IoBuildDeviceIoControlRequest(IOCTL_RAMDISK_GET_SIZE, filter, nullptr, 0, out, 4, FALSE, &done, &iosb);
  if (IoCallDriver(filter, irp) == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  EXPECT_EQ(iosb.Status, STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(out[0], 0xAB);
}

// ---------------------------------------------------------------------------------------
// A request its sender allocated, with an MDL over non-paged pool, kept by the sender's
// completion routine and sent again while the disk cancels it.

struct RawTransfer {
  KEVENT Done;
  PDEVICE_OBJECT SeenDevice = reinterpret_cast<PDEVICE_OBJECT>(1);
};

NTSTATUS KeepRawTransfer(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  auto* raw = static_cast<RawTransfer*>(Context);
  raw->SeenDevice = DeviceObject;
  KeSetEvent(&raw->Done, IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

TEST_F(IoStackTest, RawTransferIsSentAgainWhileTheDiskCancelsIt) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteFromWorker);
  Attach(disk, FilterPassThrough);
  auto* buffer = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 4096, kBufferTag));
  std::vector<unsigned char> data = Pattern(4096, 21);
  std::memcpy(buffer, data.data(), data.size());
  PIRP irp = IoAllocateIrp(static_cast<CCHAR>(disk->StackSize + 8), FALSE);
  PMDL mdl = IoAllocateMdl(buffer, 4096, FALSE, FALSE, nullptr);
  ASSERT_NE(irp, nullptr);
  ASSERT_NE(mdl, nullptr);
  MmBuildMdlForNonPagedPool(mdl);
  irp->MdlAddress = mdl;
  EXPECT_EQ(IoSetIoPriorityHint(irp, IoPriorityHigh), STATUS_SUCCESS);
  irp->Flags |= IRP_NOCACHE;
  Disk(disk)->FailCount = 2;
  Disk(disk)->FailStatus = STATUS_CANCELLED;

  RawTransfer raw;
  NTSTATUS status;
  int sends = 0;
  do {
    irp->Cancel = FALSE;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_WRITE;
    sp->Flags = SL_OVERRIDE_VERIFY_VOLUME;
    sp->Parameters.Write.Length = 4096;
    sp->Parameters.Write.ByteOffset.QuadPart = 12288;
    KeInitializeEvent(&raw.Done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, KeepRawTransfer, &raw, TRUE, TRUE, TRUE);
    if (IoCallDriver(disk, irp) == STATUS_PENDING) KeWaitForSingleObject(&raw.Done, Executive, KernelMode, FALSE, nullptr);
    status = irp->IoStatus.Status;
    ++sends;
  } while (status == STATUS_CANCELLED && sends < 10);

  EXPECT_EQ(status, STATUS_SUCCESS);
  EXPECT_EQ(sends, 3);
  EXPECT_EQ(Disk(disk)->Writes, 3);
  EXPECT_EQ(std::memcmp(Disk(disk)->Data + 12288, data.data(), data.size()), 0);
  EXPECT_EQ(Disk(disk)->LastPriorityHint, IoPriorityHigh);
  EXPECT_TRUE(Disk(disk)->LastFlags & IRP_NOCACHE);
  EXPECT_EQ(raw.SeenDevice, nullptr) << "the sender's own routine has no device of its own";
  EXPECT_EQ(irp->CurrentLocation, irp->StackCount + 1) << "the request is back with its sender";
  IoFreeMdl(mdl);
  IoFreeIrp(irp);
  ExFreePoolWithTag(buffer, kBufferTag);
}

// ---------------------------------------------------------------------------------------
// The completion walk: routines run from the lowest location up, each given its own device,
// only for the outcomes they asked for; a pending mark travels up.

struct ProbeExtension {
  PDEVICE_OBJECT Lower;
  const char* Name;
  BOOLEAN SetRoutine;
  BOOLEAN OnSuccess, OnError, OnCancel;
  BOOLEAN MarkWhenPending;
  std::vector<std::string>* Order;
  PDEVICE_OBJECT SeenDevice;
  BOOLEAN SawPendingReturned;
};

NTSTATUS ProbeCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  auto* probe = static_cast<ProbeExtension*>(Context);
  probe->Order->push_back(probe->Name);
  probe->SeenDevice = DeviceObject;
  probe->SawPendingReturned = Irp->PendingReturned;
  if (Irp->PendingReturned && probe->MarkWhenPending) IoMarkIrpPending(Irp);
  return STATUS_SUCCESS;
}

NTSTATUS ProbeDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  auto* probe = static_cast<ProbeExtension*>(DeviceObject->DeviceExtension);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  if (probe->SetRoutine)
    IoSetCompletionRoutine(Irp, ProbeCompletion, probe, probe->OnSuccess, probe->OnError, probe->OnCancel);
  return IoCallDriver(probe->Lower, Irp);
}

NTSTATUS ProbeDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH& slot : DriverObject->MajorFunction) slot = ProbeDispatch;
  return STATUS_SUCCESS;
}

class CompletionWalkTest : public IoStackTest {
 protected:
  void SetUp() override {
    IoStackTest::SetUp();
    probeDriver_ = kvhost::IoLoadDriver(u"Probe", ProbeDriverEntry).DriverObject;
  }
  void TearDown() override {
    for (auto probe = probes_.rbegin(); probe != probes_.rend(); ++probe) {  // the top first
      IoDetachDevice(static_cast<ProbeExtension*>((*probe)->DeviceExtension)->Lower);
      IoDeleteDevice(*probe);
    }
    kvhost::IoUnloadDriver(probeDriver_);
    IoStackTest::TearDown();
  }
  // Probes are attached in order, so the last one is the top of the stack.
  ProbeExtension* AddProbe(PDEVICE_OBJECT target, const char* name) {
    PDEVICE_OBJECT device = nullptr;
    EXPECT_EQ(IoCreateDevice(probeDriver_, sizeof(ProbeExtension), nullptr, FILE_DEVICE_DISK, 0, FALSE, &device),
              STATUS_SUCCESS);
    device->Flags |= DO_DIRECT_IO;
    auto* probe = static_cast<ProbeExtension*>(device->DeviceExtension);
    *probe = ProbeExtension{nullptr, name, TRUE, TRUE, TRUE, TRUE, TRUE, &order_, nullptr, FALSE};
    EXPECT_EQ(IoAttachDeviceToDeviceStackSafe(device, target, &probe->Lower), STATUS_SUCCESS);
    probes_.push_back(device);
    return probe;
  }
  PDEVICE_OBJECT Top() const { return probes_.back(); }

  PDRIVER_OBJECT probeDriver_ = nullptr;
  std::vector<PDEVICE_OBJECT> probes_;
  std::vector<std::string> order_;
  unsigned char buffer_[512] = {};
};

TEST_F(CompletionWalkTest, RoutinesRunFromTheBottomUpEachWithItsOwnDevice) {
  PDEVICE_OBJECT disk = NewDisk();
  ProbeExtension* lower = AddProbe(disk, "lower");
  ProbeExtension* upper = AddProbe(Top(), "upper");
  EXPECT_EQ(Transfer(Top(), IRP_MJ_WRITE, buffer_, 512, 0).Status, STATUS_SUCCESS);
  EXPECT_EQ(order_, (std::vector<std::string>{"lower", "upper"}));
  EXPECT_EQ(lower->SeenDevice, probes_[0]);
  EXPECT_EQ(upper->SeenDevice, probes_[1]);
}

TEST_F(CompletionWalkTest, RoutinesRunOnlyForTheOutcomesTheyAskedFor) {
  PDEVICE_OBJECT disk = NewDisk();
  ProbeExtension* onError = AddProbe(disk, "error");
  ProbeExtension* onSuccess = AddProbe(Top(), "success");
  onError->OnSuccess = onError->OnCancel = FALSE;
  onSuccess->OnError = onSuccess->OnCancel = FALSE;

  Transfer(Top(), IRP_MJ_WRITE, buffer_, 512, 0);
  EXPECT_EQ(order_, (std::vector<std::string>{"success"}));

  order_.clear();
  Disk(disk)->FailCount = 1;
  Disk(disk)->FailStatus = STATUS_DEVICE_NOT_READY;
  EXPECT_EQ(Transfer(Top(), IRP_MJ_WRITE, buffer_, 512, 0).Status, STATUS_DEVICE_NOT_READY);
  EXPECT_EQ(order_, (std::vector<std::string>{"error"}));

  // A cancelled request runs the routines that asked for cancellation whatever the status.
  order_.clear();
  onError->OnError = FALSE;
  onError->OnCancel = TRUE;
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER at{};
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_WRITE, Top(), buffer_, 512, &at, &done, &iosb);
  irp->Cancel = TRUE;
  IoCallDriver(Top(), irp);
  EXPECT_EQ(order_, (std::vector<std::string>{"error", "success"}));
}

TEST_F(CompletionWalkTest, PendingTravelsUpAndAForgottenMarkIsCaught) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteFromWorker);
  ProbeExtension* withoutRoutine = AddProbe(disk, "plain");
  withoutRoutine->SetRoutine = FALSE;
  ProbeExtension* marking = AddProbe(Top(), "marking");

  // The walk marks a location without a routine; a routine that marks does it itself.
  {
    kvhost::ViolationCapture capture;
    NTSTATUS sent = 0;
    EXPECT_EQ(Transfer(Top(), IRP_MJ_WRITE, buffer_, 512, 0, &sent).Status, STATUS_SUCCESS);
    EXPECT_EQ(sent, STATUS_PENDING);
    EXPECT_TRUE(marking->SawPendingReturned);
    EXPECT_EQ(capture.Count(), 0u) << capture.Describe();
  }
  // A routine that lets completion go on without marking the request pending leaves its
  // dispatch routine returning STATUS_PENDING for an unmarked location.
  marking->MarkWhenPending = FALSE;
  kvhost::ViolationCapture capture;
  Transfer(Top(), IRP_MJ_WRITE, buffer_, 512, 0);
  ASSERT_EQ(capture.Count("IrpPendingNotMarked"), 1u) << capture.Describe();
  EXPECT_NE(capture.All()[0].Message.find("IRP_MJ_WRITE dispatch routine of device"), std::string::npos);
  EXPECT_NE(capture.All()[0].Message.find("\\Driver\\Probe"), std::string::npos);
}

// IoSetCompletionRoutineEx keeps its device referenced until the routine has had its turn.
TEST_F(IoStackTest, CompletionRoutineExHoldsItsDeviceUntilItRan) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteFromWorker, 0);
  PDEVICE_OBJECT filter = Attach(disk, FilterPassThrough);
  kvhost::SetManualWorkQueues(true);
  RawTransfer raw;
  KeInitializeEvent(&raw.Done, NotificationEvent, FALSE);
  PIRP irp = IoAllocateIrp(disk->StackSize, FALSE);
  unsigned char data[512] = {};
  irp->UserBuffer = data;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = IRP_MJ_READ;
  sp->Parameters.Read.Length = sizeof data;
  const LONG_PTR before = kvhost::ObGetReferenceCount(filter);
  ASSERT_EQ(IoSetCompletionRoutineEx(filter, irp, KeepRawTransfer, &raw, TRUE, TRUE, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::ObGetReferenceCount(filter), before + 1);
  EXPECT_EQ(IoCallDriver(disk, irp), STATUS_PENDING);
  EXPECT_EQ(kvhost::ObGetReferenceCount(filter), before + 1);
  EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);
  EXPECT_NE(KeReadStateEvent(&raw.Done), 0);
  EXPECT_EQ(kvhost::ObGetReferenceCount(filter), before);
  IoFreeIrp(irp);
}

}  // namespace
