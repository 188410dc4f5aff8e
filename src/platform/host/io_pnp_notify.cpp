// Plug and Play notification registrations (device-interface changes, target-device
// changes) and the machine's side: enabling interfaces and raising target-device events.
//
// A registration is a non-paged record (so that allocation-failure injection reaches it)
// that references its driver and, for a target-device registration, the device its file
// object was opened on. The NotificationEntry handed to the driver is the record. A
// callback may unregister its own registration (or any other) while it runs: the record is
// released when the last delivery in progress has returned.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "io_internal.h"
#include <wdmguid.h>
#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
namespace {

constexpr USHORT kNotificationVersion = 1;

struct Registration {
  IO_NOTIFICATION_EVENT_CATEGORY Category;
  ULONG Flags;
  GUID InterfaceClass;           // device-interface registrations
  PDEVICE_OBJECT TargetDevice;   // target-device registrations, referenced
  PFILE_OBJECT FileObject;       // as given; passed back in each notification
  PDRIVER_OBJECT Driver;         // referenced
  PDRIVER_NOTIFICATION_CALLBACK_ROUTINE Callback;
  PVOID Context;
  bool Unregistered;
  int Deliveries;  // in progress
};

struct Notifications {
  std::mutex Lock;
  std::vector<Registration*> Live;  // in registration order
  std::set<std::pair<std::string, WString>> EnabledInterfaces;  // (class GUID bytes, link)
};

Notifications& State() {
  static Notifications* state = new Notifications;
  return *state;
}

std::string GuidKey(const GUID& g) { return std::string(reinterpret_cast<const char*>(&g), sizeof g); }

const char* CategoryName(IO_NOTIFICATION_EVENT_CATEGORY category) {
  switch (category) {
    case EventCategoryDeviceInterfaceChange:
      return "device-interface change";
    case EventCategoryTargetDeviceChange:
      return "target-device change";
    case EventCategoryHardwareProfileChange:
      return "hardware-profile change";
    default:
      return "unknown category";
  }
}

std::string Describe(const Registration* r) {
  char text[96];
  std::snprintf(text, sizeof text, "Plug and Play notification %p (%s, callback %p) of ", static_cast<const void*>(r),
                CategoryName(r->Category), reinterpret_cast<void*>(r->Callback));
  std::string out = text + DescribeDriver(r->Driver);
  if (r->TargetDevice != nullptr) out += " on " + DescribeDevice(r->TargetDevice);
  return out;
}

void Release(Registration* r) {
  if (r->TargetDevice != nullptr) ObDereferenceObject(r->TargetDevice);
  ObDereferenceObject(r->Driver);
  FreeIoPool(r, kNotificationTag, "IoUnregisterPlugPlayNotification");
}

// Takes `r` out of the live table (caller holds the lock); true when the caller must
// release it now (no delivery in progress).
bool Unlink(Notifications& state, Registration* r) {
  state.Live.erase(std::find(state.Live.begin(), state.Live.end(), r));
  r->Unregistered = true;
  return r->Deliveries == 0;
}

// Registrations chosen by `match`, each marked as being delivered to.
template <typename Match>
std::vector<Registration*> BeginDelivery(Match match) {
  Notifications& state = State();
  std::lock_guard<std::mutex> guard(state.Lock);
  std::vector<Registration*> chosen;
  for (Registration* r : state.Live) {
    if (!match(r)) continue;
    ++r->Deliveries;
    chosen.push_back(r);
  }
  return chosen;
}

// Delivers to `r` unless it was unregistered meanwhile, then ends its delivery.
NTSTATUS Deliver(Registration* r, PVOID notification) {
  Notifications& state = State();
  bool skip;
  {
    std::lock_guard<std::mutex> guard(state.Lock);
    skip = r->Unregistered;
  }
  NTSTATUS status = skip ? STATUS_SUCCESS : r->Callback(notification, r->Context);
  bool release;
  {
    std::lock_guard<std::mutex> guard(state.Lock);
    release = --r->Deliveries == 0 && r->Unregistered;
  }
  if (release) Release(r);
  return status;
}

NTSTATUS DeliverInterfaceChange(Registration* r, const GUID& event, const GUID& interfaceClass, std::u16string_view link) {
  WString text(link);
  UNICODE_STRING name;
  name.Buffer = reinterpret_cast<PWCH>(text.data());
  name.Length = static_cast<USHORT>(text.size() * sizeof(WCHAR));
  name.MaximumLength = name.Length;
  DEVICE_INTERFACE_CHANGE_NOTIFICATION n{};
  n.Version = kNotificationVersion;
  n.Size = sizeof n;
  n.Event = event;
  n.InterfaceClassGuid = interfaceClass;
  n.SymbolicLinkName = &name;
  return Deliver(r, &n);
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "I/O manager: Plug and Play notifications",
      .Order = 50,
      // Records of a previous test are forgotten; the pool's accounting has reported them.
      .Reset =
          [] {
            std::lock_guard<std::mutex> guard(State().Lock);
            State().Live.clear();
            State().EnabledInterfaces.clear();
          },
      .Quiesce = nullptr,
      .Check =
          [](std::vector<std::string>& problems) {
            std::lock_guard<std::mutex> guard(State().Lock);
            for (const Registration* r : State().Live)
              problems.push_back("[PnpNotificationLeftBehind] " + Describe(r) + " was never unregistered");
          },
  });
  return true;
}();

}  // namespace

