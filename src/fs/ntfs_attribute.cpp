// Attribute search: the attributes of a file record, one after another, with the checks that
// make an attribute safe to read; the walk of an attribute list across the file's records;
// and attribute values.
#include "fs/cbt_ntfs.h"

namespace {

// An attribute list is at most 256 KiB on NTFS; a longer one is damage, and reading it would
// only fill pool.
constexpr ULONG kMaxAttributeListBytes = 256 * 1024;

// The checks an attribute passes before the search looks at its contents. Attribute lies
// inside the record with at least its common header (the search's own check).
NTSTATUS CheckAttributeRecord(PNTFS_VOLUME_CONTEXT Context, const NTFS_ATTRIBUTE_CONTEXT* Search,
                              const ATTRIBUTE_RECORD_HEADER* Attribute) {
  const ULONG recordSize = Context->FileRecordSize;
  const ULONG length = Attribute->RecordLength;
  const PUCHAR start = reinterpret_cast<PUCHAR>(const_cast<ATTRIBUTE_RECORD_HEADER*>(Attribute));
  if (length >= recordSize || static_cast<ULONG>(start - Search->Record) + length >= recordSize)
    return STATUS_FILE_CORRUPT_ERROR;
  // The form's header must lie inside the attribute before any of its fields are read.
  const bool resident = Attribute->FormCode == NTFS_RESIDENT_FORM;
  if (length < (resident ? NTFS_RESIDENT_HEADER_BYTES : NTFS_NONRESIDENT_HEADER_BYTES)) return STATUS_FILE_CORRUPT_ERROR;
  if (Attribute->NameLength != 0 &&
      static_cast<ULONG>(Attribute->NameOffset) + 2u * Attribute->NameLength > length)
    return STATUS_FILE_CORRUPT_ERROR;

  if ((Attribute->Flags & NTFS_ATTRIBUTE_COMPRESSION_MASK) != 0)
    NTFS_LOG(Context, "NtfsCheckAttributeRecord", NTFS_STATUS_COMPRESSED_ATTRIBUTE);
  if ((Attribute->Flags & NTFS_ATTRIBUTE_ENCRYPTED) != 0)
    NTFS_LOG(Context, "NtfsCheckAttributeRecord", NTFS_STATUS_ENCRYPTED_ATTRIBUTE);

  if (!resident) {
    if (Attribute->Form.Nonresident.CompressionUnit != 0) return NTFS_STATUS_COMPRESSED_ATTRIBUTE;
    const LONGLONG lowest = Attribute->Form.Nonresident.LowestVcn;
    const LONGLONG highest = Attribute->Form.Nonresident.HighestVcn;
    // Compared as the record has them; highest + 1 computed without overflow.
    if (lowest > highest && !(highest != MAXLONGLONG && lowest == highest + 1)) return STATUS_FILE_CORRUPT_ERROR;
    if (Attribute->Form.Nonresident.MappingPairsOffset >= length) return STATUS_FILE_CORRUPT_ERROR;
    if (Attribute->Form.Nonresident.ValidDataLength > Attribute->Form.Nonresident.FileSize ||
        Attribute->Form.Nonresident.FileSize > Attribute->Form.Nonresident.AllocatedLength)
      return STATUS_FILE_CORRUPT_ERROR;
  } else {
    const ULONG valueLength = Attribute->Form.Resident.ValueLength;
    if (valueLength >= length ||
        static_cast<ULONGLONG>(Attribute->Form.Resident.ValueOffset) + valueLength > length)
      return STATUS_FILE_CORRUPT_ERROR;
  }

  switch (Attribute->TypeCode) {
    case NTFS_STANDARD_INFORMATION:
    case NTFS_FILE_NAME:
    case NTFS_INDEX_ROOT:
      if (!resident) return STATUS_FILE_CORRUPT_ERROR;
      break;
    case NTFS_INDEX_ALLOCATION:
      if (resident) return STATUS_FILE_CORRUPT_ERROR;
      break;
    default:
      break;
  }
  return STATUS_SUCCESS;
}

// Names compare case-sensitively, that is code unit for code unit. They are compared as
// bytes: a damaged record may place a name at an odd offset.
bool NameMatches(const ATTRIBUTE_RECORD_HEADER* Attribute, PCUNICODE_STRING Name) {
  if (Name == NULL || Attribute->NameLength == 0) return true;
  const SIZE_T bytes = Attribute->NameLength * sizeof(WCHAR);
  if (Name->Length != bytes) return false;
  const PUCHAR attributeName =
      reinterpret_cast<PUCHAR>(const_cast<ATTRIBUTE_RECORD_HEADER*>(Attribute)) + Attribute->NameOffset;
  return RtlCompareMemory(attributeName, Name->Buffer, bytes) == bytes;
}

}  // namespace

