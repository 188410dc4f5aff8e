// The I/O manager's verifier checks, each provoked by a misbehaving driver and seen as a
// violation (or a bug check) that names the request, the device and the driver.
#include <algorithm>
#include <string>

#include "io_test_stack.h"
#include "kvhost/irql.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"
#include "kvhost/workqueue.h"

namespace {

// A driver that gets request handling wrong in one chosen way.
enum class Misbehavior { CompleteTwice, CompleteWithPending, PendWithoutMark, KeepForever };

struct BadExtension {
  Misbehavior What;
  PIRP Kept;
};

NTSTATUS BadDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  auto* bad = static_cast<BadExtension*>(DeviceObject->DeviceExtension);
  switch (bad->What) {
    case Misbehavior::CompleteTwice:
      Irp->IoStatus.Status = STATUS_SUCCESS;
      IoCompleteRequest(Irp, IO_NO_INCREMENT);
      IoCompleteRequest(Irp, IO_NO_INCREMENT);
      return STATUS_SUCCESS;
    case Misbehavior::CompleteWithPending:
      Irp->IoStatus.Status = STATUS_PENDING;
      IoCompleteRequest(Irp, IO_NO_INCREMENT);
      return STATUS_SUCCESS;
    case Misbehavior::PendWithoutMark:
      bad->Kept = Irp;
      return STATUS_PENDING;
    case Misbehavior::KeepForever:
      IoMarkIrpPending(Irp);
      bad->Kept = Irp;
      return STATUS_PENDING;
  }
  return STATUS_SUCCESS;
}

NTSTATUS BadDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH& slot : DriverObject->MajorFunction) slot = BadDispatch;
  return STATUS_SUCCESS;
}

class IoVerifierTest : public IoStackTest {
 protected:
  void SetUp() override {
    IoStackTest::SetUp();
    badDriver_ = kvhost::IoLoadDriver(u"Bad", BadDriverEntry).DriverObject;
    CountedString name(u"\\Device\\Bad");
    ASSERT_EQ(IoCreateDevice(badDriver_, sizeof(BadExtension), name.get(), FILE_DEVICE_DISK, 0, FALSE, &bad_),
              STATUS_SUCCESS);
  }
  void TearDown() override {
    IoDeleteDevice(bad_);
    kvhost::IoUnloadDriver(badDriver_);
    IoStackTest::TearDown();
  }
  BadExtension* Bad() { return static_cast<BadExtension*>(bad_->DeviceExtension); }

  // A read of the caller's own (IoAllocateIrp, no status block): its completion routine
  // takes it back, and the caller frees it.
  static NTSTATUS TakeBack(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_MORE_PROCESSING_REQUIRED; }
  PIRP OwnRead(PDEVICE_OBJECT target) {
    PIRP irp = IoAllocateIrp(target->StackSize, FALSE);
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_READ;
    IoSetCompletionRoutine(irp, TakeBack, nullptr, TRUE, TRUE, TRUE);
    return irp;
  }

  static void ExpectNames(const kvhost::ViolationCapture& capture, const char* check, const char* major) {
    ASSERT_EQ(capture.Count(check), 1u) << capture.Describe();
    for (const kvhost::Violation& v : capture.All()) {
      if (v.Check != check) continue;
      EXPECT_NE(v.Message.find(major), std::string::npos) << v.Message;
      EXPECT_NE(v.Message.find("\\Device\\Bad"), std::string::npos) << v.Message;
      EXPECT_NE(v.Message.find("\\Driver\\Bad"), std::string::npos) << v.Message;
    }
  }

  PDRIVER_OBJECT badDriver_ = nullptr;
  PDEVICE_OBJECT bad_ = nullptr;
  unsigned char buffer_[512] = {};
};

