// The ReFS checkpoint reader.
//
// Seam: no ReFS context is ever initialised until the reader is built, so there is
// nothing to tear down and no write is taken for a checkpoint.
#include "fs/cbt_fs.h"

VOID RefsUninitialize(PREFS_VOLUME_CONTEXT Context) { UNREFERENCED_PARAMETER(Context); }

BOOLEAN RefsIsWriteToCheckpoint(PREFS_VOLUME_CONTEXT Context, PVOID Data, ULONGLONG ByteOffset) {
  UNREFERENCED_PARAMETER(Context);
  UNREFERENCED_PARAMETER(Data);
  UNREFERENCED_PARAMETER(ByteOffset);
  return FALSE;
}
