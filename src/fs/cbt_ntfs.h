// The NTFS metadata reader: reads a volume's boot sector, file records, attributes and
// streams itself, below the file system, with raw reads to the volume's lower device.
//
// The public routines (NtfsInitialize, NtfsUninitialize, NtfsQueryVolumeName,
// NtfsQueryLogFileRestartCount) take the context's Lock; the others run under it. All run
// at PASSIVE_LEVEL, except NtfsIsLogFileRestartCountIrp (up to DISPATCH_LEVEL, no lock, no
// disk access).
//
// Failures the reader reports: STATUS_UNRECOGNIZED_VOLUME (boot sector),
// STATUS_FILE_CORRUPT_ERROR (structure), STATUS_NOT_FOUND (attribute or cluster missing),
// STATUS_INSUFFICIENT_RESOURCES (pool or requests), NTFS_STATUS_COMPRESSED_ATTRIBUTE, and
// the lower device's status for a failed read.
#pragma once
#include <ntifs.h>

#include "fs/cbt_fs.h"
#include "fs/ntfs_layout.h"
#include "log/cbt_event_log.h"

// A non-resident attribute the reader cannot follow because its clusters are compressed.
#define NTFS_STATUS_COMPRESSED_ATTRIBUTE ((NTSTATUS)0xC000047BL)
// Recorded (not returned) for an encrypted attribute.
#define NTFS_STATUS_ENCRYPTED_ATTRIBUTE ((NTSTATUS)0xC000028AL)
// $LogFile's map was already built for this context: the restart count is read once.
#define NTFS_STATUS_LOG_FILE_ALREADY_READ ((NTSTATUS)0xC0000718L)

// Pool tag of the metadata copies ("Vfs").
#define NTFS_POOL_TAG 0x00736656u

// The state of one attribute search; on the caller's stack. Zeroed by
// NtfsInitAttributeContext, released by NtfsFreeAttributeContext.
typedef struct _NTFS_ATTRIBUTE_CONTEXT {
  PUCHAR NextAttribute;  // next attribute record to examine in Record
  PUCHAR RecordEnd;      // end of Record's attribute area
  PUCHAR Record;         // the current file record
  UCHAR OwnsRecord;      // Record was allocated by the search
  ULONGLONG LoadedReference;  // file reference of the record loaded for a list entry
  PUCHAR NextListEntry;  // next ATTRIBUTE_LIST_ENTRY to examine
  PUCHAR AttributeList;  // the $ATTRIBUTE_LIST attribute record; NULL while none was found
  PUCHAR ListStart;      // the list's value
  PUCHAR ListEnd;
  PVOID ListBuffer;  // copy of a non-resident list's value
} NTFS_ATTRIBUTE_CONTEXT, *PNTFS_ATTRIBUTE_CONTEXT;

// Bytes of a stream read by NtfsMapStream: Buffer is the allocation (paged pool, "Vfs") to
// free with NtfsFreeMappedStream, Data the first requested byte inside it.
typedef struct _NTFS_MAPPED_STREAM {
  PVOID Buffer;
  PUCHAR Data;
} NTFS_MAPPED_STREAM, *PNTFS_MAPPED_STREAM;

// NtfsInitialize and NtfsUninitialize (ntfs_volume.cpp) and NtfsIsLogFileRestartCountIrp
// (ntfs_log_file.cpp) are declared in cbt_fs.h, for the other rooms.

// ----- File records (ntfs_file_record.cpp).
BOOLEAN NtfsCheckFileRecord(_In_ PNTFS_VOLUME_CONTEXT Context, _In_ PVOID Record);
// Undoes the update sequence protection of a record or page of Length bytes in place.
NTSTATUS NtfsApplyUpdateSequence(_Inout_ PVOID Record, _In_ ULONG Length);
NTSTATUS NtfsReadFileRecord(_In_ PNTFS_VOLUME_CONTEXT Context, _In_ ULONGLONG FileReference, _Out_ PVOID Record);

