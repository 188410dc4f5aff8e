// Volumes the driver's tests stack the filter on, built by hand with the I/O manager's
// controls: a physical device object named like a volume ("\Device\HarddiskVolume3"), with
// a class GUID, a device type and characteristics, backed by memory.
//
// Each volume records what reached it (requests by major function, Plug and Play and power
// minors, control codes) and can be told how to behave: complete transfers from a worker
// thread, hold them until the test lets them go, fail Plug and Play requests.
#pragma once

#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kvtest {

struct VolumeSpec {
  std::u16string Name = u"\\Device\\HarddiskVolume1";
  const GUID* ClassGuid = nullptr;  // nullptr: the device has no class property; see VolumeClass()
  DEVICE_TYPE DeviceType = FILE_DEVICE_DISK;
  ULONG Characteristics = 0;
  ULONG Flags = DO_DIRECT_IO | DO_POWER_PAGABLE;
  USHORT SectorSize = 512;
  ULONG Size = 1 << 20;
};

// The volume and shadow-copy classes, and a class of something that is not a volume.
const GUID& VolumeClass();
const GUID& SnapshotClass();
const GUID& OtherClass();

VolumeSpec FixedVolume(unsigned number);
VolumeSpec RemovableVolume(unsigned number);
VolumeSpec ShadowCopy(unsigned number);

// The state of one test volume, in its device extension.
struct TestVolume {
  PDEVICE_OBJECT Device = nullptr;
  std::vector<uint8_t> Data;

  // Behaviour.
  std::atomic<bool> CompleteFromWorker{false};
  std::atomic<bool> HoldTransfers{false};  // reads and writes wait until ReleaseHeld
  std::atomic<NTSTATUS> PnpStatus{STATUS_SUCCESS};  // what Plug and Play requests complete with
  std::atomic<NTSTATUS> ControlStatus{STATUS_INVALID_DEVICE_REQUEST};  // device control, as for an unknown code

  // What reached it.
  std::atomic<int> Requests[IRP_MJ_MAXIMUM_FUNCTION + 1] = {};
  std::mutex Lock;
  std::vector<UCHAR> PnpMinors;
  std::vector<UCHAR> PowerMinors;
  std::vector<ULONG> ControlCodes;
  std::vector<PIRP> Held;

  // Completes the held transfers; returns how many there were.
  size_t ReleaseHeld();
  size_t HeldCount();
};

// The driver object of the test volumes ("\Driver\TestVolume").
PDRIVER_OBJECT LoadTestVolumeDriver();
void UnloadTestVolumeDriver(PDRIVER_OBJECT driver);

// A physical device object as the Plug and Play manager reports one; nullptr on failure.
TestVolume* CreateTestVolume(PDRIVER_OBJECT driver, const VolumeSpec& spec);
void DeleteTestVolume(TestVolume* volume);
TestVolume* TestVolumeOf(PDEVICE_OBJECT device);

}  // namespace kvtest
