#include "probe_machine.h"

#include "control_request.h"
#include "log/cbt_log_inspection.h"

namespace kvtest {

void ProbeMachineTest::BuildMachine(std::vector<kvtestbed::RegistrySetting> settings) {
  settings.push_back(kvtestbed::RegistrySetting::Dword(u"DebugLog", 1));
  kvtestbed::MachineConfig config;
  config.VolumeUpperFilters = {std::u16string(ProbeFilter::kService), u"kvcbt"};
  config.SnapshotUpperFilters = config.VolumeUpperFilters;
  config.Services = {
      {std::u16string(ProbeFilter::kService), &ProbeFilter::DriverEntry, {}},
      {u"kvcbt", &DriverEntry, std::move(settings)},
  };
  machine_ = std::make_unique<kvtestbed::Machine>(config);
}

kvtestbed::Volume* ProbeMachineTest::AddVolume(const kvtestbed::VolumeConfig& config) {
  std::string error;
  kvtestbed::Volume* volume = machine_->AddVolume(config, &error);
  EXPECT_NE(volume, nullptr) << error;
  return volume;
}

void ProbeMachineTest::BootMachine() {
  ASSERT_EQ(machine_->Boot(), STATUS_SUCCESS);
  probe_.Clear();
  TakeRecords();
}

void ProbeMachineTest::BootWithOneVolume(const kvtestbed::VolumeConfig& config) {
  BuildMachine();
  volume_ = AddVolume(config);
  ASSERT_NE(volume_, nullptr);
  BootMachine();
}

std::future<NTSTATUS> ProbeMachineTest::SendHeldBelow(const kvtestbed::Volume* volume, ULONG code) {
  probe_.Hold(code);
  PDEVICE_OBJECT top = volume->TopOfStack();
  std::future<NTSTATUS> status = std::async(std::launch::async, [top, code] {
    return SendControlRequest(top, {.Code = code}).Status;
  });
  EXPECT_TRUE(probe_.WaitForHeld()) << "the request reached the volume's stack";
  return status;
}

PCBT_DEVICE_EXTENSION ProbeMachineTest::ExtensionOf(const kvtestbed::Volume* volume) {
  return CbtExtensionOf(volume->TopOfStack());
}

std::vector<LoggedRecord> ProbeMachineTest::TakeRecords(const char* text) {
  std::vector<CBT_LOG_RECORD_BODY> bodies(CBT_LOG_QUEUE_LIMIT);
  bodies.resize(CbtDrainQueuedLogRecords(bodies.data(), CBT_LOG_QUEUE_LIMIT));
  std::vector<LoggedRecord> records;
  for (const CBT_LOG_RECORD_BODY& body : bodies)
    if (text == nullptr || std::string(body.Text) == text)
      records.push_back({body.Text, body.Status, body.DeviceFlags, static_cast<WCHAR>(body.DriveLetter)});
  return records;
}

}  // namespace kvtest