std::vector<std::string> TakeNotificationsOf(PDRIVER_OBJECT driver) {
  std::vector<std::string> described;
  std::vector<Registration*> release;
  {
    Notifications& state = State();
    std::lock_guard<std::mutex> guard(state.Lock);
    std::vector<Registration*> mine;
    for (Registration* r : state.Live)
      if (r->Driver == driver) mine.push_back(r);
    for (Registration* r : mine) {
      described.push_back(Describe(r));
      if (Unlink(state, r)) release.push_back(r);
    }
  }
  for (Registration* r : release) Release(r);
  return described;
}

}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

NTSTATUS IoRegisterPlugPlayNotification(IO_NOTIFICATION_EVENT_CATEGORY EventCategory, ULONG EventCategoryFlags,
                                        PVOID EventCategoryData, PDRIVER_OBJECT DriverObject,
                                        PDRIVER_NOTIFICATION_CALLBACK_ROUTINE CallbackRoutine, PVOID Context,
                                        PVOID* NotificationEntry) {
  if (NotificationEntry == nullptr) return STATUS_INVALID_PARAMETER;
  *NotificationEntry = nullptr;
  if (KeGetCurrentIrql() != PASSIVE_LEVEL)
    kvhost::ReportViolationF("IoRegisterPlugPlayNotificationIrql", "IoRegisterPlugPlayNotification at IRQL %d",
                             KeGetCurrentIrql());
  if (DriverObject == nullptr || CallbackRoutine == nullptr) return STATUS_INVALID_PARAMETER;
  PDEVICE_OBJECT target = nullptr;
  GUID interfaceClass{};
  switch (EventCategory) {
    case EventCategoryDeviceInterfaceChange:
      if (EventCategoryData == nullptr) return STATUS_INVALID_PARAMETER;
      interfaceClass = *static_cast<const GUID*>(EventCategoryData);
      break;
    case EventCategoryTargetDeviceChange: {
      auto* file = static_cast<PFILE_OBJECT>(EventCategoryData);
      if (file == nullptr || file->Type != IO_TYPE_FILE || file->DeviceObject == nullptr) return STATUS_INVALID_PARAMETER;
      target = file->DeviceObject;
      break;
    }
    case EventCategoryHardwareProfileChange:
      break;
    default:
      return STATUS_INVALID_PARAMETER;
  }
  auto* r = static_cast<Registration*>(AllocateIoPool(sizeof(Registration), kNotificationTag,
                                                      __builtin_return_address(0), "IoRegisterPlugPlayNotification"));
  if (r == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  *r = Registration{EventCategory, EventCategoryFlags, interfaceClass, target,
                    static_cast<PFILE_OBJECT>(target != nullptr ? EventCategoryData : nullptr),
                    DriverObject, CallbackRoutine, Context, false, 0};
  if (target != nullptr) ObReferenceObject(target);
  ObReferenceObject(DriverObject);

  std::vector<kvhost::WString> existing;
  {
    Notifications& state = State();
    std::lock_guard<std::mutex> guard(state.Lock);
    state.Live.push_back(r);
    if (EventCategory == EventCategoryDeviceInterfaceChange &&
        (EventCategoryFlags & PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES)) {
      const std::string key = GuidKey(interfaceClass);
      for (const auto& [guid, link] : state.EnabledInterfaces)
        if (guid == key) existing.push_back(link);
      r->Deliveries += static_cast<int>(existing.size());
    }
  }
  *NotificationEntry = r;
  // The interfaces already there are reported before the registration call returns, as in
  // Windows: the callback may run while the registering routine is still going.
  for (const kvhost::WString& link : existing)
    DeliverInterfaceChange(r, GUID_DEVICE_INTERFACE_ARRIVAL, interfaceClass, link);
  return STATUS_SUCCESS;
}

NTSTATUS IoUnregisterPlugPlayNotification(PVOID NotificationEntry) {
  auto* r = static_cast<Registration*>(NotificationEntry);
  bool release;
  {
    Notifications& state = State();
    std::lock_guard<std::mutex> guard(state.Lock);
    if (std::find(state.Live.begin(), state.Live.end(), r) == state.Live.end()) {
      kvhost::ReportViolationF("PnpNotificationNotRegistered",
                               "IoUnregisterPlugPlayNotification of %p, which is not a registered notification "
                               "(unregistered twice, or never registered)",
                               NotificationEntry);
      return STATUS_INVALID_PARAMETER;
    }
    release = Unlink(state, r);
  }
  if (release) Release(r);
  return STATUS_SUCCESS;
}

NTSTATUS IoUnregisterPlugPlayNotificationEx(PVOID NotificationEntry) {
  return IoUnregisterPlugPlayNotification(NotificationEntry);
}

}  // extern "C"

