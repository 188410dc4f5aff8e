// The driver's test fixture (cbt_driver_fixture.h).
#include "cbt_driver_fixture.h"

#include <cstdio>

#include "driver/cbt_driver.h"
#include "kvhost/io.h"
#include "kvhost/registry.h"
#include "log/cbt_log_inspection.h"

namespace kvtest {
namespace {

NTSTATUS SignalAndKeep(PDEVICE_OBJECT, PIRP, PVOID context) {
  KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

std::u16string GuidText(const GUID& guid) {
  char text[40];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1, guid.Data2,
                guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                guid.Data4[6], guid.Data4[7]);
  return std::u16string(text, text + std::char_traits<char>::length(text));
}

void CbtDriverTest::SetUp() {
  kvhost::CreateRegistryKey(kServiceKey);
  kvhost::SetRegistryDword(kServiceKey, u"DebugLog", 1);
  volumeDriver_ = LoadTestVolumeDriver();
  ASSERT_NE(volumeDriver_, nullptr);
}

void CbtDriverTest::TearDown() {
  for (auto& volume : volumes_)
    if (!volume->Removed) RemoveVolume(*volume);
  volumes_.clear();
  UnloadDriver();
  UnloadTestVolumeDriver(volumeDriver_);
  volumeDriver_ = nullptr;
}

NTSTATUS CbtDriverTest::LoadDriver() {
  kvhost::LoadedDriver loaded = kvhost::IoLoadDriver(u"kvcbt", DriverEntry, kServiceKey);
  driver_ = loaded.DriverObject;
  if (driver_ != nullptr) kvhost::IoRunBootDriverReinitialization();
  return loaded.EntryStatus;
}

void CbtDriverTest::UnloadDriver() {
  if (driver_ != nullptr) kvhost::IoUnloadDriver(driver_);
  driver_ = nullptr;
}

Volume& CbtDriverTest::AddVolume(const VolumeSpec& spec) {
  auto volume = std::make_unique<Volume>();
  volume->Lower = CreateTestVolume(volumeDriver_, spec);
  EXPECT_NE(volume->Lower, nullptr);
  volume->Pdo = volume->Lower->Device;
  EXPECT_EQ(driver_->DriverExtension->AddDevice(driver_, volume->Pdo), STATUS_SUCCESS)
      << "the add-device routine never blocks a volume's stack";
  if (volume->Pdo->AttachedDevice != nullptr && volume->Pdo->AttachedDevice->DriverObject == driver_)
    volume->Filter = volume->Pdo->AttachedDevice;
  EXPECT_EQ(SendPnp(volume->Top(), IRP_MN_START_DEVICE), STATUS_SUCCESS);
  volumes_.push_back(std::move(volume));
  return *volumes_.back();
}

NTSTATUS CbtDriverTest::RemoveVolume(Volume& volume) {
  const NTSTATUS status = SendPnp(volume.Top(), IRP_MN_REMOVE_DEVICE);
  DeleteTestVolume(volume.Lower);
  volume.Removed = true;
  volume.Filter = nullptr;
  return status;
}

Transferred CbtDriverTest::Send(PDEVICE_OBJECT top, const std::function<void(PIO_STACK_LOCATION)>& setup) {
  Transferred result;
  PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
  EXPECT_NE(irp, nullptr);
  if (irp == nullptr) return result;
  irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  setup(IoGetNextIrpStackLocation(irp));
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoSetCompletionRoutine(irp, SignalAndKeep, &done, TRUE, TRUE, TRUE);
  result.Returned = IoCallDriver(top, irp);
  KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  result.Status = irp->IoStatus;
  IoFreeIrp(irp);
  return result;
}

NTSTATUS CbtDriverTest::SendPnp(PDEVICE_OBJECT top, UCHAR minor) {
  return Send(top, [&](PIO_STACK_LOCATION stack) {
           stack->MajorFunction = IRP_MJ_PNP;
           stack->MinorFunction = minor;
         })
      .Status.Status;
}

NTSTATUS CbtDriverTest::SendSetSystemPower(PDEVICE_OBJECT top, SYSTEM_POWER_STATE state,
                                           SYSTEM_POWER_STATE effective) {
  SYSTEM_POWER_STATE_CONTEXT context = {};
  context.TargetSystemState = static_cast<ULONG>(state);
  context.EffectiveSystemState = static_cast<ULONG>(effective == PowerSystemUnspecified ? state : effective);
  context.CurrentSystemState = PowerSystemWorking;
  return Send(top, [&](PIO_STACK_LOCATION stack) {
           stack->MajorFunction = IRP_MJ_POWER;
           stack->MinorFunction = IRP_MN_SET_POWER;
           stack->Parameters.Power.Type = SystemPowerState;
           stack->Parameters.Power.State.SystemState = state;
           stack->Parameters.Power.SystemPowerStateContext = context;
         })
      .Status.Status;
}

Transferred CbtDriverTest::SendMajor(PDEVICE_OBJECT top, UCHAR major) {
  return Send(top, [&](PIO_STACK_LOCATION stack) { stack->MajorFunction = major; });
}

Transferred CbtDriverTest::DeviceControl(PDEVICE_OBJECT top, ULONG code, void* buffer, ULONG inLength,
                                         ULONG outLength) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  Transferred result;
  PIRP irp =
      IoBuildDeviceIoControlRequest(code, top, buffer, inLength, buffer, outLength, FALSE, &done, &result.Status);
  EXPECT_NE(irp, nullptr);
  if (irp == nullptr) return result;
  result.Returned = IoCallDriver(top, irp);
  if (result.Returned == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  return result;
}

Transferred CbtDriverTest::Transfer(PDEVICE_OBJECT top, UCHAR major, void* buffer, ULONG length, LONGLONG offset) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  Transferred result;
  LARGE_INTEGER at;
  at.QuadPart = offset;
  PIRP irp = IoBuildSynchronousFsdRequest(major, top, buffer, length, &at, &done, &result.Status);
  EXPECT_NE(irp, nullptr);
  if (irp == nullptr) return result;
  result.Returned = IoCallDriver(top, irp);
  if (result.Returned == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  return result;
}

std::vector<CBT_LOG_RECORD_BODY> CbtDriverTest::Records() {
  std::vector<CBT_LOG_RECORD_BODY> records(CBT_LOG_QUEUE_LIMIT);
  records.resize(CbtCopyQueuedLogRecords(records.data(), CBT_LOG_QUEUE_LIMIT));
  return records;
}

std::vector<std::string> CbtDriverTest::RecordTexts() {
  std::vector<std::string> texts;
  for (const CBT_LOG_RECORD_BODY& record : Records()) texts.emplace_back(record.Text);
  return texts;
}

void CbtDriverTest::DropRecords() { CbtDrainQueuedLogRecords(nullptr, CBT_LOG_QUEUE_LIMIT); }

}  // namespace kvtest
