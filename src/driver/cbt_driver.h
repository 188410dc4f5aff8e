// Driver-wide state: what DriverEntry builds once and every volume filter shares.
#pragma once
#include <ntddk.h>

#include "driver/cbt_settings.h"
#include "log/cbt_event_log.h"

struct _CBT_DEVICE_EXTENSION;

// The driver's own version, printed in the load banner and recorded at load.
#define CBT_VERSION_MAJOR 10
#define CBT_VERSION_MINOR 0
#define CBT_VERSION_BUILD 1000

// Pool tags. "Cbt0" marks the driver's own allocations; the work-item lookaside list uses
// "Cbt" and a zero byte; the log image and its records carry the log file's signature;
// NTFS metadata copies are "Vfs".
#define CBT_POOL_TAG 0x30746243u
#define CBT_WORK_ITEM_POOL_TAG 0x00746243u
#define CBT_LOG_POOL_TAG 0x0157544Au
#define CBT_NTFS_POOL_TAG 0x00736656u

// The driver-object extension (IoAllocateDriverObjectExtension, keyed by the address of
// CbtAddDevice). Each volume's extension points at it.
typedef struct _CBT_DRIVER_EXTENSION {
  PDRIVER_OBJECT DriverObject;
  // One CBT_WORK_CONTEXT per block: deferred reads and writes take their work item from
  // here, so deferring never allocates from pool on the I/O path.
  NPAGED_LOOKASIDE_LIST WorkItemLookaside;
} CBT_DRIVER_EXTENSION, *PCBT_DRIVER_EXTENSION;

// What a deferred read or write carries to its work item.
typedef enum _CBT_WORK_TYPE {
  CbtWorkSnapshotRead = 1,       // a shadow-copy read of the tracking file's clusters
  CbtWorkWriteStageTwo = 2,      // a write that could not be marked in its caller's thread
  CbtWorkVolumeOnline = 5        // a read completed on a volume whose file system was not yet readable
} CBT_WORK_TYPE;

typedef struct _CBT_WORK_CONTEXT {
  ULONG Type;  // CBT_WORK_TYPE
  struct _CBT_DEVICE_EXTENSION* DeviceExtension;
  PIRP Irp;
  // The I/O work item, CbtWorkItemSize bytes, last. Only the fields above are zeroed
  // before use; the work item is set up by IoInitializeWorkItem.
  DECLSPEC_ALIGN(16) UCHAR WorkItem[ANYSIZE_ARRAY];
} CBT_WORK_CONTEXT, *PCBT_WORK_CONTEXT;

#define CBT_WORK_CONTEXT_HEADER_SIZE FIELD_OFFSET(CBT_WORK_CONTEXT, WorkItem)

FORCEINLINE PIO_WORKITEM CbtWorkContextItem(PCBT_WORK_CONTEXT Context) {
  return reinterpret_cast<PIO_WORKITEM>(Context->WorkItem);
}

// Carries a request, with the removal protection it holds, to Routine on a critical work
// item whose CBT_WORK_CONTEXT of the given type comes from WorkItemLookaside: the request is
// marked pending and STATUS_PENDING returned. Without a context the protection is given
// back and the request completed with STATUS_INSUFFICIENT_RESOURCES, which is returned.
// Any IRQL up to DISPATCH_LEVEL.
NTSTATUS CbtDeferToCriticalWorkItem(_In_ PDEVICE_OBJECT DeviceObject, _In_ struct _CBT_DEVICE_EXTENSION* Extension,
                                    _Inout_ PIRP Irp, _In_ CBT_WORK_TYPE Type, _In_ PIO_WORKITEM_ROUTINE Routine);

// ---------------------------------------------------------------------------------------
// Driver-wide globals. DriverEntry zeroes them itself: the image may be loaded again into
// memory that an earlier instance used.
extern PDRIVER_OBJECT CbtDriverObject;
extern UNICODE_STRING CbtRegistryPath;    // private copy of the service key path, NUL-terminated
extern KEVENT CbtLogStartEvent;           // volumes are safe for write access: the log writer may start
extern volatile BOOLEAN CbtSystemShutdown;  // the C: volume received IRP_MJ_SHUTDOWN
extern PVOID CbtVolumeInterfaceNotificationEntry;
extern BOOLEAN CbtRaxcoBootDefragScheduled;  // a boot-time defragmentation runs: filter nothing
extern ULONG CbtWindowsMajorVersion;
extern ULONG CbtWindowsMinorVersion;
extern ULONG CbtWindowsBuildNumber;
extern ULONG CbtWorkItemSize;  // IoSizeofWorkItem()

// ---------------------------------------------------------------------------------------
// Entry and unload.
EXTERN_C DRIVER_INITIALIZE DriverEntry;
// Leaves nothing behind: the volume-interface registration is withdrawn and every
// driver-wide buffer freed. The filter devices are gone by then (each left with its
// volume's removal).
DRIVER_UNLOAD CbtUnload;
