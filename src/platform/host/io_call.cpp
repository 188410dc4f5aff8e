// Sending a request down a device stack (IoCallDriver) and completing it back up
// (IoCompleteRequest): the completion walk, completion routines, and the I/O manager's own
// completion once the walk reaches the top.
#include <cstdio>
#include <cstring>

#include "io_internal.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
namespace {

// What a request's first location says about the size of its caller's output buffer; the
// buffered copy-back never writes more.
void CaptureCopyBackLimit(IrpHeader* header, PIO_STACK_LOCATION sp) {
  switch (sp->MajorFunction) {
    case IRP_MJ_DEVICE_CONTROL:
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
      header->CopyBackLimit = sp->Parameters.DeviceIoControl.OutputBufferLength;
      break;
    case IRP_MJ_FILE_SYSTEM_CONTROL:
      header->CopyBackLimit = sp->Parameters.FileSystemControl.OutputBufferLength;
      break;
    case IRP_MJ_READ:
      header->CopyBackLimit = sp->Parameters.Read.Length;
      break;
    default:
      return;
  }
  header->CopyBackLimitKnown = true;
}

// What the walk does to each location it leaves, before the completion routine runs.
void ClearStackLocation(PIO_STACK_LOCATION sp) {
  sp->MinorFunction = 0;
  sp->Flags = 0;
  __atomic_store_n(&sp->Control, 0, __ATOMIC_RELEASE);  // read by the dispatching thread meanwhile
  sp->Parameters.Others.Argument1 = nullptr;
  sp->Parameters.Others.Argument2 = nullptr;
  sp->Parameters.Others.Argument3 = nullptr;
  sp->Parameters.Others.Argument4 = nullptr;
  sp->FileObject = nullptr;
}

// Whether the I/O manager finishes the request when its completion reaches the top: one it
// built, or one its sender allocated and gave a status block or an event to fill. A request
// allocated without either has no owner there: its sender must take it back with a
// completion routine that returns STATUS_MORE_PROCESSING_REQUIRED.
bool IoManagerCompletes(PIRP irp, const IrpHeader* header) {
  return header->Origin == IrpOrigin::Built || irp->UserIosb != nullptr || irp->UserEvent != nullptr;
}

// The I/O manager's completion of a request whose walk reached the top: copy buffered
// output back, release the system buffer and MDLs, fill the caller's status block, signal
// its event and free the IRP. A request without an owner there (see IoManagerCompletes)
// would be queued by Windows to the thread in Tail.Overlay.Thread as a threaded request,
// whose completion writes through a status block it does not have: a fault. It is reported,
// and the IRP is left to its sender, which still frees it.
void CompleteToOwner(PIRP irp, IrpHeader* header, CCHAR priorityBoost) {
  if (irp->Flags & IRP_BUFFERED_IO) {
    const NTSTATUS status = irp->IoStatus.Status;
    if ((irp->Flags & IRP_INPUT_OPERATION) && status != STATUS_VERIFY_REQUIRED && !NT_ERROR(status) &&
        irp->UserBuffer != nullptr && irp->AssociatedIrp.SystemBuffer != nullptr) {
      ULONG_PTR bytes = irp->IoStatus.Information;
      if (header->CopyBackLimitKnown && bytes > header->CopyBackLimit) {
        ReportViolationF("IrpInformationTooLarge",
                         "%s was completed with Information %llu, more than its %lu-byte output buffer",
                         DescribeIrp(irp).c_str(), static_cast<unsigned long long>(bytes),
                         static_cast<unsigned long>(header->CopyBackLimit));
        bytes = header->CopyBackLimit;
      }
      std::memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, bytes);
    }
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) && irp->AssociatedIrp.SystemBuffer != nullptr) {
      FreeIoPool(irp->AssociatedIrp.SystemBuffer, 0, "IoCompleteRequest");
      irp->AssociatedIrp.SystemBuffer = nullptr;
      irp->Flags &= ~IRP_DEALLOCATE_BUFFER;
    }
  }
  if (!IoManagerCompletes(irp, header)) {
    PDEVICE_OBJECT by = header->CompletedBy;
    ReportViolation("IrpCompletedWithoutOwner",
                    "IoCompleteRequest" + (by != nullptr ? " by " + DescribeDevice(by) : std::string()) + " of " +
                        DescribeIrp(irp) +
                        ": its sender allocated it without a status block or an event and no completion routine "
                        "took it back with STATUS_MORE_PROCESSING_REQUIRED, so the I/O manager has nobody to "
                        "complete it to");
    header->State.store(IrpState::Finished, std::memory_order_release);
    return;
  }
  // Paging I/O describes the memory manager's pages; its MDLs are not the I/O manager's.
  if (irp->MdlAddress != nullptr && !(irp->Flags & IRP_PAGING_IO)) {
    FreeMdlChain(irp->MdlAddress);
    irp->MdlAddress = nullptr;
  }
  PIO_STATUS_BLOCK iosb = irp->UserIosb;
  PKEVENT event = irp->UserEvent;
  const IO_STATUS_BLOCK result = irp->IoStatus;
  // Freed before the waiter is woken, so that a test ending right after its wait finds the
  // IRP gone; the memory itself stays until this walk lets go of its pin.
  FreeIrp(irp, "IoCompleteRequest");
  if (iosb != nullptr) *iosb = result;
  if (event != nullptr) KeSetEvent(event, priorityBoost, FALSE);
}

}  // namespace

