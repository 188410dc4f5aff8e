// Registry properties of physical device objects (IoGetDeviceProperty), as the machine's
// Plug and Play manager records them.
#include <cstdio>
#include <cstring>
#include <map>
#include <unordered_map>
#include <vector>

#include "io_internal.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
namespace {

using PropertyBytes = std::vector<unsigned char>;

struct PropertyStore {
  std::mutex Lock;
  std::unordered_map<PDEVICE_OBJECT, std::map<int, PropertyBytes>> Devices;
};

PropertyStore& Store() {
  static PropertyStore* store = new PropertyStore;
  return *store;
}

PropertyBytes StringBytes(std::u16string_view text) {
  PropertyBytes bytes((text.size() + 1) * sizeof(char16_t), 0);
  std::memcpy(bytes.data(), text.data(), text.size() * sizeof(char16_t));
  return bytes;
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "I/O manager: device properties",
      .Order = 50,
      .Reset =
          [] {
            std::lock_guard<std::mutex> guard(Store().Lock);
            Store().Devices.clear();
          },
      .Quiesce = nullptr,
      .Check = nullptr,
  });
  return true;
}();

}  // namespace

void ForgetDeviceProperties(PDEVICE_OBJECT device) {
  std::lock_guard<std::mutex> guard(Store().Lock);
  Store().Devices.erase(device);
}

}  // namespace kvhost::io

using namespace kvhost::io;

namespace kvhost {

void IoSetPhysicalDeviceObject(PDEVICE_OBJECT device) {
  device->DeviceObjectExtension->Physical = TRUE;
  device->Flags |= DO_BUS_ENUMERATED_DEVICE;
  std::lock_guard<std::mutex> guard(Store().Lock);
  Store().Devices[device];
}

void IoSetDeviceProperty(PDEVICE_OBJECT device, DEVICE_REGISTRY_PROPERTY property, const void* data, size_t bytes) {
  IoSetPhysicalDeviceObject(device);
  const auto* first = static_cast<const unsigned char*>(data);
  std::lock_guard<std::mutex> guard(Store().Lock);
  Store().Devices[device][property] = PropertyBytes(first, first + bytes);
}

void IoSetDevicePropertyString(PDEVICE_OBJECT device, DEVICE_REGISTRY_PROPERTY property, std::u16string_view text) {
  PropertyBytes bytes = StringBytes(text);
  IoSetDeviceProperty(device, property, bytes.data(), bytes.size());
}

void IoSetDeviceClassGuid(PDEVICE_OBJECT device, const GUID& g) {
  char text[40];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2, g.Data3,
                g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  IoSetDevicePropertyString(device, DevicePropertyClassGuid, ToWString(std::string_view(text)));
}

}  // namespace kvhost

extern "C" NTSTATUS IoGetDeviceProperty(PDEVICE_OBJECT DeviceObject, DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                        ULONG BufferLength, PVOID PropertyBuffer, PULONG ResultLength) {
  if (ResultLength == nullptr) return STATUS_INVALID_PARAMETER;
  *ResultLength = 0;
  if (KeGetCurrentIrql() != PASSIVE_LEVEL)
    kvhost::ReportViolationF("IoGetDevicePropertyIrql", "IoGetDeviceProperty at IRQL %d", KeGetCurrentIrql());
  if (DeviceObject == nullptr || !DeviceObject->DeviceObjectExtension->Physical) {
    // Only the Plug and Play manager's devices have properties; Driver Verifier flags a
    // driver asking a device of its own.
    kvhost::ReportViolation("DevicePropertyOfNonPdo", "IoGetDeviceProperty of " + DescribeDevice(DeviceObject) +
                                                          ", which is not a physical device object");
    return STATUS_INVALID_DEVICE_REQUEST;
  }
  if (DeviceProperty < DevicePropertyDeviceDescription || DeviceProperty > DevicePropertyContainerID)
    return STATUS_INVALID_PARAMETER_2;
  PropertyBytes value;
  if (DeviceProperty == DevicePropertyPhysicalDeviceObjectName) {
    value = StringBytes(kvhost::ObGetObjectName(DeviceObject));
  } else {
    std::lock_guard<std::mutex> guard(Store().Lock);
    auto& properties = Store().Devices[DeviceObject];
    auto it = properties.find(DeviceProperty);
    if (it == properties.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    value = it->second;
  }
  *ResultLength = static_cast<ULONG>(value.size());
  if (BufferLength < value.size() || (PropertyBuffer == nullptr && !value.empty())) return STATUS_BUFFER_TOO_SMALL;
  if (!value.empty()) std::memcpy(PropertyBuffer, value.data(), value.size());
  return STATUS_SUCCESS;
}
