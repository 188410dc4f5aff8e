// File-system interfaces of ntifs.h: file-system control codes and their buffers, the
// information records only file systems and their clients exchange, the Zw routines that
// ntifs.h alone declares, file-system registration, and the FsRtl large MCB.
#pragma once
#include "file.h"
#include "io.h"
#include "zw.h"

// ---------------------------------------------------------------------------------------
// Information records of ntifs.h.
typedef struct _FILE_ALLOCATION_INFORMATION {
  LARGE_INTEGER AllocationSize;
} FILE_ALLOCATION_INFORMATION, *PFILE_ALLOCATION_INFORMATION;

typedef struct _FILE_FS_ATTRIBUTE_INFORMATION {
  ULONG FileSystemAttributes;  // FILE_CASE_PRESERVED_NAMES ...
  LONG MaximumComponentNameLength;
  ULONG FileSystemNameLength;  // bytes
  WCHAR FileSystemName[1];
} FILE_FS_ATTRIBUTE_INFORMATION, *PFILE_FS_ATTRIBUTE_INFORMATION;
C_ASSERT(FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName) == 12);

// FileSystemAttributes bits.
#define FILE_CASE_SENSITIVE_SEARCH 0x00000001
#define FILE_CASE_PRESERVED_NAMES 0x00000002
#define FILE_UNICODE_ON_DISK 0x00000004
#define FILE_PERSISTENT_ACLS 0x00000008
#define FILE_FILE_COMPRESSION 0x00000010
#define FILE_VOLUME_QUOTAS 0x00000020
#define FILE_SUPPORTS_SPARSE_FILES 0x00000040
#define FILE_SUPPORTS_REPARSE_POINTS 0x00000080
#define FILE_VOLUME_IS_COMPRESSED 0x00008000
#define FILE_SUPPORTS_OBJECT_IDS 0x00010000
#define FILE_READ_ONLY_VOLUME 0x00080000

// ---------------------------------------------------------------------------------------
// File-system control codes (ZwFsControlFile).
#define FSCTL_LOCK_VOLUME CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 6, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_UNLOCK_VOLUME CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 7, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_DISMOUNT_VOLUME CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 8, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_IS_VOLUME_MOUNTED CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 10, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_GET_COMPRESSION CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 15, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_SET_COMPRESSION CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 16, METHOD_BUFFERED, FILE_READ_DATA | FILE_WRITE_DATA)
#define FSCTL_GET_NTFS_VOLUME_DATA CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 25, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define FSCTL_GET_VOLUME_BITMAP CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 27, METHOD_NEITHER, FILE_ANY_ACCESS)
#define FSCTL_GET_RETRIEVAL_POINTERS CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 28, METHOD_NEITHER, FILE_ANY_ACCESS)
#define FSCTL_MOVE_FILE CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 29, METHOD_BUFFERED, FILE_SPECIAL_ACCESS)
#define FSCTL_ALLOW_EXTENDED_DASD_IO CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 32, METHOD_NEITHER, FILE_ANY_ACCESS)
#define FSCTL_SET_SPARSE CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 49, METHOD_BUFFERED, FILE_SPECIAL_ACCESS)
#define FSCTL_MARK_HANDLE CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 63, METHOD_BUFFERED, FILE_ANY_ACCESS)
C_ASSERT(FSCTL_LOCK_VOLUME == 0x00090018 && FSCTL_UNLOCK_VOLUME == 0x0009001C && FSCTL_DISMOUNT_VOLUME == 0x00090020);
C_ASSERT(FSCTL_GET_RETRIEVAL_POINTERS == 0x00090073);
C_ASSERT(FSCTL_SET_COMPRESSION == 0x0009C040);
C_ASSERT(FSCTL_MARK_HANDLE == 0x000900FC);

// FSCTL_GET_RETRIEVAL_POINTERS: input and output. The answer describes the file's runs from
// the run holding StartingVcn: each extent ends at NextVcn (exclusive) and starts where the
// previous one ended (the first at the answer's StartingVcn). An Lcn of -1 is a hole.
typedef struct _STARTING_VCN_INPUT_BUFFER {
  LARGE_INTEGER StartingVcn;
} STARTING_VCN_INPUT_BUFFER, *PSTARTING_VCN_INPUT_BUFFER;

typedef struct _RETRIEVAL_POINTERS_BUFFER {
  ULONG ExtentCount;
  LARGE_INTEGER StartingVcn;
  struct {
    LARGE_INTEGER NextVcn;
    LARGE_INTEGER Lcn;
  } Extents[1];
} RETRIEVAL_POINTERS_BUFFER, *PRETRIEVAL_POINTERS_BUFFER;
C_ASSERT(FIELD_OFFSET(RETRIEVAL_POINTERS_BUFFER, StartingVcn) == 8);
C_ASSERT(FIELD_OFFSET(RETRIEVAL_POINTERS_BUFFER, Extents) == 16);
C_ASSERT(FIELD_OFFSET(RETRIEVAL_POINTERS_BUFFER, Extents[0].Lcn) == 24);
C_ASSERT(sizeof(RETRIEVAL_POINTERS_BUFFER) == 32);