void ReportPendingNotMarked(PIRP irp, IrpHeader* header, UCHAR major, PDEVICE_OBJECT device) {
  ReportViolationF("IrpPendingNotMarked",
                   "the %s dispatch routine of %s returned STATUS_PENDING for IRP %p (#%llu) without IoMarkIrpPending",
                   MajorFunctionName(major), DescribeDevice(device).c_str(), static_cast<void*>(irp),
                   static_cast<unsigned long long>(header->Serial));
}

namespace {

bool ShouldInvoke(PIRP irp, UCHAR control) {
  const NTSTATUS status = irp->IoStatus.Status;
  return (NT_SUCCESS(status) && (control & SL_INVOKE_ON_SUCCESS)) ||
         (!NT_SUCCESS(status) && (control & SL_INVOKE_ON_ERROR)) || (irp->Cancel && (control & SL_INVOKE_ON_CANCEL));
}

std::string DescribeRoutine(PVOID routine, PDEVICE_OBJECT device) {
  char text[48];
  std::snprintf(text, sizeof text, "completion routine %p of ", routine);
  return text + (device != nullptr ? DescribeDevice(device) : std::string("the request's sender"));
}

}  // namespace
}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  if (Irp == nullptr || HeaderOf(Irp)->Magic != kIrpMagic) {
    CheckedHeader(Irp, "IoCallDriver");
    return STATUS_INVALID_PARAMETER;
  }
  IrpHeader* header = HeaderOf(Irp);
  if (DeviceObject == nullptr || DeviceObject->Type != IO_TYPE_DEVICE) {
    kvhost::ReportViolationF("IoCallDriverBadDevice", "IoCallDriver of %s to %p, which is not a device object",
                             DescribeIrp(Irp).c_str(), DeviceObject);
    return STATUS_INVALID_PARAMETER;
  }
  const KIRQL irql = KeGetCurrentIrql();
  if (irql > DISPATCH_LEVEL)
    kvhost::ReportViolationF("IoCallDriverAboveDispatch", "IoCallDriver at IRQL %d of %s to %s", irql,
                             DescribeIrp(Irp).c_str(), DescribeDevice(DeviceObject).c_str());
  if (Irp->CurrentLocation <= 1) {
    kvhost::BugCheck(0x35, "NO_MORE_IRP_STACK_LOCATIONS: IoCallDriver of " + DescribeIrp(Irp) + " to " +
                               DescribeDevice(DeviceObject) + ": no stack location left (StackCount " +
                               std::to_string(Irp->StackCount) + ")");
  }
  PinIrp(header);
  const CHAR location = --Irp->CurrentLocation;
  PIO_STACK_LOCATION sp = --Irp->Tail.Overlay.CurrentStackLocation;
  sp->DeviceObject = DeviceObject;
  header->PendingSeen.Clear(location);
  header->WalkPassed.Clear(location);
  header->AwaitingMark.Clear(location);
  if (header->State.exchange(IrpState::Dispatched, std::memory_order_acq_rel) == IrpState::Idle &&
      !header->CopyBackLimitKnown)
    CaptureCopyBackLimit(header, sp);
  if (DeviceObject->DeviceObjectExtension->DeletePending)
    kvhost::ReportViolationF("IoCallDriverToDeletedDevice", "IoCallDriver of %s to %s, which was deleted",
                             DescribeIrp(Irp).c_str(), DescribeDevice(DeviceObject).c_str());

  const UCHAR major = sp->MajorFunction;
  PDRIVER_DISPATCH dispatch =
      major <= IRP_MJ_MAXIMUM_FUNCTION ? DeviceObject->DriverObject->MajorFunction[major] : nullptr;
  NTSTATUS status;
  if (dispatch == nullptr) {
    kvhost::ReportViolationF("IrpBadMajorFunction", "IoCallDriver of %s: major function 0x%02X has no dispatch routine",
                             DescribeIrp(Irp).c_str(), major);
    Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    Irp->IoStatus.Information = 0;
    IofCompleteRequest(Irp, IO_NO_INCREMENT);
    status = STATUS_INVALID_DEVICE_REQUEST;
  } else {
    status = dispatch(DeviceObject, Irp);
  }
  // Windows trusts a STATUS_PENDING only from a routine whose location is marked pending:
  // the completion walk then knows the request finishes asynchronously. Without a mark now,
  // the verdict belongs to the walk, unless it has gone past already. The walk may be
  // clearing this location in another thread meanwhile, so the mark is read atomically.
  if (status == STATUS_PENDING && !(__atomic_load_n(&sp->Control, __ATOMIC_ACQUIRE) & SL_PENDING_RETURNED)) {
    header->AwaitingMark.Set(location);
    if (header->WalkPassed.Test(location) && header->AwaitingMark.Take(location) &&
        !header->PendingSeen.Test(location))
      ReportPendingNotMarked(Irp, header, major, DeviceObject);
  }
  UnpinIrp(header);
  return status;
}

