// The NTFS metadata reader.
//
// Seam: no NTFS context is ever initialised until the reader is built, so there is
// nothing to tear down and no write is taken for a restart page.
#include "fs/cbt_fs.h"

VOID NtfsUninitialize(PNTFS_VOLUME_CONTEXT Context) { UNREFERENCED_PARAMETER(Context); }

BOOLEAN NtfsIsLogFileRestartCountIrp(PNTFS_VOLUME_CONTEXT Context, PIRP Irp, PULONG Count) {
  UNREFERENCED_PARAMETER(Context);
  UNREFERENCED_PARAMETER(Irp);
  if (Count != NULL) *Count = 0;
  return FALSE;
}
