// Writing a volume's tracking data into its tracking file.
//
// Seam: no tracking file is loaded until its lifecycle is built, so there is no image to
// write. As with a volume whose image is missing, that is recorded and nothing is written.
#include "driver/cbt_device_extension.h"
#include "trackfile/cbt_trackfile.h"

NTSTATUS CbtFlushTrackingFile(PCBT_DEVICE_EXTENSION Extension, BOOLEAN Finalize, BOOLEAN SemaphoreHeld) {
  UNREFERENCED_PARAMETER(Finalize);
  UNREFERENCED_PARAMETER(SemaphoreHeld);
  CBT_LOG_VOLUME(Extension, "CbtFlushTrackingFile", STATUS_INVALID_PARAMETER);
  return STATUS_SUCCESS;
}