void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
  IrpHeader* header = CheckedHeader(Irp, "IoCompleteRequest", "IrpCompletedTwice");
  if (header == nullptr) return;
  PinIrp(header);
  IrpState state = header->State.load(std::memory_order_acquire);
  do {
    if (state == IrpState::Completing || state == IrpState::Finished) {
      kvhost::ReportViolation("IrpCompletedTwice", "IoCompleteRequest of " + DescribeIrp(Irp) + ", which " +
                                                       (state == IrpState::Finished ? "was already completed"
                                                                                    : "is already being completed"));
      UnpinIrp(header);
      return;
    }
  } while (!header->State.compare_exchange_weak(state, IrpState::Completing, std::memory_order_acq_rel));
  const uint32_t completion = header->Completions.fetch_add(1, std::memory_order_acq_rel) + 1;
  // A request a completion routine took back at the top is its sender's again. Only the I/O
  // manager can finish it from there, and only one that it owns: a second completion of an
  // allocated request, after the first reached its sender, is a driver completing it twice.
  if (state == IrpState::Held && Irp->CurrentLocation > Irp->StackCount && !IoManagerCompletes(Irp, header)) {
    kvhost::ReportViolation("IrpCompletedTwice", "IoCompleteRequest of " + DescribeIrp(Irp) +
                                                     ", which its completion had already brought back to its sender");
    header->State.store(IrpState::Held, std::memory_order_release);
    UnpinIrp(header);
    return;
  }

  if (Irp->IoStatus.Status == STATUS_PENDING)
    kvhost::ReportViolation("IrpCompletedWithPending",
                            "IoCompleteRequest of " + DescribeIrp(Irp) + " with status STATUS_PENDING");
  if (Irp->CancelRoutine != nullptr)
    kvhost::ReportViolation("IrpCompletedWithCancelRoutine",
                            "IoCompleteRequest of " + DescribeIrp(Irp) + ", which still has a cancel routine set");
  const KIRQL irql = KeGetCurrentIrql();
  if (irql > DISPATCH_LEVEL)
    kvhost::ReportViolationF("IoCompleteRequestAboveDispatch", "IoCompleteRequest at IRQL %d of %s", irql,
                             DescribeIrp(Irp).c_str());
  header->Completed = true;
  header->CompletedBy =
      Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
  header->CompletedStatus = Irp->IoStatus.Status;
  header->CompletedInformation = Irp->IoStatus.Information;
  header->CompletedBoost = PriorityBoost;
  NotifyCompletionObserver(Irp, header);

  while (Irp->CurrentLocation <= Irp->StackCount) {
    PIO_STACK_LOCATION sp = Irp->Tail.Overlay.CurrentStackLocation;
    const CHAR location = Irp->CurrentLocation;
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
    const UCHAR control = sp->Control;
    Irp->PendingReturned = (control & SL_PENDING_RETURNED) != 0;
    if (Irp->PendingReturned) header->PendingSeen.Set(location);
    header->WalkPassed.Set(location);
    if (header->AwaitingMark.Take(location) && !Irp->PendingReturned)
      ReportPendingNotMarked(Irp, header, sp->MajorFunction, sp->DeviceObject);
    PIO_COMPLETION_ROUTINE routine = sp->CompletionRoutine;
    PVOID context = sp->Context;
    ClearStackLocation(sp);
    if (routine != nullptr && ShouldInvoke(Irp, control)) {
      // The routine's driver is the one at the location above (none above the top: the
      // request's sender allocated it).
      PDEVICE_OBJECT device =
          Irp->CurrentLocation <= Irp->StackCount ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
      header->State.store(IrpState::Held, std::memory_order_release);
      const NTSTATUS result = routine(device, Irp, context);
      if (result == STATUS_MORE_PROCESSING_REQUIRED) {
        // The IRP is the routine's owner's now, perhaps already freed or sent again.
        UnpinIrp(header);
        return;
      }
      IrpState held = IrpState::Held;
      if (header->Completions.load(std::memory_order_acquire) != completion ||
          (header->Pins.load(std::memory_order_acquire) & kFreeRequested) ||
          !header->State.compare_exchange_strong(held, IrpState::Completing, std::memory_order_acq_rel)) {
        kvhost::ReportViolationF("IrpCompletedTwice",
                                 "%s returned 0x%08X, not STATUS_MORE_PROCESSING_REQUIRED, for IRP %p (#%llu) that "
                                 "had meanwhile been completed again, sent again or freed",
                                 DescribeRoutine(reinterpret_cast<PVOID>(routine), device).c_str(),
                                 static_cast<unsigned>(result), Irp, static_cast<unsigned long long>(header->Serial));
        UnpinIrp(header);
        return;
      }
    } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
      IoMarkIrpPending(Irp);
    }
  }
  CompleteToOwner(Irp, header, PriorityBoost);
  UnpinIrp(header);
}

