// Small drivers that the I/O manager's tests stack on each other: a RAM disk at the bottom
// and a configurable filter above it. They are kernel code, built like the driver itself.
#pragma once
#include <wdm.h>

// ---------------------------------------------------------------------------------------
// RAM disk: named disk devices backed by non-paged pool. Reads and writes move bytes
// through the request's MDL (DO_DIRECT_IO), system buffer (DO_BUFFERED_IO) or user
// buffer; create, cleanup, close, shutdown and flush succeed; a device completes reads,
// writes and device control inline or from a system worker thread.

typedef enum _RAMDISK_COMPLETION { RamDiskCompleteInline, RamDiskCompleteFromWorker } RAMDISK_COMPLETION;

typedef struct _RAMDISK_EXTENSION {
  PUCHAR Data;
  ULONG Size;
  RAMDISK_COMPLETION Completion;
  ULONG FailCount;       // the next FailCount reads and writes fail with FailStatus
  NTSTATUS FailStatus;
  volatile LONG Creates;
  volatile LONG Cleanups;
  volatile LONG Closes;
  volatile LONG Reads;
  volatile LONG Writes;
  volatile LONG Shutdowns;
  volatile LONG DeviceControls;
  IO_PRIORITY_HINT LastPriorityHint;
  ULONG LastFlags;  // IRP flags of the last read or write
} RAMDISK_EXTENSION, *PRAMDISK_EXTENSION;

// Returns the disk size as a ULONGLONG.
#define IOCTL_RAMDISK_GET_SIZE CTL_CODE(FILE_DEVICE_DISK, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS)
// Input: a ULONG byte offset; output: the disk's bytes from there, through the request's MDL.
#define IOCTL_RAMDISK_READ_DIRECT CTL_CODE(FILE_DEVICE_DISK, 0x801, METHOD_OUT_DIRECT, FILE_READ_ACCESS)
// Input: one byte; fills the whole disk with it. No output.
#define IOCTL_RAMDISK_FILL CTL_CODE(FILE_DEVICE_DISK, 0x802, METHOD_BUFFERED, FILE_WRITE_ACCESS)

#define RAMDISK_TAG KV_POOL_TAG('R', 'a', 'm', 'D')

EXTERN_C DRIVER_INITIALIZE RamDiskDriverEntry;
// Creates a disk device named Name ("\Device\RamDisk0") of Size bytes; DeviceFlags is
// DO_DIRECT_IO, DO_BUFFERED_IO or 0.
EXTERN_C NTSTATUS RamDiskCreate(_In_ PDRIVER_OBJECT DriverObject, _In_ PUNICODE_STRING Name, _In_ ULONG Size,
                                _In_ ULONG DeviceFlags, _In_ RAMDISK_COMPLETION Completion,
                                _Out_ PDEVICE_OBJECT* DeviceObject);
EXTERN_C VOID RamDiskDelete(_In_ PDEVICE_OBJECT DeviceObject);

// ---------------------------------------------------------------------------------------
// Test filter: an unnamed filter device attached above a stack, in one of these modes.

typedef enum _TEST_FILTER_MODE {
  // Every request goes down unchanged (skip the stack location, call the lower device).
  FilterPassThrough,
  // Reads and writes are forwarded and waited for (completion routine returning
  // STATUS_MORE_PROCESSING_REQUIRED), device control with IoForwardIrpSynchronously; the
  // filter completes the request itself afterwards.
  FilterForwardSynchronously,
  // While holding, writes are marked pending and queued; releasing replays them through the
  // driver's own dispatch table, which then passes them down.
  FilterHoldWrites,
  // Reads go down with a completion routine that keeps the completed read
  // (STATUS_MORE_PROCESSING_REQUIRED); the test completes it later.
  FilterHoldReadCompletions
} TEST_FILTER_MODE;

typedef struct _TEST_FILTER_EXTENSION {
  PDEVICE_OBJECT Self;
  PDEVICE_OBJECT Lower;
  TEST_FILTER_MODE Mode;
  KSPIN_LOCK Lock;
  BOOLEAN Holding;
  LIST_ENTRY HeldWrites;  // linked through Tail.Overlay.ListEntry
  ULONG Replays;
  KEVENT ReadHeld;        // signalled when a read is kept by the completion routine
  PIRP HeldRead;
  NTSTATUS LastLowerStatus;
  BOOLEAN LastLowerPended;
} TEST_FILTER_EXTENSION, *PTEST_FILTER_EXTENSION;

EXTERN_C DRIVER_INITIALIZE TestFilterDriverEntry;
EXTERN_C NTSTATUS TestFilterAttach(_In_ PDRIVER_OBJECT DriverObject, _In_ PDEVICE_OBJECT Target,
                                   _In_ TEST_FILTER_MODE Mode, _Out_ PDEVICE_OBJECT* Filter);
EXTERN_C VOID TestFilterDetach(_In_ PDEVICE_OBJECT Filter);
EXTERN_C VOID TestFilterHoldWrites(_In_ PDEVICE_OBJECT Filter);
EXTERN_C VOID TestFilterReleaseWrites(_In_ PDEVICE_OBJECT Filter);
// Completes the read its completion routine kept, with IO_DISK_INCREMENT.
EXTERN_C VOID TestFilterCompleteHeldRead(_In_ PDEVICE_OBJECT Filter);