namespace kvhost {

void IoSetDeviceInterfaceState(const GUID& interfaceClass, std::u16string_view symbolicLinkName, bool enabled) {
  {
    Notifications& state = State();
    std::lock_guard<std::mutex> guard(state.Lock);
    auto key = std::make_pair(GuidKey(interfaceClass), WString(symbolicLinkName));
    if (enabled ? !state.EnabledInterfaces.insert(key).second : state.EnabledInterfaces.erase(key) == 0)
      return;  // no change, no event
  }
  const GUID& event = enabled ? GUID_DEVICE_INTERFACE_ARRIVAL : GUID_DEVICE_INTERFACE_REMOVAL;
  for (Registration* r : BeginDelivery([&](const Registration* r) {
         return r->Category == EventCategoryDeviceInterfaceChange && r->InterfaceClass == interfaceClass;
       }))
    DeliverInterfaceChange(r, event, interfaceClass, symbolicLinkName);
}

NTSTATUS IoRaiseTargetDeviceEvent(PDEVICE_OBJECT device, const GUID& event, const void* customData, size_t customBytes,
                                  LONG nameBufferOffset) {
  const bool removal = event == GUID_TARGET_DEVICE_QUERY_REMOVE || event == GUID_TARGET_DEVICE_REMOVE_CANCELLED ||
                       event == GUID_TARGET_DEVICE_REMOVE_COMPLETE;
  const size_t customSize = FIELD_OFFSET(TARGET_DEVICE_CUSTOM_NOTIFICATION, CustomDataBuffer) + customBytes;
  std::vector<unsigned char> buffer(std::max(customSize, sizeof(TARGET_DEVICE_CUSTOM_NOTIFICATION)), 0);
  NTSTATUS first = STATUS_SUCCESS;
  for (Registration* r : BeginDelivery([&](const Registration* r) {
         return r->Category == EventCategoryTargetDeviceChange && r->TargetDevice == device;
       })) {
    NTSTATUS status;
    if (removal) {
      TARGET_DEVICE_REMOVAL_NOTIFICATION n{};
      n.Version = kNotificationVersion;
      n.Size = sizeof n;
      n.Event = event;
      n.FileObject = r->FileObject;
      status = Deliver(r, &n);
    } else {
      auto* n = reinterpret_cast<PTARGET_DEVICE_CUSTOM_NOTIFICATION>(buffer.data());
      std::memset(buffer.data(), 0, buffer.size());
      n->Version = kNotificationVersion;
      n->Size = static_cast<USHORT>(customSize);
      n->Event = event;
      n->FileObject = r->FileObject;
      n->NameBufferOffset = nameBufferOffset;
      if (customBytes != 0) std::memcpy(n->CustomDataBuffer, customData, customBytes);
      status = Deliver(r, n);
    }
    if (!NT_SUCCESS(status) && NT_SUCCESS(first)) first = status;
  }
  return first;
}

size_t IoCountPlugPlayNotifications() {
  std::lock_guard<std::mutex> guard(State().Lock);
  return State().Live.size();
}

}  // namespace kvhost
