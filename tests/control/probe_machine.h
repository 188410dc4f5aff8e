// A simulated machine for the control tests: the probe filter (probe_filter.h) sits between
// the tracking driver and each volume device, so a test sees what the driver sends below
// itself and can answer in the volume's place; the driver's debug log is on, and the test
// reads its records.
#pragma once

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "driver/cbt_device_extension.h"
#include "kvtestbed/machine.h"
#include "probe_filter.h"

namespace kvtest {

struct LoggedRecord {
  std::string Text;
  ULONG Status = 0;
  ULONG Flags = 0;
  WCHAR DriveLetter = 0;
};

class ProbeMachineTest : public testing::Test {
 protected:
  // The machine, with these values in the driver's service key besides DebugLog; volumes
  // are added to it before BootMachine.
  void BuildMachine(std::vector<kvtestbed::RegistrySetting> settings = {});
  kvtestbed::Volume* AddVolume(const kvtestbed::VolumeConfig& config);
  // Boots; what the boot sent below the driver and recorded is forgotten.
  void BootMachine();

  // The machine with one volume (D: unless said otherwise), booted; in volume_.
  void BootWithOneVolume(const kvtestbed::VolumeConfig& config = {.Name = "D:", .DriveLetter = u'D'});

  // Sends a device-control request with `code` to the top of the volume's stack from another
  // thread, with the probe holding it below the driver, and returns once it is held there:
  // the future gives the request's final status after probe_.Release().
  std::future<NTSTATUS> SendHeldBelow(const kvtestbed::Volume* volume, ULONG code);

  static PCBT_DEVICE_EXTENSION ExtensionOf(const kvtestbed::Volume* volume);
  // The records made since the last call, taken off the queue; only those with `text` when
  // one is given.
  static std::vector<LoggedRecord> TakeRecords(const char* text = nullptr);

  ProbeFilter probe_;  // outlives the machine, which unloads the filter
  std::unique_ptr<kvtestbed::Machine> machine_;
  kvtestbed::Volume* volume_ = nullptr;  // BootWithOneVolume's
};

}  // namespace kvtest
