// SCSI pass-through requests are the storage stack's to carry out; the driver only refuses
// the malformed ones before they reach the volume's stack. The 32-bit structures a WoW64
// process sends keep Length and CdbLength at the same offsets as the native ones (the forms
// differ only after them), so one reading serves both.
#include <wdm.h>

#include <ntddscsi.h>

#include "control/cbt_scsi_pass_through.h"

namespace {

// The shortest SCSI command descriptor block.
constexpr ULONG kMinimumCdbLength = 6;

static_assert(FIELD_OFFSET(SCSI_PASS_THROUGH, Length) == FIELD_OFFSET(SCSI_PASS_THROUGH32, Length) &&
                  FIELD_OFFSET(SCSI_PASS_THROUGH, CdbLength) == FIELD_OFFSET(SCSI_PASS_THROUGH32, CdbLength) &&
                  FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT, CdbLength) == FIELD_OFFSET(SCSI_PASS_THROUGH, CdbLength) &&
                  FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT32, CdbLength) == FIELD_OFFSET(SCSI_PASS_THROUGH, CdbLength),
              "every short form keeps Length and CdbLength where SCSI_PASS_THROUGH has them");
static_assert(FIELD_OFFSET(SCSI_PASS_THROUGH_EX, Length) == FIELD_OFFSET(SCSI_PASS_THROUGH32_EX, Length) &&
                  FIELD_OFFSET(SCSI_PASS_THROUGH_EX, CdbLength) == FIELD_OFFSET(SCSI_PASS_THROUGH32_EX, CdbLength) &&
                  FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT_EX, CdbLength) == FIELD_OFFSET(SCSI_PASS_THROUGH_EX, CdbLength) &&
                  FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT32_EX, CdbLength) == FIELD_OFFSET(SCSI_PASS_THROUGH_EX, CdbLength),
              "every EX form keeps Length and CdbLength where SCSI_PASS_THROUGH_EX has them");

}  // namespace

BOOLEAN CbtIsScsiPassThroughWellFormed(_In_ ULONG ControlCode, _In_opt_ const VOID* SystemBuffer,
                                       _In_ ULONG InputLength) {
  if (SystemBuffer == NULL) return FALSE;

  ULONG statedLength;
  ULONG cdbLength;
  if (ControlCode == IOCTL_SCSI_PASS_THROUGH_EX || ControlCode == IOCTL_SCSI_PASS_THROUGH_DIRECT_EX) {
    // An input too short to hold the fields looked at cannot be a pass-through structure,
    // and reading them would go past what the caller sent.
    if (InputLength < RTL_SIZEOF_THROUGH_FIELD(SCSI_PASS_THROUGH_EX, CdbLength)) return FALSE;
    const auto* request = static_cast<const SCSI_PASS_THROUGH_EX*>(SystemBuffer);
    statedLength = request->Length;
    cdbLength = request->CdbLength;
  } else {
    if (InputLength < RTL_SIZEOF_THROUGH_FIELD(SCSI_PASS_THROUGH, CdbLength)) return FALSE;
    const auto* request = static_cast<const SCSI_PASS_THROUGH*>(SystemBuffer);
    statedLength = request->Length;
    cdbLength = request->CdbLength;
  }
  return InputLength >= statedLength && cdbLength >= kMinimumCdbLength;
}
