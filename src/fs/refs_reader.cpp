// The ReFS checkpoint reader.
//
// Seam: ReFS is not read yet, so the probe recognises no volume, no ReFS context is ever
// initialised to tear down, and no write is taken for a checkpoint.
#include "fs/cbt_fs.h"

NTSTATUS RefsInitialize(PDEVICE_OBJECT Device, ULONG Flags, ULONG VolumeNumber, WCHAR DriveLetter,
                        PREFS_VOLUME_CONTEXT Context) {
  UNREFERENCED_PARAMETER(Device);
  UNREFERENCED_PARAMETER(Flags);
  UNREFERENCED_PARAMETER(VolumeNumber);
  UNREFERENCED_PARAMETER(DriveLetter);
  UNREFERENCED_PARAMETER(Context);
  return STATUS_UNRECOGNIZED_VOLUME;
}

VOID RefsUninitialize(PREFS_VOLUME_CONTEXT Context) { UNREFERENCED_PARAMETER(Context); }

BOOLEAN RefsIsWriteToCheckpoint(PREFS_VOLUME_CONTEXT Context, PVOID Data, ULONGLONG ByteOffset) {
  UNREFERENCED_PARAMETER(Context);
  UNREFERENCED_PARAMETER(Data);
  UNREFERENCED_PARAMETER(ByteOffset);
  return FALSE;
}
