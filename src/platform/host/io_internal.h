// What the parts of the host I/O manager share among themselves (not a test control).
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "kvhost/io.h"
#include "pool_internal.h"

// The I/O manager's private part of a device object, following the device extension in the
// device object's allocation (DEVICE_OBJECT.DeviceObjectExtension).
struct _DEVOBJ_EXTENSION {
  CSHORT Type;  // IO_TYPE_DEVICE_OBJECT_EXTENSION
  USHORT Size;
  PDEVICE_OBJECT DeviceObject;
  PDEVICE_OBJECT AttachedTo;  // the device this one is attached above, or NULL
  BOOLEAN DeletePending;      // IoDeleteDevice was called
  BOOLEAN Physical;           // a physical device object declared by the machine
  // The volume parameter block of a device that can carry a file system (disk, CD-ROM,
  // tape, virtual disk): DEVICE_OBJECT.Vpb points here. It lives as long as the device.
  VPB Vpb;
};

namespace kvhost::io {

// Pool tags of the I/O manager's own allocations.
constexpr ULONG kIrpTag = KV_POOL_TAG('I', 'r', 'p', ' ');
constexpr ULONG kMdlTag = KV_POOL_TAG('M', 'd', 'l', ' ');
constexpr ULONG kSystemBufferTag = KV_POOL_TAG('I', 'o', 'S', 'b');
constexpr ULONG kWorkItemTag = KV_POOL_TAG('I', 'o', 'W', 'i');
constexpr ULONG kDriverExtensionTag = KV_POOL_TAG('D', 'r', 'v', 'i');
constexpr ULONG kCompletionContextTag = KV_POOL_TAG('I', 'o', 'C', 'x');
constexpr ULONG kNotificationTag = KV_POOL_TAG('P', 'n', 'p', 'N');

// Zeroed non-paged pool for the I/O manager's own records, allocated on behalf of the
// driver call at `site`: the pool's accounting, fault injection and messages name it.
inline PVOID AllocateIoPool(SIZE_T bytes, ULONG tag, const void* site, const char* routine) {
  return kvhost::detail::AllocatePool(NonPagedPoolNx, bytes, tag, kvhost::detail::PoolFill::Zero, site, routine);
}
inline void FreeIoPool(PVOID block, ULONG tag, const char* routine) {
  kvhost::detail::FreePool(block, tag, nullptr, routine);
}

// References the I/O manager holds for a moment on behalf of a driver (a queued work item,
// a completion record) and that Windows lets outlive IoDeleteDevice: the device is then
// deleted when they go. Taken before ObReferenceObject and dropped after
// ObDereferenceObject, so IoDeleteDevice never counts one as the driver's.
void HoldTransientReference(PVOID object);
void DropTransientReference(PVOID object);

// Guards the links between devices (AttachedDevice, AttachedTo) and each driver's device
// list, as Windows' I/O database lock does.
std::mutex& DeviceDatabaseLock();

// "device 0x... \Device\Name of driver \Driver\X" for messages; safe for a device that is
// already gone.
std::string DescribeDevice(PDEVICE_OBJECT device);
std::string DescribeDriver(PDRIVER_OBJECT driver);
const char* MajorFunctionName(UCHAR major);

// The dispatch routine every slot of a new driver object starts with.
NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp);

// ---------------------------------------------------------------------------------------
// IRP bookkeeping. Every IRP is allocated from pool behind an IrpHeader, in one block with
// its stack locations.

enum class IrpState : uint8_t {
  Idle,        // allocated or reused, not sent
  Dispatched,  // sent with IoCallDriver, owned by a driver of the stack
  Completing,  // inside the completion walk
  Held,        // a completion routine has it (it may return STATUS_MORE_PROCESSING_REQUIRED)
  Finished,    // completed to the top; its owner (who allocated it) still has to free it
};

enum class IrpOrigin : uint8_t {
  Allocated,  // IoAllocateIrp: the caller's
  Built,      // IoBuild...Request: the I/O manager completes and frees it
};

