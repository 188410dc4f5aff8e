// A volume filter the machine loads below the tracking driver (VolumeUpperFilters lists it
// first), so that it sees exactly what the driver passes down: every device-control request
// is recorded as it arrives; the codes a test scripts are answered here, everything else
// goes on to the volume device. One ProbeFilter is the test's instrument at a time.
#pragma once

#include <wdm.h>

#include <condition_variable>
#include <map>
#include <optional>
#include <mutex>
#include <string_view>
#include <vector>

#include "probe_device.h"

namespace kvtest {

class ProbeFilter {
 public:
  static constexpr std::u16string_view kService = u"ctlprobe";
  static DRIVER_INITIALIZE DriverEntry;

  ProbeFilter();
  ~ProbeFilter();
  ProbeFilter(const ProbeFilter&) = delete;
  ProbeFilter& operator=(const ProbeFilter&) = delete;

  // Every device-control request with `code` is completed here with `reply`.
  void Answer(ULONG code, ProbeReply reply);
  // The next device-control request with `code` stops here, pending, until Release lets it
  // on down (or completes it with `reply`, when it is answered). WaitForHeld waits until it
  // has arrived (false after 10 s).
  void Hold(ULONG code);
  bool WaitForHeld();
  void Release();
  // Device-control requests that reached the filter, oldest first; Clear forgets them.
  std::vector<ProbeRequest> ControlRequests() const;
  void Clear();

 private:
  static NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp);
  static NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo);

  // Answers the request as scripted, or passes it down.
  static NTSTATUS Forward(ProbeFilter* self, PDEVICE_OBJECT device, PIRP irp);

  mutable std::mutex lock_;
  std::map<ULONG, ProbeReply> answers_;
  std::vector<ProbeRequest> requests_;
  std::optional<ULONG> holdCode_;
  PIRP held_ = nullptr;
  PDEVICE_OBJECT heldDevice_ = nullptr;
  std::condition_variable heldArrived_;
};

}  // namespace kvtest
