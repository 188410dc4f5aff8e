// The NTFS on-disk structures the reader looks at: the boot sector, file records, attribute
// records, attribute-list entries and $LogFile restart pages. All little-endian.
//
// The structures are packed: the reader overlays them on bytes read from a disk it does not
// trust, where a damaged record may put a structure at any byte offset.
#pragma once
#include <ntddk.h>

#pragma pack(push, 1)

// The boot sector (the BIOS parameter block and NTFS's extension of it).
typedef struct _NTFS_BOOT_SECTOR {
  UCHAR Jump[3];
  UCHAR OemId[8];  // "NTFS    "
  USHORT BytesPerSector;
  UCHAR SectorsPerCluster;  // above 128: 2^(256 - value)
  USHORT ReservedSectors;
  UCHAR NumberOfFats;
  USHORT RootEntries;
  USHORT Sectors16;
  UCHAR MediaDescriptor;
  USHORT SectorsPerFat;
  USHORT SectorsPerTrack;
  USHORT Heads;
  ULONG HiddenSectors;
  ULONG Sectors32;
  ULONG Reserved24;
  LONGLONG TotalSectors;
  LONGLONG MftLcn;
  LONGLONG MftMirrorLcn;
  CHAR ClustersPerFileRecord;  // negative: 2^(-value) bytes
  UCHAR Reserved41[3];
  CHAR ClustersPerIndexBlock;
  UCHAR Reserved45[3];
  ULONGLONG SerialNumber;
} NTFS_BOOT_SECTOR, *PNTFS_BOOT_SECTOR;
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, BytesPerSector) == 0x0B);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, SectorsPerCluster) == 0x0D);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, ReservedSectors) == 0x0E);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, NumberOfFats) == 0x10);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, RootEntries) == 0x11);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, Sectors16) == 0x13);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, SectorsPerFat) == 0x16);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, Sectors32) == 0x20);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, TotalSectors) == 0x28);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, MftLcn) == 0x30);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, MftMirrorLcn) == 0x38);
C_ASSERT(FIELD_OFFSET(NTFS_BOOT_SECTOR, ClustersPerFileRecord) == 0x40);

// The header every multi-sector protected structure starts with: file records, index blocks,
// restart and log record pages.
typedef struct _NTFS_MULTI_SECTOR_HEADER {
  ULONG Signature;
  USHORT UpdateSequenceArrayOffset;
  USHORT UpdateSequenceArrayCount;  // the update sequence number and one entry per stride
} NTFS_MULTI_SECTOR_HEADER, *PNTFS_MULTI_SECTOR_HEADER;

// The stride of the update sequence protection: the last two bytes of every 512 bytes hold
// the update sequence number on disk; the bytes that belong there are kept in the array.
#define NTFS_SEQUENCE_STRIDE 512

typedef struct _FILE_RECORD_SEGMENT_HEADER {
  NTFS_MULTI_SECTOR_HEADER MultiSectorHeader;  // "FILE"
  ULONGLONG LogFileSequenceNumber;
  USHORT SequenceNumber;
  USHORT ReferenceCount;
  USHORT FirstAttributeOffset;
  USHORT Flags;
  ULONG FirstFreeByte;
  ULONG BytesAvailable;  // the record's allocated size
  ULONGLONG BaseFileRecordSegment;
  USHORT NextAttributeInstance;
} FILE_RECORD_SEGMENT_HEADER, *PFILE_RECORD_SEGMENT_HEADER;
C_ASSERT(FIELD_OFFSET(FILE_RECORD_SEGMENT_HEADER, FirstAttributeOffset) == 0x14);
C_ASSERT(FIELD_OFFSET(FILE_RECORD_SEGMENT_HEADER, BytesAvailable) == 0x1C);

#define NTFS_FILE_SIGNATURE 0x454C4946u  // "FILE"

// An attribute record: a common header, then the resident or non-resident form.
typedef struct _ATTRIBUTE_RECORD_HEADER {
  ULONG TypeCode;
  ULONG RecordLength;
  UCHAR FormCode;  // NTFS_RESIDENT_FORM or NTFS_NONRESIDENT_FORM
  UCHAR NameLength;  // UTF-16 characters
  USHORT NameOffset;
  USHORT Flags;
  USHORT Instance;
  union {
    struct {
      ULONG ValueLength;
      USHORT ValueOffset;
      UCHAR ResidentFlags;
      UCHAR Reserved;
    } Resident;
    struct {
      LONGLONG LowestVcn;
      LONGLONG HighestVcn;
      USHORT MappingPairsOffset;
      UCHAR CompressionUnit;
      UCHAR Reserved[5];
      LONGLONG AllocatedLength;
      LONGLONG FileSize;
      LONGLONG ValidDataLength;
    } Nonresident;
  } Form;
} ATTRIBUTE_RECORD_HEADER, *PATTRIBUTE_RECORD_HEADER;
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, NameLength) == 0x09);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, NameOffset) == 0x0A);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Flags) == 0x0C);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Resident.ValueLength) == 0x10);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Resident.ValueOffset) == 0x14);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Nonresident.LowestVcn) == 0x10);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Nonresident.HighestVcn) == 0x18);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Nonresident.MappingPairsOffset) == 0x20);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Nonresident.CompressionUnit) == 0x22);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Nonresident.AllocatedLength) == 0x28);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Nonresident.FileSize) == 0x30);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_RECORD_HEADER, Form.Nonresident.ValidDataLength) == 0x38);
C_ASSERT(sizeof(ATTRIBUTE_RECORD_HEADER) == 0x40);