VOID NtfsInitAttributeContext(PNTFS_ATTRIBUTE_CONTEXT AttributeContext) {
  RtlZeroMemory(AttributeContext, sizeof(*AttributeContext));
}

VOID NtfsFreeAttributeContext(PNTFS_ATTRIBUTE_CONTEXT AttributeContext) {
  if (AttributeContext->OwnsRecord && AttributeContext->Record != NULL)
    ExFreePoolWithTag(AttributeContext->Record, NTFS_POOL_TAG);
  if (AttributeContext->ListBuffer != NULL) ExFreePoolWithTag(AttributeContext->ListBuffer, NTFS_POOL_TAG);
  RtlZeroMemory(AttributeContext, sizeof(*AttributeContext));
}

NTSTATUS NtfsFindInFileRecord(PNTFS_VOLUME_CONTEXT Context, ULONG Type, PCUNICODE_STRING Name,
                              PNTFS_ATTRIBUTE_CONTEXT AttributeContext, PATTRIBUTE_RECORD_HEADER* Attribute) {
  *Attribute = NULL;
  while (AttributeContext->NextAttribute < AttributeContext->RecordEnd) {
    // The type and length of an attribute that does not fit before the record's end are
    // not there to read.
    if (AttributeContext->RecordEnd - AttributeContext->NextAttribute < 8) break;
    PATTRIBUTE_RECORD_HEADER attribute = reinterpret_cast<PATTRIBUTE_RECORD_HEADER>(AttributeContext->NextAttribute);
    if (attribute->TypeCode == NTFS_END_OF_ATTRIBUTES) return STATUS_NOT_FOUND;
    if (attribute->RecordLength == 0) {
      NTFS_LOG(Context, "NtfsFindInFileRecord", STATUS_FILE_CORRUPT_ERROR);
      return STATUS_FILE_CORRUPT_ERROR;
    }
    NTSTATUS status = AttributeContext->RecordEnd - AttributeContext->NextAttribute < NTFS_RESIDENT_HEADER_BYTES
                          ? STATUS_FILE_CORRUPT_ERROR
                          : CheckAttributeRecord(Context, AttributeContext, attribute);
    if (!NT_SUCCESS(status)) {
      NTFS_LOG(Context, "NtfsCheckAttributeRecord", status);
      NTFS_LOG(Context, "NtfsFindInFileRecord", status);
      return status;
    }
    AttributeContext->NextAttribute += attribute->RecordLength;
    if ((Type == NTFS_ATTRIBUTE_ANY || attribute->TypeCode == Type) && NameMatches(attribute, Name)) {
      *Attribute = attribute;
      return STATUS_SUCCESS;
    }
  }
  NTFS_LOG(Context, "NtfsFindInFileRecord", STATUS_FILE_CORRUPT_ERROR);
  return STATUS_FILE_CORRUPT_ERROR;
}

