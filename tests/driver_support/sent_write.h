// A write sent to the top of a volume's stack without waiting for it: built by hand
// (IoAllocateIrp, an MDL over its own buffer when its length is not 0), kept by its
// completion routine, which counts its completions. For tests that must see a write pending
// (held, deferred) before it ends.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <vector>

namespace kvtest {

struct SentWrite {
  PIRP Irp = nullptr;
  NTSTATUS Returned = 0;  // what IoCallDriver returned
  KEVENT Done;
  std::vector<uint8_t> Buffer;
  int Completions = 0;
  // Waits for the completion, frees the request and returns its status block.
  IO_STATUS_BLOCK Wait();
  // Whether it has completed (without waiting).
  bool Completed();
};

// Builds the write of `length` bytes at `offset` for `top`; Send also sends it.
void Prepare(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, ULONG length, ULONG irpFlags = 0);
void Send(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, ULONG length, ULONG irpFlags = 0);

}  // namespace kvtest
