// Writing a volume's tracking data into its tracking file.
//
// Seam: no tracking file is loaded until its lifecycle is built, so there is no image to
// write. As with a volume whose image is missing, that is recorded and nothing is written;
// a finalizing flush is recorded from a call site of its own, so that the record tells the
// two apart.
#include "driver/cbt_device_extension.h"
#include "trackfile/cbt_trackfile.h"

NTSTATUS CbtFlushTrackingFile(PCBT_DEVICE_EXTENSION Extension, BOOLEAN Finalize, BOOLEAN SemaphoreHeld) {
  UNREFERENCED_PARAMETER(SemaphoreHeld);
  if (Finalize)
    CBT_LOG_VOLUME(Extension, "CbtFlushTrackingFile", STATUS_INVALID_PARAMETER);
  else
    CBT_LOG_VOLUME(Extension, "CbtFlushTrackingFile", STATUS_INVALID_PARAMETER);
  return STATUS_SUCCESS;
}