// FSCTL_MOVE_FILE (sent on a volume handle): move ClusterCount clusters of the file from
// StartingVcn to the volume's clusters from StartingLcn.
typedef struct _MOVE_FILE_DATA {
  HANDLE FileHandle;
  LARGE_INTEGER StartingVcn;
  LARGE_INTEGER StartingLcn;
  ULONG ClusterCount;
} MOVE_FILE_DATA, *PMOVE_FILE_DATA;
C_ASSERT(sizeof(MOVE_FILE_DATA) == 32);

// FSCTL_MARK_HANDLE.
typedef struct _MARK_HANDLE_INFO {
  union {
    ULONG UsnSourceInfo;
    ULONG CopyNumber;
  } DUMMYUNIONNAME;
  HANDLE VolumeHandle;
  ULONG HandleInfo;  // MARK_HANDLE_*
} MARK_HANDLE_INFO, *PMARK_HANDLE_INFO;
C_ASSERT(sizeof(MARK_HANDLE_INFO) == 24);

// While the handle stays open, nothing (a defragmenter included) moves the file's clusters.
#define MARK_HANDLE_PROTECT_CLUSTERS 0x00000001
#define MARK_HANDLE_TXF_SYSTEM_LOG 0x00000004
#define MARK_HANDLE_NOT_TXF_SYSTEM_LOG 0x00000008
#define MARK_HANDLE_REALTIME 0x00000020
#define MARK_HANDLE_NOT_REALTIME 0x00000040

// FSCTL_SET_COMPRESSION and FSCTL_GET_COMPRESSION: a USHORT format.
#define COMPRESSION_FORMAT_NONE 0x0000
#define COMPRESSION_FORMAT_DEFAULT 0x0001
#define COMPRESSION_FORMAT_LZNT1 0x0002
#define COMPRESSION_FORMAT_XPRESS 0x0003
#define COMPRESSION_FORMAT_XPRESS_HUFF 0x0004

// ---------------------------------------------------------------------------------------
// Zw routines declared by ntifs.h. All run at PASSIVE_LEVEL on kernel handles.

// Control codes of METHOD_NEITHER pass the caller's buffers to the file system as they are;
// the others copy the input into a system buffer and the output back. A result that does
// not fit the output buffer is STATUS_BUFFER_OVERFLOW with what fits (Information bytes).
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwFsControlFile(_In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                                                 _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                                                 _Out_ PIO_STATUS_BLOCK IoStatusBlock, _In_ ULONG FsControlCode,
                                                 _In_reads_bytes_opt_(InputBufferLength) PVOID InputBuffer,
                                                 _In_ ULONG InputBufferLength,
                                                 _Out_writes_bytes_opt_(OutputBufferLength) PVOID OutputBuffer,
                                                 _In_ ULONG OutputBufferLength);

EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwQueryVolumeInformationFile(_In_ HANDLE FileHandle,
                                                              _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                                              _Out_writes_bytes_(Length) PVOID FsInformation,
                                                              _In_ ULONG Length,
                                                              _In_ FS_INFORMATION_CLASS FsInformationClass);

// Applies the parts of SecurityDescriptor (absolute or self-relative) that
// SecurityInformation names to the object of a file handle.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwSetSecurityObject(_In_ HANDLE Handle, _In_ SECURITY_INFORMATION SecurityInformation,
                                                     _In_ PSECURITY_DESCRIPTOR SecurityDescriptor);
// Gives the parts SecurityInformation names as a self-relative descriptor; a buffer too
// small is STATUS_BUFFER_TOO_SMALL with the size needed in LengthNeeded.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwQuerySecurityObject(_In_ HANDLE Handle,
                                                       _In_ SECURITY_INFORMATION SecurityInformation,
                                                       _Out_writes_bytes_opt_(Length)
                                                           PSECURITY_DESCRIPTOR SecurityDescriptor,
                                                       _In_ ULONG Length, _Out_ PULONG LengthNeeded);

