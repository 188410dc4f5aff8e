// The SCSI pass-through check against arbitrary request buffers: the first byte picks one of
// the four pass-through codes, the rest is the request's input, held in a buffer of exactly
// that size so that a read past what the caller sent is caught. A request the check lets
// through must state a length that fits and a command block of at least six bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <ntddscsi.h>

#include "control/cbt_scsi_pass_through.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const ULONG kCodes[] = {IOCTL_SCSI_PASS_THROUGH, IOCTL_SCSI_PASS_THROUGH_DIRECT, IOCTL_SCSI_PASS_THROUGH_EX,
                                 IOCTL_SCSI_PASS_THROUGH_DIRECT_EX};
  const ULONG code = kCodes[data[0] & 3];
  const std::vector<uint8_t> input(data + 1, data + size);
  const ULONG inputLength = static_cast<ULONG>(input.size());
  const void* systemBuffer = input.empty() ? nullptr : input.data();

  if (!CbtIsScsiPassThroughWellFormed(code, systemBuffer, inputLength)) return 0;

  ULONG statedLength;
  ULONG cdbLength;
  if (code == IOCTL_SCSI_PASS_THROUGH_EX || code == IOCTL_SCSI_PASS_THROUGH_DIRECT_EX) {
    SCSI_PASS_THROUGH_EX request;
    std::memcpy(&request, input.data(), FIELD_OFFSET(SCSI_PASS_THROUGH_EX, StorAddressLength));
    statedLength = request.Length;
    cdbLength = request.CdbLength;
  } else {
    SCSI_PASS_THROUGH request;
    std::memcpy(&request, input.data(), FIELD_OFFSET(SCSI_PASS_THROUGH, SenseInfoLength));
    statedLength = request.Length;
    cdbLength = request.CdbLength;
  }
  if (statedLength > inputLength || cdbLength < 6) std::abort();
  return 0;
}