// One bit per stack location (locations are numbered 1 to StackCount, at most 127).
class LocationBits {
 public:
  void Set(CHAR location) { Word(location).fetch_or(Bit(location), std::memory_order_seq_cst); }
  bool Test(CHAR location) const { return (Word(location).load(std::memory_order_seq_cst) & Bit(location)) != 0; }
  // Clears the bit; true when it was set (exactly one of several racing callers sees true).
  // The bits are mostly clear: a plain load spares the locked instruction then.
  bool Take(CHAR location) {
    return Test(location) && (Word(location).fetch_and(~Bit(location), std::memory_order_seq_cst) & Bit(location)) != 0;
  }
  void Clear(CHAR location) { Take(location); }
  void ClearAll() {
    words_[0].store(0);
    words_[1].store(0);
  }

 private:
  std::atomic<uint64_t>& Word(CHAR location) { return words_[(location - 1) / 64]; }
  const std::atomic<uint64_t>& Word(CHAR location) const { return words_[(location - 1) / 64]; }
  static uint64_t Bit(CHAR location) { return 1ULL << ((location - 1) % 64); }
  std::atomic<uint64_t> words_[2];
};

struct alignas(16) IrpHeader {
  uint64_t Magic;
  uint64_t Serial;  // allocation number in this test
  // Host frames working on the IRP (IoCallDriver, the completion walk) hold a pin; the
  // memory is released only when the last pin goes after a free was asked for, so a
  // frame can still look at the IRP after another thread completed and freed it.
  std::atomic<uint32_t> Pins;
  std::atomic<IrpState> State;
  IrpOrigin Origin;
  bool From32bitProcess;
  IO_PRIORITY_HINT PriorityHint;
  std::atomic<uint32_t> Completions;  // IoCompleteRequest calls so far
  // Whether a dispatch routine that returned STATUS_PENDING had its location marked
  // pending is known either when it returns (the mark is there) or when the completion
  // walk reaches its location (the walk marks a location without a completion routine
  // itself, possibly after the routine returned). Per location: the walk saw the mark, the
  // walk went past, a STATUS_PENDING return still waits for the walk's verdict.
  LocationBits PendingSeen;
  LocationBits WalkPassed;
  LocationBits AwaitingMark;
  // The buffered copy-back limit: the output length of the request when it was first sent.
  ULONG CopyBackLimit;
  bool CopyBackLimitKnown;
  bool Completed;
  PDEVICE_OBJECT CompletedBy;
  NTSTATUS CompletedStatus;
  ULONG_PTR CompletedInformation;
  CCHAR CompletedBoost;
  void* AllocatedBy;
};

constexpr uint32_t kFreeRequested = 0x80000000u;

inline IrpHeader* HeaderOf(PIRP irp) { return reinterpret_cast<IrpHeader*>(irp) - 1; }

constexpr uint64_t kIrpMagic = 0x5052494854534F48ULL;  // "HOSTHIRP"

// A checked header: null (after reporting) when `irp` is not an IRP the I/O manager knows;
// an IRP already freed is reported as `freedCheck`.
IrpHeader* CheckedHeader(PIRP irp, const char* routine, const char* freedCheck = "IrpUseAfterFree");

PIRP AllocateIrp(CCHAR stackSize, IrpOrigin origin, void* caller);

// A read, write, flush or other request built for `device` (io_build.cpp): reads and writes
// carry the buffer as the device's I/O method wants it (system buffer, locked MDL or user
// buffer); null when an allocation fails.
PIRP BuildFsdRequest(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
                     PIO_STATUS_BLOCK iosb, IrpOrigin origin, void* caller);

// Takes the IRP out of the live table and releases its memory once no host frame pins it.
// Reports (and returns false) when it is not a live IRP.
bool FreeIrp(PIRP irp, const char* routine);

inline void PinIrp(IrpHeader* header) { header->Pins.fetch_add(1, std::memory_order_acq_rel); }
void UnpinIrp(IrpHeader* header);

// The location a request is described by: the current one, or the one its sender filled.
PIO_STACK_LOCATION DescribingLocation(PIRP irp);
std::string DescribeIrp(PIRP irp);

// Reports a dispatch routine that returned STATUS_PENDING without marking its location.
void ReportPendingNotMarked(PIRP irp, IrpHeader* header, UCHAR major, PDEVICE_OBJECT device);

// Calls the completion observer, if a test set one.
void NotifyCompletionObserver(PIRP irp, IrpHeader* header);

// ---------------------------------------------------------------------------------------
// MDLs.
void FreeMdlChain(PMDL mdl);  // unlocks locked pages and frees each MDL of a chain
void FillMdlCounters(kvhost::IoCounters* counters);

}  // namespace kvhost::io