TEST_F(IoVerifierTest, CompletingARequestTwiceIsCaught) {
  Bad()->What = Misbehavior::CompleteTwice;
  {
    // A request the I/O manager built is freed by the first completion.
    kvhost::ViolationCapture capture;
    Transfer(bad_, IRP_MJ_WRITE, buffer_, sizeof buffer_, 0);
    ExpectNames(capture, "IrpCompletedTwice", "IRP_MJ_WRITE");
  }
  // One that its sender took back at the first completion is still there: the second
  // completion finds it with its sender.
  kvhost::ViolationCapture capture;
  PIRP irp = OwnRead(bad_);
  IoCallDriver(bad_, irp);
  ExpectNames(capture, "IrpCompletedTwice", "IRP_MJ_READ");
  IoFreeIrp(irp);
}

TEST_F(IoVerifierTest, CompletingWithStatusPendingIsCaught) {
  Bad()->What = Misbehavior::CompleteWithPending;
  kvhost::ViolationCapture capture;
  PIRP irp = OwnRead(bad_);
  IoCallDriver(bad_, irp);
  ExpectNames(capture, "IrpCompletedWithPending", "IRP_MJ_READ");
  IoFreeIrp(irp);
}

TEST_F(IoVerifierTest, ReturningPendingWithoutMarkingTheRequestIsCaught) {
  Bad()->What = Misbehavior::PendWithoutMark;
  kvhost::ViolationCapture capture;
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER at{};
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_WRITE, bad_, buffer_, sizeof buffer_, &at, &done, &iosb);
  EXPECT_EQ(IoCallDriver(bad_, irp), STATUS_PENDING);
  // The verdict comes when the completion reaches the location and finds no mark.
  Bad()->Kept->IoStatus.Status = STATUS_SUCCESS;
  IoCompleteRequest(Bad()->Kept, IO_NO_INCREMENT);
  ExpectNames(capture, "IrpPendingNotMarked", "IRP_MJ_WRITE");
}

TEST_F(IoVerifierTest, ARequestCompletedToTheTopWithoutAnOwnerIsCaught) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteInline, 0);
  {
    // Sent without a completion routine to take it back: the disk's completion reaches the
    // I/O manager, which has neither status block nor event to complete it to.
    kvhost::ViolationCapture capture;
    PIRP irp = IoAllocateIrp(disk->StackSize, FALSE);
    irp->UserBuffer = buffer_;
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = IRP_MJ_READ;
    sp->Parameters.Read.Length = sizeof buffer_;
    EXPECT_EQ(IoCallDriver(disk, irp), STATUS_SUCCESS);
    ASSERT_EQ(capture.Count("IrpCompletedWithoutOwner"), 1u) << capture.Describe();
    const std::string message = capture.All()[0].Message;
    EXPECT_NE(message.find("IRP_MJ_READ"), std::string::npos) << message;
    EXPECT_NE(message.find("IoCompleteRequest by device"), std::string::npos) << message;
    EXPECT_NE(message.find("RamDisk0"), std::string::npos) << message;
    IoFreeIrp(irp);  // still the sender's
  }
  // Completing one that was never sent is the same mistake by its sender.
  kvhost::ViolationCapture capture;
  PIRP unsent = IoAllocateIrp(1, FALSE);
  unsent->IoStatus.Status = STATUS_SUCCESS;
  IoCompleteRequest(unsent, IO_NO_INCREMENT);
  ASSERT_EQ(capture.Count("IrpCompletedWithoutOwner"), 1u) << capture.Describe();
  EXPECT_NE(capture.All()[0].Message.find("not sent to any device"), std::string::npos) << capture.Describe();
  IoFreeIrp(unsent);
}

