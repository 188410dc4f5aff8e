// The fixture of the driver's tests: the driver loaded into the user-mode kernel as the
// machine loads it (service key, DriverEntry, boot reinitialization), and volume stacks
// built by hand below it: a test volume (test_volume.h) as the physical device object,
// the driver's add-device routine, IRP_MN_START_DEVICE. Requests go to the top of a
// volume's stack the way Windows and a backup application send them.
//
// Each test starts with the DebugLog setting on (records queue in memory and are read with
// Records()); a test changes the service key's values before LoadDriver(). TearDown removes
// every volume still filtered through Plug and Play and unloads the driver, so that the
// end-of-test checks find nothing left behind.
#pragma once

#include <gtest/gtest.h>
#include <wdm.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "driver/cbt_device_extension.h"
#include "test_volume.h"

namespace kvtest {

inline constexpr std::u16string_view kServiceKey = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt";
inline constexpr std::u16string_view kClassKeyPrefix = u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class\\";

// "{71A27CDD-812A-11D0-BEC7-08002BE2092F}"
std::u16string GuidText(const GUID& guid);

// One volume stack: the test volume and, when the driver attached, its filter device.
struct Volume {
  TestVolume* Lower = nullptr;
  PDEVICE_OBJECT Pdo = nullptr;
  PDEVICE_OBJECT Filter = nullptr;  // nullptr when the driver declined the volume
  bool Removed = false;

  PDEVICE_OBJECT Top() const { return Filter != nullptr ? Filter : Pdo; }
  // The filter's extension; only for a filtered volume.
  PCBT_DEVICE_EXTENSION Extension() const { return CbtExtensionOf(Filter); }
};

struct Transferred {
  NTSTATUS Returned = 0;  // what IoCallDriver returned
  IO_STATUS_BLOCK Status = {};
};

class CbtDriverTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Loads the driver with the service key as it stands; the DriverEntry status.
  NTSTATUS LoadDriver();
  void UnloadDriver();
  PDRIVER_OBJECT Driver() const { return driver_; }

  // A physical device object described by `spec`, offered to the driver's add-device
  // routine and started through the top of its stack.
  Volume& AddVolume(const VolumeSpec& spec);
  // IRP_MN_REMOVE_DEVICE through the top of the stack, then the physical device goes.
  NTSTATUS RemoveVolume(Volume& volume);

  // A request built by the caller's setup of the first stack location, sent to `top` and
  // waited for. The request's status starts as STATUS_NOT_SUPPORTED, as Plug and Play's do.
  static Transferred Send(PDEVICE_OBJECT top, const std::function<void(PIO_STACK_LOCATION)>& setup);
  static NTSTATUS SendPnp(PDEVICE_OBJECT top, UCHAR minor);
  // IRP_MN_SET_POWER of a system state: the request names `state` (its system state and the
  // context's target state) while the system in effect enters `effective` (the context's
  // effective state, bits 12-15), `state` itself unless given.
  static NTSTATUS SendSetSystemPower(PDEVICE_OBJECT top, SYSTEM_POWER_STATE state,
                                     SYSTEM_POWER_STATE effective = PowerSystemUnspecified);
  static Transferred SendMajor(PDEVICE_OBJECT top, UCHAR major);
  static Transferred DeviceControl(PDEVICE_OBJECT top, ULONG code, void* buffer = nullptr, ULONG inLength = 0,
                                   ULONG outLength = 0);
  // A read or write as the I/O manager builds it (IoBuildSynchronousFsdRequest).
  static Transferred Transfer(PDEVICE_OBJECT top, UCHAR major, void* buffer, ULONG length, LONGLONG offset);

  // The records queued so far (left queued), oldest first, and their texts.
  static std::vector<CBT_LOG_RECORD_BODY> Records();
  static std::vector<std::string> RecordTexts();
  // Takes the queued records off the queue.
  static void DropRecords();

  PDRIVER_OBJECT volumeDriver_ = nullptr;
  PDRIVER_OBJECT driver_ = nullptr;
  std::vector<std::unique_ptr<Volume>> volumes_;
};

}  // namespace kvtest
