// The ReFS checkpoint reader.
//
// Seam: no ReFS context is ever initialised until the reader is built, so there is
// nothing to tear down.
#include "fs/cbt_fs.h"

VOID RefsUninitialize(PREFS_VOLUME_CONTEXT Context) { UNREFERENCED_PARAMETER(Context); }