#define NTFS_RESIDENT_FORM 0
#define NTFS_NONRESIDENT_FORM 1
// Bytes of the header in each form: what must lie inside the attribute before its fields
// are read.
#define NTFS_RESIDENT_HEADER_BYTES 0x18u
#define NTFS_NONRESIDENT_HEADER_BYTES 0x40u

#define NTFS_ATTRIBUTE_COMPRESSION_MASK 0x00FF
#define NTFS_ATTRIBUTE_ENCRYPTED 0x4000

// Attribute type codes.
#define NTFS_ATTRIBUTE_ANY 0x00u
#define NTFS_STANDARD_INFORMATION 0x10u
#define NTFS_ATTRIBUTE_LIST 0x20u
#define NTFS_FILE_NAME 0x30u
#define NTFS_VOLUME_NAME 0x60u
#define NTFS_DATA 0x80u
#define NTFS_INDEX_ROOT 0x90u
#define NTFS_INDEX_ALLOCATION 0xA0u
#define NTFS_END_OF_ATTRIBUTES 0xFFFFFFFFu

// One entry of an $ATTRIBUTE_LIST value: where an attribute of the file lives.
typedef struct _ATTRIBUTE_LIST_ENTRY {
  ULONG AttributeTypeCode;
  USHORT RecordLength;
  UCHAR AttributeNameLength;  // UTF-16 characters
  UCHAR AttributeNameOffset;
  LONGLONG LowestVcn;
  ULONGLONG SegmentReference;
  USHORT Instance;
} ATTRIBUTE_LIST_ENTRY, *PATTRIBUTE_LIST_ENTRY;
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_LIST_ENTRY, AttributeNameLength) == 0x06);
C_ASSERT(FIELD_OFFSET(ATTRIBUTE_LIST_ENTRY, SegmentReference) == 0x10);
C_ASSERT(sizeof(ATTRIBUTE_LIST_ENTRY) == 0x1A);

// File references: segment number in the low 48 bits, sequence number above.
#define NTFS_SEGMENT_NUMBER_MASK 0x0000FFFFFFFFFFFFull
#define NTFS_LOG_FILE_REFERENCE 0x0002000000000002ull
#define NTFS_VOLUME_FILE_REFERENCE 0x0003000000000003ull

// The restart page of $LogFile and the restart area inside it.
typedef struct _LFS_RESTART_PAGE_HEADER {
  NTFS_MULTI_SECTOR_HEADER MultiSectorHeader;  // "RSTR" or "CHKD"
  LONGLONG ChkDskLsn;
  ULONG SystemPageSize;
  ULONG LogPageSize;
  USHORT RestartOffset;
  SHORT MinorVersion;
  SHORT MajorVersion;
} LFS_RESTART_PAGE_HEADER, *PLFS_RESTART_PAGE_HEADER;
C_ASSERT(FIELD_OFFSET(LFS_RESTART_PAGE_HEADER, SystemPageSize) == 0x10);
C_ASSERT(FIELD_OFFSET(LFS_RESTART_PAGE_HEADER, RestartOffset) == 0x18);

typedef struct _LFS_RESTART_AREA {
  LONGLONG CurrentLsn;
  USHORT LogClients;
  USHORT ClientFreeList;
  USHORT ClientInUseList;
  USHORT Flags;
  ULONG SeqNumberBits;
  USHORT RestartAreaLength;
  USHORT ClientArrayOffset;
  LONGLONG FileSize;
  ULONG LastLsnDataLength;
  USHORT RecordHeaderLength;
  USHORT LogPageDataOffset;
  ULONG RestartLogOpenCount;
} LFS_RESTART_AREA, *PLFS_RESTART_AREA;
C_ASSERT(FIELD_OFFSET(LFS_RESTART_AREA, Flags) == 0x0E);
C_ASSERT(FIELD_OFFSET(LFS_RESTART_AREA, RestartLogOpenCount) == 0x28);
C_ASSERT(sizeof(LFS_RESTART_AREA) == 0x2C);

#define LFS_SIGNATURE_RESTART_PAGE 0x52545352u  // "RSTR"
#define LFS_SIGNATURE_CHKDSK_PAGE 0x444B4843u   // "CHKD"
#define LFS_SIGNATURE_RECORD_PAGE 0x44524352u   // "RCRD"
// Set in the restart area of a log that was closed cleanly.
#define LFS_RESTART_AREA_CLEAN 0x0002
// The log is read in pages of this size, whatever its header says.
#define LFS_PAGE_SIZE 4096u

#pragma pack(pop)
