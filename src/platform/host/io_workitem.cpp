// I/O work items: a system worker queue item tied to a device or driver object, which stays
// referenced from the moment the item is queued until its routine has returned.
//
// The item's storage is the caller's (IoInitializeWorkItem, IoSizeofWorkItem bytes, often
// inside a lookaside entry) or the I/O manager's (IoAllocateWorkItem, non-paged pool).
#include <atomic>
#include <cstring>
#include <new>

#include "io_internal.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"
#include "kvhost/workqueue.h"

struct _IO_WORKITEM {
  WORK_QUEUE_ITEM WorkItem;
  PVOID IoObject;
  PIO_WORKITEM_ROUTINE Routine;
  PIO_WORKITEM_ROUTINE_EX RoutineEx;
  PVOID Context;
  ULONG Magic;
  BOOLEAN Allocated;  // from IoAllocateWorkItem
  std::atomic<bool> Queued;
};

namespace kvhost::io {
namespace {

constexpr ULONG kWorkItemMagic = 0x4B52574F;  // "OWRK"

std::string DescribeObject(PVOID ioObject) {
  if (ioObject != nullptr && kvhost::ObGetObjectType(ioObject) == *IoDriverObjectType)
    return DescribeDriver(static_cast<PDRIVER_OBJECT>(ioObject));
  return DescribeDevice(static_cast<PDEVICE_OBJECT>(ioObject));
}

bool CheckItem(PIO_WORKITEM item, const char* routine) {
  if (item != nullptr && item->Magic == kWorkItemMagic) return true;
  kvhost::ReportViolationF("WorkItemNotInitialized", "%s of %p, which is not an initialized I/O work item", routine,
                           static_cast<void*>(item));
  return false;
}

// Runs on a system worker thread. Nothing of the item is touched after the routine starts:
// the routine may free it or queue it again.
void RunWorkItem(PVOID parameter) {
  auto* item = static_cast<PIO_WORKITEM>(parameter);
  PVOID ioObject = item->IoObject;
  PIO_WORKITEM_ROUTINE routine = item->Routine;
  PIO_WORKITEM_ROUTINE_EX routineEx = item->RoutineEx;
  PVOID context = item->Context;
  item->Queued.store(false, std::memory_order_release);
  if (routineEx != nullptr)
    routineEx(ioObject, context, item);
  else
    routine(static_cast<PDEVICE_OBJECT>(ioObject), context);
  ObDereferenceObject(ioObject);
  DropTransientReference(ioObject);
}

void Queue(PIO_WORKITEM item, PIO_WORKITEM_ROUTINE routine, PIO_WORKITEM_ROUTINE_EX routineEx,
           WORK_QUEUE_TYPE queueType, PVOID context, const char* api, const void* caller) {
  if (!CheckItem(item, api)) return;
  if (item->Queued.exchange(true, std::memory_order_acq_rel)) {
    kvhost::ReportViolation("WorkItemQueuedTwice", std::string(api) + " of a work item of " +
                                                       DescribeObject(item->IoObject) +
                                                       " that is still queued");
    return;
  }
  item->Routine = routine;
  item->RoutineEx = routineEx;
  item->Context = context;
  HoldTransientReference(item->IoObject);
  ObReferenceObject(item->IoObject);
  ExInitializeWorkItem(&item->WorkItem, RunWorkItem, item);
  kvhost::QueueWorkItem(&item->WorkItem, queueType,
                        routineEx != nullptr ? reinterpret_cast<const void*>(routineEx)
                                             : reinterpret_cast<const void*>(routine),
                        caller);
}

void Initialize(PIO_WORKITEM item, PVOID ioObject, bool allocated) {
  std::memset(static_cast<void*>(item), 0, sizeof *item);
  new (&item->Queued) std::atomic<bool>(false);
  item->IoObject = ioObject;
  item->Magic = kWorkItemMagic;
  item->Allocated = allocated;
}

bool CheckNotQueued(PIO_WORKITEM item, const char* routine) {
  if (!item->Queued.load(std::memory_order_acquire)) return true;
  kvhost::ReportViolation("WorkItemReleasedWhileQueued", std::string(routine) + " of a work item of " +
                                                             DescribeObject(item->IoObject) + " that is still queued");
  return false;
}

}  // namespace
}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

ULONG IoSizeofWorkItem(void) { return sizeof(IO_WORKITEM); }

void IoInitializeWorkItem(PVOID IoObject, PIO_WORKITEM IoWorkItem) { Initialize(IoWorkItem, IoObject, false); }

void IoUninitializeWorkItem(PIO_WORKITEM IoWorkItem) {
  if (!CheckItem(IoWorkItem, "IoUninitializeWorkItem") || !CheckNotQueued(IoWorkItem, "IoUninitializeWorkItem"))
    return;
  IoWorkItem->Magic = 0;
}

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject) {
  auto* item = static_cast<PIO_WORKITEM>(
      AllocateIoPool(sizeof(IO_WORKITEM), kWorkItemTag, __builtin_return_address(0), "IoAllocateWorkItem"));
  if (item != nullptr) Initialize(item, DeviceObject, true);
  return item;
}

void IoFreeWorkItem(PIO_WORKITEM IoWorkItem) {
  if (!CheckItem(IoWorkItem, "IoFreeWorkItem") || !CheckNotQueued(IoWorkItem, "IoFreeWorkItem")) return;
  if (!IoWorkItem->Allocated) {
    kvhost::ReportViolation("WorkItemNotAllocated",
                            "IoFreeWorkItem of a work item of " + DescribeObject(IoWorkItem->IoObject) +
                                " that was initialized in the caller's storage, not allocated");
    return;
  }
  IoWorkItem->Magic = 0;
  FreeIoPool(IoWorkItem, kWorkItemTag, "IoFreeWorkItem");
}

void IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                     PVOID Context) {
  Queue(IoWorkItem, WorkerRoutine, nullptr, QueueType, Context, "IoQueueWorkItem", __builtin_return_address(0));
}

void IoQueueWorkItemEx(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE_EX WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                       PVOID Context) {
  Queue(IoWorkItem, nullptr, WorkerRoutine, QueueType, Context, "IoQueueWorkItemEx", __builtin_return_address(0));
}

}  // extern "C"