// ---------------------------------------------------------------------------------------
// File-system registration: a file system's control device offered every volume that is to
// be mounted (IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MN_MOUNT_VOLUME), the latest registration
// first.
EXTERN_C NTKERNELAPI VOID IoRegisterFileSystem(_In_ __drv_aliasesMem PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI VOID IoUnregisterFileSystem(_In_ PDEVICE_OBJECT DeviceObject);

// ---------------------------------------------------------------------------------------
// FsRtl large MCB: a map from virtual block numbers (VBN, a file's clusters or sectors) to
// logical block numbers (LBN, the volume's), kept as sorted runs. The map covers VBNs from
// 0 to the end of its last mapped run; a VBN in that range that is not mapped is a hole
// (LBN -1). Adjacent runs whose LBNs continue each other are one run. The routines
// synchronise themselves; paged-pool maps are used at IRQL below DISPATCH_LEVEL.
//
// In Windows the add (and a remove that splits a run) raises STATUS_INSUFFICIENT_RESOURCES
// when pool runs out. Driver code here has no exceptions, so the add reports that as FALSE,
// like an overlap, and leaves the map unchanged; a remove that cannot get the memory to
// split a run leaves the map unchanged, which the add that usually follows it reports.
typedef struct _BASE_MCB {
  ULONG MaximumPairCount;
  ULONG PairCount;
  USHORT PoolType;
  USHORT Flags;
  PVOID Mapping;
} BASE_MCB, *PBASE_MCB;

typedef struct _LARGE_MCB {
  PVOID GuardedMutex;  // PKGUARDED_MUTEX
  BASE_MCB BaseMcb;
} LARGE_MCB, *PLARGE_MCB;
C_ASSERT(sizeof(LARGE_MCB) == 32);

EXTERN_C NTKERNELAPI VOID FsRtlInitializeLargeMcb(_Out_ PLARGE_MCB Mcb, _In_ POOL_TYPE PoolType);
EXTERN_C NTKERNELAPI VOID FsRtlUninitializeLargeMcb(_Inout_ PLARGE_MCB Mcb);
// Empties the map (keeping its memory).
EXTERN_C NTKERNELAPI VOID FsRtlResetLargeMcb(_Inout_ PLARGE_MCB Mcb, _In_ BOOLEAN SelfSynchronized);
// Removes every mapping from Vbn on; the map then ends at Vbn at most.
EXTERN_C NTKERNELAPI VOID FsRtlTruncateLargeMcb(_Inout_ PLARGE_MCB Mcb, _In_ LONGLONG Vbn);
// Maps [Vbn, Vbn + SectorCount) to [Lbn, Lbn + SectorCount). FALSE when part of the range
// is already mapped elsewhere (the map is then unchanged); mapping a range again to the
// same LBNs succeeds.
EXTERN_C NTKERNELAPI BOOLEAN FsRtlAddLargeMcbEntry(_Inout_ PLARGE_MCB Mcb, _In_ LONGLONG Vbn, _In_ LONGLONG Lbn,
                                                   _In_ LONGLONG SectorCount);
// Makes [Vbn, Vbn + SectorCount) a hole; a hole at the end shortens the map.
EXTERN_C NTKERNELAPI VOID FsRtlRemoveLargeMcbEntry(_Inout_ PLARGE_MCB Mcb, _In_ LONGLONG Vbn,
                                                   _In_ LONGLONG SectorCount);
// FALSE when Vbn lies beyond the map. Otherwise TRUE with: the LBN of Vbn (-1 in a hole),
// the blocks from Vbn to the end of its run, the run's first LBN (-1 for a hole) and
// length, and the run's index (holes count as runs). Every output is optional.
EXTERN_C NTKERNELAPI BOOLEAN FsRtlLookupLargeMcbEntry(_In_ PLARGE_MCB Mcb, _In_ LONGLONG Vbn, _Out_opt_ PLONGLONG Lbn,
                                                      _Out_opt_ PLONGLONG SectorCountFromLbn,
                                                      _Out_opt_ PLONGLONG StartingLbn,
                                                      _Out_opt_ PLONGLONG SectorCountFromStartingLbn,
                                                      _Out_opt_ PULONG Index);
// The last mapped VBN and its LBN; FALSE for an empty map.
EXTERN_C NTKERNELAPI BOOLEAN FsRtlLookupLastLargeMcbEntry(_In_ PLARGE_MCB Mcb, _Out_ PLONGLONG Vbn,
                                                          _Out_ PLONGLONG Lbn);
// Runs, holes included.
EXTERN_C NTKERNELAPI ULONG FsRtlNumberOfRunsInLargeMcb(_In_ PLARGE_MCB Mcb);
// The run at RunIndex (holes included, LBN -1); FALSE past the last run.
EXTERN_C NTKERNELAPI BOOLEAN FsRtlGetNextLargeMcbEntry(_In_ PLARGE_MCB Mcb, _In_ ULONG RunIndex, _Out_ PLONGLONG Vbn,
                                                       _Out_ PLONGLONG Lbn, _Out_ PLONGLONG SectorCount);
