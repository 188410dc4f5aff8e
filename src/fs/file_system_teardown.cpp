// Dropping a volume's file-system reader: at removal, when the volume goes offline, and
// when a locked volume is given a new boot sector.
#include "driver/cbt_device_extension.h"
#include "fs/cbt_fs.h"

VOID CbtUninitializeFileSystem(PCBT_DEVICE_EXTENSION Extension) {
  if ((CbtReadFlags(Extension) & CBT_FLAG_FS_CONTEXT) == 0) return;
  KeWaitForSingleObject(&Extension->FileSystemMutex, Executive, KernelMode, FALSE, NULL);
  // Checked again under the mutex: another teardown may have dropped the reader meanwhile.
  if ((CbtReadFlags(Extension) & CBT_FLAG_FS_CONTEXT) != 0) {
    // Writes still looking at their data through the reader finish first; those that come
    // meanwhile find the rundown under way and leave the reader alone.
    ExWaitForRundownProtectionRelease(&Extension->FileSystemRundown);
    if (Extension->FileSystemType == CBT_FILE_SYSTEM_NTFS)
      NtfsUninitialize(CbtNtfsContext(&Extension->FileSystemContext));
    else if (Extension->FileSystemType == CBT_FILE_SYSTEM_REFS)
      RefsUninitialize(&Extension->FileSystemContext.Refs);
    Extension->FileSystemType = CBT_FILE_SYSTEM_NONE;
    CbtClearFlags(Extension, CBT_FLAG_FS_CONTEXT);
    // Ready for the next reader. A write that takes a reference from now on finds the
    // context flag clear and does not look.
    ExReInitializeRundownProtection(&Extension->FileSystemRundown);
  }
  KeSetEvent(&Extension->FileSystemMutex, IO_NO_INCREMENT, FALSE);
}
