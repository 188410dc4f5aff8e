// The ReFS checkpoint reader.
//
// Seam: ReFS is not read yet, so the probe recognises no volume, and no ReFS context is ever
// initialised to tear down.
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
