// Driver objects: loading a driver (its DriverEntry), unloading it, and the driver-object
// extensions drivers allocate by key.
#include <cstddef>
#include <cstring>
#include <memory>

#include "io_internal.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
std::vector<std::string> TakeReinitializationsOf(PDRIVER_OBJECT driver);  // io_registrations.cpp
std::vector<std::string> TakeNotificationsOf(PDRIVER_OBJECT driver);      // io_pnp_notify.cpp

namespace {

constexpr size_t kMaxNameChars = 120;

// One driver-object extension, with the caller's bytes after it.
struct ClientExtension {
  ClientExtension* Next;
  PVOID Key;
  alignas(16) UCHAR Data[1];
};

// The body of a driver object: the DRIVER_OBJECT, its DRIVER_EXTENSION right after it as in
// Windows, then the I/O manager's own part.
struct DriverBody {
  DRIVER_OBJECT Object;
  DRIVER_EXTENSION Extension;
  ClientExtension* Clients;
  WCHAR DriverNameBuffer[kMaxNameChars + 16];
  WCHAR ServiceKeyBuffer[kMaxNameChars];
};

std::mutex& ClientLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

DriverBody* BodyOf(PDRIVER_OBJECT driver) { return reinterpret_cast<DriverBody*>(driver); }

void DeleteDriverObject(PVOID body) {
  auto* driver = static_cast<DriverBody*>(body);
  for (ClientExtension* c = driver->Clients; c != nullptr;) {
    ClientExtension* next = c->Next;
    FreeIoPool(c, kDriverExtensionTag, "driver object deletion");
    c = next;
  }
  driver->Clients = nullptr;
}

const bool kTypeRegistered = [] {
  (*IoDriverObjectType)->DeleteProcedure = DeleteDriverObject;
  return true;
}();

void SetCountedString(UNICODE_STRING* s, WCHAR* buffer, std::u16string_view text) {
  std::memcpy(buffer, text.data(), text.size() * sizeof(WCHAR));
  buffer[text.size()] = 0;
  s->Buffer = buffer;
  s->Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  s->MaximumLength = static_cast<USHORT>(s->Length + sizeof(WCHAR));
}

WCHAR g_hardwareDatabaseText[] = L"\\REGISTRY\\MACHINE\\HARDWARE\\DESCRIPTION\\SYSTEM";
UNICODE_STRING g_hardwareDatabase = {sizeof(g_hardwareDatabaseText) - sizeof(WCHAR), sizeof(g_hardwareDatabaseText),
                                     g_hardwareDatabaseText};

// What a driver left behind; each item found is released (devices deleted, registrations
// dropped) so that nothing calls into the driver and the test can go on.
std::vector<std::string> TakeLeftovers(PDRIVER_OBJECT driver) {
  std::vector<std::string> found;
  while (driver->DeviceObject != nullptr) {
    found.push_back(DescribeDevice(driver->DeviceObject));
    IoDeleteDevice(driver->DeviceObject);
  }
  for (std::string& s : TakeNotificationsOf(driver)) found.push_back(std::move(s));
  for (std::string& s : TakeReinitializationsOf(driver)) found.push_back(std::move(s));
  return found;
}

std::string JoinLines(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += (out.empty() ? "" : "; ") + line;
  return out;
}

}  // namespace

NTSTATUS InvalidDeviceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  UNREFERENCED_PARAMETER(DeviceObject);
  Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
  Irp->IoStatus.Information = 0;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return STATUS_INVALID_DEVICE_REQUEST;
}

}  // namespace kvhost::io

using namespace kvhost::io;

