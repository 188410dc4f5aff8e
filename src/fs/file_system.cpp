// Recognising the file system of a volume that comes online.
//
// Seam: no reader is built yet, so no file system is recognised: the volume gets no
// context and its writes are counted as untracked.
#include "driver/cbt_device_extension.h"
#include "fs/cbt_fs.h"

NTSTATUS CbtInitializeFileSystem(PCBT_DEVICE_EXTENSION Extension) {
  UNREFERENCED_PARAMETER(Extension);
  return STATUS_UNRECOGNIZED_VOLUME;
}