TEST_F(IoVerifierTest, RequestsLeftBehindAreDescribedByWhatBecameOfThem) {
  Bad()->What = Misbehavior::KeepForever;
  PIRP swallowed = OwnRead(bad_);
  EXPECT_EQ(IoCallDriver(bad_, swallowed), STATUS_PENDING);

  PDEVICE_OBJECT disk = NewDisk();
  PIRP held = IoAllocateIrp(disk->StackSize, FALSE);
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(held);
  sp->MajorFunction = IRP_MJ_WRITE;
  held->MdlAddress = nullptr;
  IoSetCompletionRoutine(
      held, [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS { return STATUS_MORE_PROCESSING_REQUIRED; }, nullptr, TRUE,
      TRUE, TRUE);
  IoCallDriver(disk, held);
  PIRP unsent = IoAllocateIrp(1, FALSE);

  std::vector<std::string> lines = kvhost::IoDescribeLiveIrps();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("IRP_MJ_READ"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("\\Device\\Bad"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("was never completed"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find("IRP_MJ_WRITE"), std::string::npos) << lines[1];
  EXPECT_NE(lines[1].find("STATUS_MORE_PROCESSING_REQUIRED"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find("was never sent"), std::string::npos) << lines[2];

  swallowed->IoStatus.Status = STATUS_CANCELLED;
  IoCompleteRequest(swallowed, IO_NO_INCREMENT);
  IoFreeIrp(swallowed);
  IoFreeIrp(held);
  IoFreeIrp(unsent);
}

TEST_F(IoVerifierTest, CallingADriverAboveDispatchLevelIsCaught) {
  PDEVICE_OBJECT disk = NewDisk(RamDiskCompleteInline, 0);
  PIRP irp = OwnRead(disk);
  irp->UserBuffer = buffer_;
  IoGetNextIrpStackLocation(irp)->Parameters.Read.Length = sizeof buffer_;
  kvhost::ViolationCapture capture;
  {
    kvhost::ScopedIrql high(HIGH_LEVEL);
    IoCallDriver(disk, irp);
  }
  ASSERT_TRUE(capture.Saw("IoCallDriverAboveDispatch")) << capture.Describe();
  EXPECT_NE(capture.Describe().find("IoCallDriver at IRQL 15 of IRP"), std::string::npos) << capture.Describe();
  EXPECT_TRUE(capture.Saw("IoCompleteRequestAboveDispatch"));
  IoFreeIrp(irp);
}

TEST_F(IoVerifierTest, DeletingADeviceStillInAStackIsCaught) {
  PDEVICE_OBJECT disk = NewDisk();
  PDEVICE_OBJECT filter = Attach(disk, FilterPassThrough);
  kvhost::ViolationCapture capture;
  // The disk still has the filter above it...
  RamDiskDelete(disk);
  ASSERT_EQ(capture.Count("DeviceDeletedWhileAttached"), 1u) << capture.Describe();
  EXPECT_NE(capture.All()[0].Message.find("RamDisk0"), std::string::npos);
  EXPECT_NE(capture.All()[0].Message.find("\\Driver\\TestFilter attached above it"), std::string::npos);
  // ...and a filter deleted without detaching is still attached below.
  PDEVICE_OBJECT disk2 = NewDisk(RamDiskCompleteInline, DO_DIRECT_IO, u"\\Device\\RamDisk1");
  PDEVICE_OBJECT filter2 = Attach(disk2, FilterPassThrough);
  IoDeleteDevice(filter2);
  ASSERT_EQ(capture.Count("DeviceDeletedWhileAttached"), 2u) << capture.Describe();
  EXPECT_NE(capture.All()[1].Message.find("is still attached to device"), std::string::npos);
  IoDeleteDevice(filter);
}

TEST_F(IoVerifierTest, DeletingADeviceSomeoneStillReferencesIsCaught) {
  PDEVICE_OBJECT disk = NewDisk();
  ObReferenceObject(disk);
  {
    kvhost::ViolationCapture capture;
    RamDiskDelete(disk);
    ASSERT_EQ(capture.Count("DeviceDeletedWhileReferenced"), 1u) << capture.Describe();
    EXPECT_NE(capture.All()[0].Message.find("1 reference(s) beyond its own"), std::string::npos);
  }
  ObDereferenceObject(disk);

  // A work item of the device's that is still queued is the I/O manager's reference, which
  // Windows lets outlive the deletion.
  disk = NewDisk(RamDiskCompleteInline, DO_DIRECT_IO, u"\\Device\\RamDisk1");
  kvhost::SetManualWorkQueues(true);
  PIO_WORKITEM item = IoAllocateWorkItem(disk);
  IoQueueWorkItem(item, [](PDEVICE_OBJECT, PVOID context) { IoFreeWorkItem(static_cast<PIO_WORKITEM>(context)); },
                  DelayedWorkQueue, item);
  RamDiskDelete(disk);
  EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);
  EXPECT_FALSE(kvhost::ObIsObject(disk)) << "the device goes with the work item's reference";
}

// The end of every test turns what it left behind into findings: a request its sender took
// back with STATUS_MORE_PROCESSING_REQUIRED and never freed, and an object a reference still
// holds. Everything else is given back first, so that each finding has one cause.
TEST(IoEndOfTest, ARequestKeptAndAnObjectStillReferencedAreFindings) {
  PDRIVER_OBJECT ramDriver = kvhost::IoLoadDriver(u"RamDisk", RamDiskDriverEntry).DriverObject;
  ASSERT_NE(ramDriver, nullptr);
  CountedString diskName(u"\\Device\\RamDisk0");
  PDEVICE_OBJECT disk = nullptr;
  ASSERT_EQ(RamDiskCreate(ramDriver, diskName.get(), 4096, DO_DIRECT_IO, RamDiskCompleteInline, &disk), STATUS_SUCCESS);
  PIRP kept = IoAllocateIrp(disk->StackSize, FALSE);
  ASSERT_NE(kept, nullptr);
  IoGetNextIrpStackLocation(kept)->MajorFunction = IRP_MJ_FLUSH_BUFFERS;
  IoSetCompletionRoutine(
      kept, [](PDEVICE_OBJECT, PIRP, PVOID) -> NTSTATUS { return STATUS_MORE_PROCESSING_REQUIRED; }, nullptr, TRUE,
      TRUE, TRUE);
  EXPECT_EQ(IoCallDriver(disk, kept), STATUS_SUCCESS);
  RamDiskDelete(disk);
  kvhost::IoUnloadDriver(ramDriver);

  CountedString eventName(u"\\BaseNamedObjects\\Forgotten");
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, eventName.get(), OBJ_KERNEL_HANDLE, nullptr, nullptr);
  HANDLE handle = nullptr;
  ASSERT_EQ(ZwCreateEvent(&handle, EVENT_ALL_ACCESS, &attributes, NotificationEvent, FALSE), STATUS_SUCCESS);
  PVOID event = nullptr;
  ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *ExEventObjectType, KernelMode, &event, nullptr),
            STATUS_SUCCESS);
  ZwClose(handle);  // the reference is never given back

  const std::vector<std::string> problems = kvhost::EndTest();  // what the harness runs after the test
  kvhost::BeginTest();  // and before the next: it must not inherit what this one left on purpose
  const std::string all = testing::PrintToString(problems);
  auto count = [&](std::initializer_list<const char*> parts) {
    return std::count_if(problems.begin(), problems.end(), [&](const std::string& line) {
      return std::all_of(parts.begin(), parts.end(), [&](const char* part) { return line.find(part) != std::string::npos; });
    });
  };
  EXPECT_EQ(count({"[IrpLeftBehind]", "IRP_MJ_FLUSH_BUFFERS", "STATUS_MORE_PROCESSING_REQUIRED"}), 1) << all;
  EXPECT_EQ(count({"\\BaseNamedObjects\\Forgotten", "still has 1 reference(s) and 0 handle(s)"}), 1) << all;
  EXPECT_EQ(count({"pool tag 'Irp '"}), 1) << "the request's memory: " << all;
  EXPECT_EQ(problems.size(), 3u) << all;
}

using IoVerifierDeathTest = IoVerifierTest;

TEST_F(IoVerifierDeathTest, SendingARequestPastItsLastStackLocationIsABugCheck) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  PDEVICE_OBJECT disk = NewDisk();
  PIRP irp = OwnRead(disk);
  IoSetNextIrpStackLocation(irp);  // the sender used its only location itself
  EXPECT_DEATH(IoCallDriver(disk, irp), "NO_MORE_IRP_STACK_LOCATIONS: IoCallDriver of IRP .*IRP_MJ_READ.*RamDisk0");
  IoSkipCurrentIrpStackLocation(irp);
  IoFreeIrp(irp);
}

}  // namespace
