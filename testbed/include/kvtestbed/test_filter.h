// The testbed's pass-through volume filter, registered as the driver image "passthrough".
//
// It does what a volume upper filter must: AddDevice attaches an unnamed filter device above
// each volume it is given and registers it for shutdown notification; every request goes
// down unchanged; it registers for volume-interface arrival (existing interfaces included)
// and, on each arrival, for the volume's target-device events; removal detaches and deletes
// the filter device; unload unregisters everything. It prints what it sees through
// DbgPrintEx and records it here, so that tests can check what reached a filter and in which
// order. The record is the test's instrument: it survives the machine's power cycles and is
// emptied at the start of each test.
#pragma once

#include <wdm.h>

#include <string>
#include <vector>

namespace kvtestbed {

inline constexpr char16_t kTestFilterService[] = u"passthrough";

EXTERN_C DRIVER_INITIALIZE PassThroughFilterDriverEntry;

// One thing the test filter saw. Device is the volume's device name
// ("\Device\HarddiskVolume1"), empty for what concerns no volume.
//   What: "DriverEntry", "Unload", "AddDevice", a Plug and Play or power minor function
//   ("IRP_MN_START_DEVICE", "IRP_MN_SET_POWER"), "IRP_MJ_SHUTDOWN", a control code
//   ("IOCTL_VOLUME_ONLINE"), "interface arrival", a target-device event ("GUID_IO_VOLUME_MOUNT").
//   Detail: the link name of a mount-manager request or an interface arrival, the power
//   state of a set-power request ("PowerSystemShutdown, effective PowerSystemShutdown").
struct TestFilterEvent {
  std::string Device;
  std::string What;
  std::string Detail;
};

std::vector<TestFilterEvent> TakeTestFilterEvents();

// What the filter's target-device callback answers to GUID_TARGET_DEVICE_QUERY_REMOVE
// (STATUS_SUCCESS at the start of each test); a failure vetoes the removal.
void SetTestFilterQueryRemoveAnswer(NTSTATUS answer);

}  // namespace kvtestbed