NTSTATUS NtfsFindNonResidentAttribute(PNTFS_VOLUME_CONTEXT Context, ULONG Type,
                                      PNTFS_ATTRIBUTE_CONTEXT AttributeContext, PATTRIBUTE_RECORD_HEADER* Attribute) {
  *Attribute = NULL;
  PUCHAR entryStart = AttributeContext->NextListEntry;
  const PUCHAR listEnd = AttributeContext->ListEnd;
  PATTRIBUTE_LIST_ENTRY entry = NULL;
  for (;;) {
    if (entryStart == NULL || entryStart >= listEnd) return STATUS_NOT_FOUND;
    // An entry whose fixed part runs past the list is damage, not the list's end.
    if (static_cast<ULONG_PTR>(listEnd - entryStart) < sizeof(ATTRIBUTE_LIST_ENTRY)) {
      NTFS_LOG(Context, "NtfsFindNonResidentAttribute", STATUS_FILE_CORRUPT_ERROR);
      return STATUS_FILE_CORRUPT_ERROR;
    }
    entry = reinterpret_cast<PATTRIBUTE_LIST_ENTRY>(entryStart);
    if (entry->RecordLength == 0 || entry->AttributeTypeCode == NTFS_END_OF_ATTRIBUTES) return STATUS_NOT_FOUND;
    if (entry->RecordLength < sizeof(ATTRIBUTE_LIST_ENTRY) ||
        static_cast<ULONG_PTR>(listEnd - entryStart) < entry->RecordLength ||
        static_cast<ULONG>(entry->AttributeNameOffset) + 2u * entry->AttributeNameLength > entry->RecordLength) {
      NTFS_LOG(Context, "NtfsFindNonResidentAttribute", STATUS_FILE_CORRUPT_ERROR);
      return STATUS_FILE_CORRUPT_ERROR;
    }
    if (Type == NTFS_ATTRIBUTE_ANY || entry->AttributeTypeCode == Type) break;
    entryStart += entry->RecordLength;
  }

  const ULONGLONG reference = entry->SegmentReference;
  if (reference != AttributeContext->LoadedReference) {
    if (!AttributeContext->OwnsRecord) {
      PVOID record = ExAllocatePoolWithTag(PagedPool, Context->FileRecordSize, NTFS_POOL_TAG);
      if (record == NULL) {
        NTFS_LOG(Context, "NtfsFindNonResidentAttribute", STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
      }
      AttributeContext->Record = static_cast<PUCHAR>(record);
      AttributeContext->OwnsRecord = TRUE;
    }
    NTSTATUS status = NtfsReadFileRecord(Context, reference, AttributeContext->Record);
    if (!NT_SUCCESS(status)) {
      // The buffer no longer holds the record last loaded.
      AttributeContext->LoadedReference = 0;
      AttributeContext->NextAttribute = AttributeContext->RecordEnd = AttributeContext->Record;
      NTFS_LOG(Context, "NtfsFindNonResidentAttribute", status);
      return status;
    }
    AttributeContext->LoadedReference = reference;
    const PFILE_RECORD_SEGMENT_HEADER header = reinterpret_cast<PFILE_RECORD_SEGMENT_HEADER>(AttributeContext->Record);
    AttributeContext->NextAttribute = AttributeContext->Record + header->FirstAttributeOffset;
    AttributeContext->RecordEnd = AttributeContext->Record + Context->FileRecordSize;
  }

  UNICODE_STRING name;
  PCUNICODE_STRING wanted = NULL;
  if (entry->AttributeNameLength != 0) {
    name.Length = name.MaximumLength = static_cast<USHORT>(entry->AttributeNameLength * sizeof(WCHAR));
    name.Buffer = reinterpret_cast<PWCH>(entryStart + entry->AttributeNameOffset);
    wanted = &name;
  }
  NTSTATUS status = NtfsFindInFileRecord(Context, entry->AttributeTypeCode, wanted, AttributeContext, Attribute);
  if (!NT_SUCCESS(status)) {
    NTFS_LOG(Context, "NtfsFindNonResidentAttribute", status);
    return status;
  }
  AttributeContext->NextListEntry = entryStart + entry->RecordLength;
  return STATUS_SUCCESS;
}

NTSTATUS NtfsFindResidentAttribute(PNTFS_VOLUME_CONTEXT Context, PVOID Record, ULONG Type,
                                   PNTFS_ATTRIBUTE_CONTEXT AttributeContext, PATTRIBUTE_RECORD_HEADER* Attribute) {
  *Attribute = NULL;
  if (AttributeContext->AttributeList != NULL)
    return NtfsFindNonResidentAttribute(Context, Type, AttributeContext, Attribute);
  if (AttributeContext->Record != NULL) return NtfsFindInFileRecord(Context, Type, NULL, AttributeContext, Attribute);

  // First call: the base record, from its first attribute.
  const PFILE_RECORD_SEGMENT_HEADER header = static_cast<PFILE_RECORD_SEGMENT_HEADER>(Record);
  // A record that claims more bytes than a record has would let the search run past it.
  if (header->BytesAvailable > Context->FileRecordSize || header->FirstAttributeOffset > header->BytesAvailable) {
    NTFS_LOG(Context, "NtfsFindResidentAttribute", STATUS_FILE_CORRUPT_ERROR);
    return STATUS_FILE_CORRUPT_ERROR;
  }
  AttributeContext->Record = static_cast<PUCHAR>(Record);
  AttributeContext->NextAttribute = AttributeContext->Record + header->FirstAttributeOffset;
  AttributeContext->RecordEnd = AttributeContext->Record + header->BytesAvailable;

  PATTRIBUTE_RECORD_HEADER list = NULL;
  NTSTATUS status = NtfsFindInFileRecord(Context, NTFS_ATTRIBUTE_LIST, NULL, AttributeContext, &list);
  if (status == STATUS_NOT_FOUND) {
    AttributeContext->NextAttribute = AttributeContext->Record + header->FirstAttributeOffset;
    return NtfsFindInFileRecord(Context, Type, NULL, AttributeContext, Attribute);
  }
  if (!NT_SUCCESS(status)) {
    NTFS_LOG(Context, "NtfsFindResidentAttribute", status);
    return status;
  }

  if (Record == Context->MftRecord) Context->MftHasAttributeList = TRUE;
  PUCHAR value;
  ULONG valueLength;
  if (list->FormCode == NTFS_RESIDENT_FORM) {
    value = reinterpret_cast<PUCHAR>(list) + list->Form.Resident.ValueOffset;
    valueLength = list->Form.Resident.ValueLength;
  } else {
    if (static_cast<ULONGLONG>(list->Form.Nonresident.ValidDataLength) > kMaxAttributeListBytes) {
      NTFS_LOG(Context, "NtfsFindResidentAttribute", STATUS_FILE_CORRUPT_ERROR);
      return STATUS_FILE_CORRUPT_ERROR;
    }
    PVOID buffer = NULL;
    status = NtfsQueryNonResidentAttributeValue(Context, list, &buffer, &valueLength);
    if (!NT_SUCCESS(status)) {
      NTFS_LOG(Context, "NtfsFindResidentAttribute", status);
      return status;
    }
    AttributeContext->ListBuffer = buffer;
    value = static_cast<PUCHAR>(buffer);
  }
  AttributeContext->AttributeList = reinterpret_cast<PUCHAR>(list);
  AttributeContext->NextListEntry = AttributeContext->ListStart = value;
  AttributeContext->ListEnd = value + valueLength;
  return NtfsFindNonResidentAttribute(Context, Type, AttributeContext, Attribute);
}

NTSTATUS NtfsQueryResidentAttributeValue(PNTFS_VOLUME_CONTEXT Context, PATTRIBUTE_RECORD_HEADER Attribute,
                                         PVOID* Buffer, PULONG Length) {
  *Length = Attribute->Form.Resident.ValueLength;
  *Buffer = NULL;
  if (*Length == 0) return STATUS_SUCCESS;
  *Buffer = ExAllocatePoolWithTag(PagedPool, *Length, NTFS_POOL_TAG);
  if (*Buffer == NULL) {
    NTFS_LOG(Context, "NtfsQueryResidentAttributeValue", STATUS_INSUFFICIENT_RESOURCES);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlCopyMemory(*Buffer, reinterpret_cast<PUCHAR>(Attribute) + Attribute->Form.Resident.ValueOffset, *Length);
  return STATUS_SUCCESS;
}

NTSTATUS NtfsQueryNonResidentAttributeValue(PNTFS_VOLUME_CONTEXT Context, PATTRIBUTE_RECORD_HEADER Attribute,
                                            PVOID* Buffer, PULONG Length) {
  *Buffer = NULL;
  *Length = 0;
  const ULONG valueLength = static_cast<ULONG>(Attribute->Form.Nonresident.ValidDataLength);
  // Nothing to read: the same answer as an empty resident value.
  if (valueLength == 0) return STATUS_SUCCESS;

  LARGE_MCB mcb;
  FsRtlInitializeLargeMcb(&mcb, PagedPool);
  const USHORT pairsOffset = Attribute->Form.Nonresident.MappingPairsOffset;
  NTSTATUS status = NtfsAddMappingPairsToMcb(Context, &mcb, reinterpret_cast<PUCHAR>(Attribute) + pairsOffset,
                                             Attribute->RecordLength - pairsOffset,
                                             Attribute->Form.Nonresident.LowestVcn);
  NTFS_MAPPED_STREAM stream = {};
  if (NT_SUCCESS(status)) status = NtfsMapStream(Context, &mcb, 0, valueLength, &stream);
  FsRtlUninitializeLargeMcb(&mcb);
  if (!NT_SUCCESS(status)) {
    NtfsFreeMappedStream(&stream);
    NTFS_LOG(Context, "NtfsQueryNonResidentAttributeValue", status);
    return status;
  }
  // The stream starts at byte 0 of its first cluster: the value is its buffer.
  *Buffer = stream.Buffer;
  *Length = valueLength;
  return STATUS_SUCCESS;
}