// ----- Attributes (ntfs_attribute.cpp).
VOID NtfsInitAttributeContext(_Out_ PNTFS_ATTRIBUTE_CONTEXT AttributeContext);
VOID NtfsFreeAttributeContext(_Inout_ PNTFS_ATTRIBUTE_CONTEXT AttributeContext);
// The next attribute of Type (0: any) of the file whose base record is Record, resident or
// not, following its attribute list.
NTSTATUS NtfsFindResidentAttribute(_In_ PNTFS_VOLUME_CONTEXT Context, _In_ PVOID Record, _In_ ULONG Type,
                                   _Inout_ PNTFS_ATTRIBUTE_CONTEXT AttributeContext,
                                   _Out_ PATTRIBUTE_RECORD_HEADER* Attribute);
NTSTATUS NtfsFindInFileRecord(_In_ PNTFS_VOLUME_CONTEXT Context, _In_ ULONG Type, _In_opt_ PCUNICODE_STRING Name,
                              _Inout_ PNTFS_ATTRIBUTE_CONTEXT AttributeContext,
                              _Out_ PATTRIBUTE_RECORD_HEADER* Attribute);
NTSTATUS NtfsFindNonResidentAttribute(_In_ PNTFS_VOLUME_CONTEXT Context, _In_ ULONG Type,
                                      _Inout_ PNTFS_ATTRIBUTE_CONTEXT AttributeContext,
                                      _Out_ PATTRIBUTE_RECORD_HEADER* Attribute);
NTSTATUS NtfsQueryResidentAttributeValue(_In_ PNTFS_VOLUME_CONTEXT Context, _In_ PATTRIBUTE_RECORD_HEADER Attribute,
                                         _Out_ PVOID* Buffer, _Out_ PULONG Length);
NTSTATUS NtfsQueryNonResidentAttributeValue(_In_ PNTFS_VOLUME_CONTEXT Context,
                                            _In_ PATTRIBUTE_RECORD_HEADER Attribute, _Out_ PVOID* Buffer,
                                            _Out_ PULONG Length);

// ----- Cluster maps (ntfs_mapping_pairs.cpp).
NTSTATUS NtfsSetMcbEntry(_Inout_ PLARGE_MCB Mcb, _In_ LONGLONG Vcn, _In_ LONGLONG Lcn, _In_ ULONG ClusterCount);
NTSTATUS NtfsAddMappingPairsToMcb(_In_ PNTFS_VOLUME_CONTEXT Context, _Inout_ PLARGE_MCB Mcb,
                                  _In_reads_bytes_(Length) PUCHAR MappingPairs, _In_ ULONG Length,
                                  _In_ LONGLONG LowestVcn);
NTSTATUS NtfsBuildMcbForMft(_Inout_ PNTFS_VOLUME_CONTEXT Context);

// ----- Streams (ntfs_stream.cpp).
NTSTATUS NtfsMapStream(_In_ PNTFS_VOLUME_CONTEXT Context, _In_ PLARGE_MCB Mcb, _In_ LONGLONG ByteOffset,
                       _In_ ULONG Length, _Out_ PNTFS_MAPPED_STREAM Stream);
VOID NtfsFreeMappedStream(_Inout_ PNTFS_MAPPED_STREAM Stream);

// ----- The label (ntfs_volume_name.cpp). Name->Buffer is the caller's to free (paged pool,
// "Vfs"); an empty label gives a zero string.
NTSTATUS NtfsQueryVolumeName(_In_ PNTFS_VOLUME_CONTEXT Context, _Out_ PUNICODE_STRING Name);

// ----- $LogFile (ntfs_log_file.cpp).
// The restart log open count of the restart area with the greatest current LSN; 0 when the
// log has no restart page. Once per context.
NTSTATUS NtfsQueryLogFileRestartCount(_In_ PNTFS_VOLUME_CONTEXT Context, _Out_ PULONG Count);

// Records through CbtLogEvent with the volume values the context carries.
#define NTFS_LOG(Context, Text, Status)                                                                   \
  CbtLogEvent((Context)->LogFlags, (Context)->LogVolumeNumber, (Context)->LogDriveLetter, (Text), __LINE__, \
              static_cast<ULONG>(Status))