namespace kvhost {

LoadedDriver IoLoadDriver(std::u16string_view serviceName, PDRIVER_INITIALIZE entry,
                          std::u16string_view registryPath) {
  LoadedDriver result;
  if (serviceName.empty() || serviceName.size() > kMaxNameChars || entry == nullptr) {
    result.EntryStatus = STATUS_INVALID_PARAMETER;
    return result;
  }
  WString name = u"\\Driver\\" + WString(serviceName);
  auto* body = static_cast<DriverBody*>(ObCreateObject(*IoDriverObjectType, sizeof(DriverBody), name));
  if (body == nullptr) {
    result.EntryStatus = STATUS_OBJECT_NAME_COLLISION;
    return result;
  }
  PDRIVER_OBJECT driver = &body->Object;
  driver->Type = IO_TYPE_DRIVER;
  driver->Size = sizeof(DRIVER_OBJECT);
  driver->DriverExtension = &body->Extension;
  driver->DriverExtension->DriverObject = driver;
  driver->DriverInit = entry;
  driver->DriverStart = reinterpret_cast<PVOID>(entry);
  driver->HardwareDatabase = &g_hardwareDatabase;
  SetCountedString(&driver->DriverName, body->DriverNameBuffer, name);
  SetCountedString(&driver->DriverExtension->ServiceKeyName, body->ServiceKeyBuffer, serviceName);
  for (PDRIVER_DISPATCH& slot : driver->MajorFunction) slot = InvalidDeviceRequest;

  // The registry path is the I/O manager's buffer, valid only while DriverEntry runs (a
  // driver keeps a copy); it is released right after, where a stale use would show.
  std::unique_ptr<char16_t[]> pathBuffer(new char16_t[registryPath.size() + 1]);
  if (!registryPath.empty()) std::memcpy(pathBuffer.get(), registryPath.data(), registryPath.size() * sizeof(char16_t));
  pathBuffer[registryPath.size()] = 0;
  UNICODE_STRING path;
  path.Buffer = reinterpret_cast<PWCH>(pathBuffer.get());
  path.Length = static_cast<USHORT>(registryPath.size() * sizeof(WCHAR));
  path.MaximumLength = static_cast<USHORT>(path.Length + sizeof(WCHAR));

  const NTSTATUS status = entry(driver, &path);
  pathBuffer.reset();
  result.EntryStatus = status;
  if (KeGetCurrentIrql() != PASSIVE_LEVEL)
    ReportViolationF("DriverEntryChangedIrql", "DriverEntry of %s returned at IRQL %d",
                     DescribeDriver(driver).c_str(), KeGetCurrentIrql());
  if (!NT_SUCCESS(status)) {
    // Windows unloads a driver whose entry failed without calling its unload routine:
    // anything still registered would call into a driver that is gone.
    std::vector<std::string> left = TakeLeftovers(driver);
    if (!left.empty())
      ReportViolationF("DriverEntryFailedLeftovers", "DriverEntry of %s failed with 0x%08X but left: %s",
                       DescribeDriver(driver).c_str(), static_cast<unsigned>(status), JoinLines(left).c_str());
    ObDereferenceObject(driver);
    return result;
  }
  {
    std::lock_guard<std::mutex> guard(DeviceDatabaseLock());
    for (PDEVICE_OBJECT d = driver->DeviceObject; d != nullptr; d = d->NextDevice) d->Flags &= ~DO_DEVICE_INITIALIZING;
  }
  result.DriverObject = driver;
  return result;
}

void IoUnloadDriver(PDRIVER_OBJECT driver) {
  if (driver == nullptr || !ObIsObject(driver) || ObGetObjectType(driver) != *IoDriverObjectType) {
    ReportViolationF("IoUnloadDriverNotADriver", "IoUnloadDriver of %p, which is not a loaded driver",
                     static_cast<void*>(driver));
    return;
  }
  driver->Flags |= DRVO_UNLOAD_INVOKED;
  if (driver->DriverUnload != nullptr) driver->DriverUnload(driver);
  std::vector<std::string> left = TakeLeftovers(driver);
  if (!left.empty())
    ReportViolationF("DriverUnloadLeftovers", "%s unloaded but left: %s", DescribeDriver(driver).c_str(),
                     JoinLines(left).c_str());
  ObDereferenceObject(driver);
}

}  // namespace kvhost

extern "C" {

NTSTATUS IoAllocateDriverObjectExtension(PDRIVER_OBJECT DriverObject, PVOID ClientIdentificationAddress,
                                         ULONG DriverObjectExtensionSize, PVOID* DriverObjectExtension) {
  if (DriverObjectExtension == nullptr) return STATUS_INVALID_PARAMETER;
  *DriverObjectExtension = nullptr;
  const size_t bytes = offsetof(ClientExtension, Data) + DriverObjectExtensionSize;
  auto* client = static_cast<ClientExtension*>(
      AllocateIoPool(bytes, kDriverExtensionTag, __builtin_return_address(0), "IoAllocateDriverObjectExtension"));
  if (client == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  client->Key = ClientIdentificationAddress;
  DriverBody* body = BodyOf(DriverObject);
  {
    std::lock_guard<std::mutex> guard(ClientLock());
    for (ClientExtension* c = body->Clients; c != nullptr; c = c->Next) {
      if (c->Key == ClientIdentificationAddress) {
        FreeIoPool(client, kDriverExtensionTag, "IoAllocateDriverObjectExtension");
        return STATUS_OBJECT_NAME_COLLISION;
      }
    }
    client->Next = body->Clients;
    body->Clients = client;
  }
  *DriverObjectExtension = client->Data;
  return STATUS_SUCCESS;
}

PVOID IoGetDriverObjectExtension(PDRIVER_OBJECT DriverObject, PVOID ClientIdentificationAddress) {
  std::lock_guard<std::mutex> guard(ClientLock());
  for (ClientExtension* c = BodyOf(DriverObject)->Clients; c != nullptr; c = c->Next)
    if (c->Key == ClientIdentificationAddress) return c->Data;
  return nullptr;
}

}  // extern "C"
