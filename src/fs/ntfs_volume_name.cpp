// The volume label: the value of $Volume's $VOLUME_NAME attribute.
#include "fs/cbt_ntfs.h"

NTSTATUS NtfsQueryVolumeName(PNTFS_VOLUME_CONTEXT Context, PUNICODE_STRING Name) {
  RtlZeroMemory(Name, sizeof(*Name));
  KeWaitForSingleObject(&Context->Lock, Executive, KernelMode, FALSE, NULL);

  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  PVOID value = NULL;
  ULONG valueLength = 0;
  NTSTATUS status = STATUS_SUCCESS;
  PVOID record = ExAllocatePoolWithTag(PagedPool, Context->FileRecordSize, NTFS_POOL_TAG);
  if (record == NULL) status = STATUS_INSUFFICIENT_RESOURCES;
  if (NT_SUCCESS(status)) status = NtfsReadFileRecord(Context, NTFS_VOLUME_FILE_REFERENCE, record);
  PATTRIBUTE_RECORD_HEADER attribute = NULL;
  if (NT_SUCCESS(status)) status = NtfsFindResidentAttribute(Context, record, NTFS_VOLUME_NAME, &search, &attribute);
  if (NT_SUCCESS(status) && attribute->FormCode != NTFS_RESIDENT_FORM) status = STATUS_FILE_CORRUPT_ERROR;
  if (NT_SUCCESS(status)) status = NtfsQueryResidentAttributeValue(Context, attribute, &value, &valueLength);
  // A counted string holds at most 64 KiB - 1 bytes; a file record never holds a longer value.
  if (NT_SUCCESS(status) && valueLength > MAXUSHORT) status = STATUS_FILE_CORRUPT_ERROR;

  NtfsFreeAttributeContext(&search);
  if (record != NULL) ExFreePoolWithTag(record, NTFS_POOL_TAG);
  if (NT_SUCCESS(status)) {
    Name->Buffer = static_cast<PWCH>(value);
    Name->Length = Name->MaximumLength = static_cast<USHORT>(valueLength);
  } else {
    if (value != NULL) ExFreePoolWithTag(value, NTFS_POOL_TAG);
    NTFS_LOG(Context, "NtfsQueryVolumeName", status);
  }
  KeReleaseSemaphore(&Context->Lock, IO_NO_INCREMENT, 1, FALSE);
  return status;
}
