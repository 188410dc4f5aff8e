// The tracking driver is linked in when the build has it (KVSIM_WITH_KVCBT, see
// tools/CMakeLists.txt); the testbed's own test filter is always there.
#include "linked_drivers.h"

#include "kvtestbed/driver_images.h"

#ifdef KVSIM_WITH_KVCBT
#include "driver/cbt_device_extension.h"
#include "log/cbt_log_inspection.h"
#include "log_records.h"

EXTERN_C DRIVER_INITIALIZE DriverEntry;
#endif

namespace kvsim {

void RegisterLinkedDrivers() {
#ifdef KVSIM_WITH_KVCBT
  kvtestbed::RegisterDriverImage(u"kvcbt", DriverEntry);
#endif
}

std::vector<std::string> TakeDriverRecords(const kvtestbed::Machine& machine) {
  std::vector<std::string> lines;
#ifdef KVSIM_WITH_KVCBT
  if (machine.LoadedDriver(u"kvcbt") == nullptr) return lines;
  std::vector<CBT_LOG_RECORD_BODY> bodies(CBT_LOG_QUEUE_LIMIT);
  bodies.resize(CbtDrainQueuedLogRecords(bodies.data(), CBT_LOG_QUEUE_LIMIT));
  for (const CBT_LOG_RECORD_BODY& body : bodies) lines.push_back(kvtools::DescribeLogRecord(body));
#else
  (void)machine;
#endif
  return lines;
}

namespace {

// The tracking driver's filter device in the stack whose bottom is `volume`, or null.
PDEVICE_OBJECT DriverFilterOf(PDEVICE_OBJECT volume) {
#ifdef KVSIM_WITH_KVCBT
  static const UNICODE_STRING kDriverName = RTL_CONSTANT_STRING(L"\\Driver\\kvcbt");
  for (PDEVICE_OBJECT device = volume; device != nullptr; device = device->AttachedDevice)
    if (RtlCompareUnicodeString(&device->DriverObject->DriverName, &kDriverName, TRUE) == 0) return device;
#else
  (void)volume;
#endif
  return nullptr;
}

}  // namespace

bool DriverFiltersVolume(PDEVICE_OBJECT volume) { return DriverFilterOf(volume) != nullptr; }

std::optional<kvtools::BitmapGeometry> DriverBitmapGeometry(PDEVICE_OBJECT volume) {
#ifdef KVSIM_WITH_KVCBT
  PDEVICE_OBJECT filter = DriverFilterOf(volume);
  if (filter == nullptr) return std::nullopt;
  const CBT_DEVICE_EXTENSION* extension = CbtExtensionOf(filter);
  if (extension->TrackingBitmap.Buffer == nullptr || extension->BytesPerBit == 0) return std::nullopt;
  return kvtools::BitmapGeometry{extension->BitCount, extension->BytesPerBit};
#else
  (void)volume;
  return std::nullopt;
#endif
}

}  // namespace kvsim