NTSTATUS PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return IofCallDriver(DeviceObject, Irp); }

void PoStartNextPowerIrp(PIRP Irp) { UNREFERENCED_PARAMETER(Irp); }

}  // extern "C"

// ---------------------------------------------------------------------------------------
// IoSetCompletionRoutineEx: the routine runs through a small record that keeps the device
// object referenced until it has run. The record is invoked in every case and applies the
// caller's success/error/cancel choice itself, so it is always released.
namespace {

struct CompletionRecord {
  PIO_COMPLETION_ROUTINE Routine;
  PVOID Context;
  PDEVICE_OBJECT Device;
  UCHAR Control;
};

NTSTATUS CompletionRecordRoutine(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  auto* record = static_cast<CompletionRecord*>(Context);
  const CompletionRecord copy = *record;
  FreeIoPool(record, kCompletionContextTag, "IoCompleteRequest");
  NTSTATUS status = STATUS_SUCCESS;
  if (ShouldInvoke(Irp, copy.Control)) {
    status = copy.Routine(DeviceObject, Irp, copy.Context);
  } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
    IoMarkIrpPending(Irp);
  }
  ObDereferenceObject(copy.Device);
  DropTransientReference(copy.Device);
  return status;
}

}  // namespace

extern "C" NTSTATUS IoSetCompletionRoutineEx(PDEVICE_OBJECT DeviceObject, PIRP Irp,
                                             PIO_COMPLETION_ROUTINE CompletionRoutine, PVOID Context,
                                             BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError, BOOLEAN InvokeOnCancel) {
  auto* record = static_cast<CompletionRecord*>(AllocateIoPool(
      sizeof(CompletionRecord), kCompletionContextTag, __builtin_return_address(0), "IoSetCompletionRoutineEx"));
  if (record == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  record->Routine = CompletionRoutine;
  record->Context = Context;
  record->Device = DeviceObject;
  record->Control = static_cast<UCHAR>((InvokeOnSuccess ? SL_INVOKE_ON_SUCCESS : 0) |
                                       (InvokeOnError ? SL_INVOKE_ON_ERROR : 0) |
                                       (InvokeOnCancel ? SL_INVOKE_ON_CANCEL : 0));
  HoldTransientReference(DeviceObject);
  ObReferenceObject(DeviceObject);
  IoSetCompletionRoutine(Irp, CompletionRecordRoutine, record, TRUE, TRUE, TRUE);
  return STATUS_SUCCESS;
}
