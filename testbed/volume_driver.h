// The volume manager: the driver of the volume devices at the bottom of each volume stack
// (not a test control). It is host code playing a Windows driver: it takes requests through
// its dispatch table and completes them as a volume does (see kvtestbed/volume.h).
#pragma once

#include <wdm.h>

namespace kvtestbed {
class Volume;
}

namespace kvtestbed::detail {

class VolumeDriver {
 public:
  static NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
  // Creates the volume's device (its physical device object) and makes it known to Plug and
  // Play with the class of volumes or of shadow copies.
  static NTSTATUS CreateDevice(PDRIVER_OBJECT driver, Volume& volume, PDEVICE_OBJECT* device);

 private:
  static NTSTATUS DispatchTransfer(PDEVICE_OBJECT device, PIRP irp);
  static NTSTATUS DispatchDeviceControl(PDEVICE_OBJECT device, PIRP irp);
  static NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp);
  static NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp);
  static NTSTATUS DispatchSucceed(PDEVICE_OBJECT device, PIRP irp);
  static void Unload(PDRIVER_OBJECT driver);
};

}  // namespace kvtestbed::detail
