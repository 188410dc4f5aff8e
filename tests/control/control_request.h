// Device-control requests as a backup application's DeviceIoControl makes them arrive at the
// top of a volume's stack: from user mode (optionally a 32-bit process), the input copied
// into the system buffer, a METHOD_BUFFERED output sharing it, a METHOD_OUT_DIRECT output
// described by an MDL. The caller's output buffer starts filled with kUntouched, so a test
// sees exactly which bytes came back.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace kvtest {

inline constexpr uint8_t kUntouched = 0xCC;

struct ControlRequest {
  ULONG Code = 0;
  std::vector<uint8_t> Input;  // InputBufferLength is its size
  ULONG OutputLength = 0;
  bool HasOutputBuffer = true;  // false: the output length is stated without a buffer (no MDL)
  bool From32bitProcess = false;
  // Called on the built request before it is sent (to shape what a well-behaved I/O
  // manager never would).
  std::function<void(PIRP)> Adjust;
};

struct ControlResult {
  NTSTATUS Returned = STATUS_UNSUCCESSFUL;  // what IoCallDriver returned
  NTSTATUS Status = STATUS_UNSUCCESSFUL;
  ULONG_PTR Information = 0;
  std::vector<uint8_t> Output;  // the caller's output buffer afterwards
};

ControlResult SendControlRequest(PDEVICE_OBJECT top, const ControlRequest& request);

// `count` bytes counting up from `first`.
std::vector<uint8_t> Pattern(size_t count, uint8_t first);

}  // namespace kvtest
