// The NTFS metadata reader.
//
// Seam: no NTFS context is ever initialised until the reader is built, so there is
// nothing to tear down.
#include "fs/cbt_fs.h"

VOID NtfsUninitialize(PNTFS_VOLUME_CONTEXT Context) { UNREFERENCED_PARAMETER(Context); }
