// A device that plays "the device below" for the control and raw I/O tests: it records
// every request it receives as it arrived (stack location, flags, buffers, requestor) and
// answers as the test scripts it: a status, an Information, reply bytes, completion inline or
// later from a work item, a number of transfers to cancel. Reads and writes move bytes to and
// from a small in-memory disk through the request's MDL.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace kvtest {

struct ProbeRequest {
  UCHAR MajorFunction = 0;
  UCHAR StackFlags = 0;   // SL_* of the location the device received
  ULONG IrpFlags = 0;
  KPROCESSOR_MODE RequestorMode = KernelMode;
  BOOLEAN From32bitProcess = FALSE;
  IO_PRIORITY_HINT PriorityHint = IoPriorityNormal;
  BOOLEAN Cancel = FALSE;  // the IRP's Cancel flag on arrival
  PETHREAD Thread = nullptr;
  CCHAR StackCount = 0;
  PFILE_OBJECT OriginalFileObject = nullptr;
  // Device control.
  ULONG ControlCode = 0;
  ULONG InputLength = 0;
  ULONG OutputLength = 0;
  bool HadSystemBuffer = false;
  std::vector<uint8_t> SystemBufferBytes;  // max(InputLength, OutputLength) bytes as they arrived
  PVOID UserBuffer = nullptr;
  bool HadMdl = false;
  ULONG MdlBytes = 0;
  // Read and write.
  ULONG Length = 0;
  ULONG Key = 0;
  LONGLONG ByteOffset = 0;
};

struct ProbeReply {
  NTSTATUS Status = STATUS_SUCCESS;
  ULONG_PTR Information = 0;
  std::vector<uint8_t> Bytes;  // written at the start of the system buffer (or the MDL's memory)
  bool Pend = false;           // mark pending, complete from a work item
};

// What a request looks like as it arrives at a device.
ProbeRequest CaptureRequest(PIRP irp);
// Writes reply bytes where the request's method puts its output: the system buffer, or the
// memory of the MDL of a direct-method control code.
void WriteReplyBytes(PIRP irp, const std::vector<uint8_t>& bytes);

class ProbeDevice {
 public:
  // Creates a device of `deviceType` with the given sector size and stack size under a
  // driver of its own, with a disk of `diskBytes` bytes behind reads and writes.
  explicit ProbeDevice(ULONG sectorSize = 512, size_t diskBytes = 64 * 1024, CCHAR stackSize = 1,
                       DEVICE_TYPE deviceType = FILE_DEVICE_DISK);
  ~ProbeDevice();
  ProbeDevice(const ProbeDevice&) = delete;
  ProbeDevice& operator=(const ProbeDevice&) = delete;

  PDEVICE_OBJECT Device() const { return device_; }

  // The answer to each device-control request, in order; when none is queued, requests are
  // answered with `defaultReply`.
  void QueueReply(ProbeReply reply);
  void SetDefaultReply(ProbeReply reply);
  // The next `count` reads or writes complete with STATUS_CANCELLED (-1: all of them).
  void CancelTransfers(int count);
  // Reads and writes complete from a work item after returning STATUS_PENDING.
  void PendTransfers(bool pend);

  std::vector<ProbeRequest> Requests() const;
  size_t RequestCount() const;
  std::vector<uint8_t>& Disk() { return disk_; }

 private:
  static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);
  NTSTATUS Handle(PIRP irp);
  NTSTATUS Transfer(PIRP irp, bool pend);
  NTSTATUS Reply(PIRP irp, ProbeReply reply);
  static void CompleteLater(PIRP irp, NTSTATUS status, ULONG_PTR information, PDEVICE_OBJECT device);

  PDRIVER_OBJECT driver_ = nullptr;
  PDEVICE_OBJECT device_ = nullptr;
  std::vector<uint8_t> disk_;
  mutable std::mutex lock_;
  std::vector<ProbeRequest> requests_;
  std::deque<ProbeReply> replies_;
  ProbeReply defaultReply_;
  int cancelTransfers_ = 0;
  bool pendTransfers_ = false;
};

}  // namespace kvtest
