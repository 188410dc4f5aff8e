// The host I/O manager, as the simulated machine and the tests drive it.
//
// The machine plays the parts of Windows around a driver: it loads the driver (calling its
// DriverEntry), declares physical device objects and their registry properties, runs
// boot-driver reinitialization, raises device-interface and target-device events to the
// registered callbacks, and sends shutdown requests to the devices registered for them.
// Tests also look at requests (how an IRP was completed, how many are alive) and bend the
// environment (a thread short of stack, a request from a 32-bit process, system address
// mappings that fail).
//
// At the end of every test the I/O manager reports what was left behind: IRPs never
// completed, IRPs kept by a completion routine (STATUS_MORE_PROCESSING_REQUIRED) and never
// freed, MDLs never freed, Plug and Play notifications never unregistered.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kvhost {

// ---------------------------------------------------------------------------------------
// Drivers.

struct LoadedDriver {
  PDRIVER_OBJECT DriverObject = nullptr;  // null when DriverEntry failed (the object is gone)
  NTSTATUS EntryStatus = STATUS_UNSUCCESSFUL;
};

// Creates the driver object "\Driver\<serviceName>" (dispatch table filled with a routine
// that fails every request with STATUS_INVALID_DEVICE_REQUEST) and calls
// entry(driverObject, registryPath) at PASSIVE_LEVEL. The registry path buffer is valid
// only during the call, as in Windows. When DriverEntry fails the driver object is deleted
// (a device it left behind is a violation); when it succeeds, DO_DEVICE_INITIALIZING is
// cleared on the devices it created.
LoadedDriver IoLoadDriver(std::u16string_view serviceName, PDRIVER_INITIALIZE entry,
                          std::u16string_view registryPath = {});

// Calls the driver's unload routine, then releases the driver object. Devices, Plug and
// Play notifications or reinitialization callbacks the driver left registered are
// violations ("DriverUnloadLeftovers"); they are released so the test can go on.
void IoUnloadDriver(PDRIVER_OBJECT driver);

// Runs the callbacks registered with IoRegisterBootDriverReinitialization (or, for the
// second routine, IoRegisterDriverReinitialization), each once, in registration order,
// with its count of calls so far. A callback may register itself again; it then runs in
// the next pass. Returns the number of callbacks run.
size_t IoRunBootDriverReinitialization();
size_t IoRunDriverReinitialization();

// ---------------------------------------------------------------------------------------
// Physical device objects and their properties (IoGetDeviceProperty).

// Declares `device` a physical device object, as the Plug and Play manager does for a device
// a bus reported (DO_BUS_ENUMERATED_DEVICE is set). Only such a device has properties.
void IoSetPhysicalDeviceObject(PDEVICE_OBJECT device);
// Sets a property of a physical device object to raw bytes (declaring it physical).
void IoSetDeviceProperty(PDEVICE_OBJECT device, DEVICE_REGISTRY_PROPERTY property, const void* data, size_t bytes);
// A string property, stored NUL-terminated as Windows returns it.
void IoSetDevicePropertyString(PDEVICE_OBJECT device, DEVICE_REGISTRY_PROPERTY property, std::u16string_view text);
// DevicePropertyClassGuid: the class GUID as "{71A27CDD-812A-11D0-BEC7-08002BE2092F}".
void IoSetDeviceClassGuid(PDEVICE_OBJECT device, const GUID& classGuid);

// ---------------------------------------------------------------------------------------
// Plug and Play events. Callbacks run in the calling thread, which the machine makes its
// Plug and Play worker; the machine must call these at PASSIVE_LEVEL.

// Enables or disables a device interface: enabling records it (a later registration with
// PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES hears of it from within the
// registration call) and raises GUID_DEVICE_INTERFACE_ARRIVAL to the callbacks registered
// for the interface class; disabling forgets it and raises GUID_DEVICE_INTERFACE_REMOVAL.
// The symbolic link ("\??\STORAGE#Volume#...") is the machine's to create with
// IoCreateSymbolicLink.
void IoSetDeviceInterfaceState(const GUID& interfaceClass, std::u16string_view symbolicLinkName, bool enabled);

// Raises a target-device event on `device` (the device a registration's file object was
// opened on). GUID_TARGET_DEVICE_QUERY_REMOVE, _REMOVE_CANCELLED and _REMOVE_COMPLETE go out
// as TARGET_DEVICE_REMOVAL_NOTIFICATION; any other event as TARGET_DEVICE_CUSTOM_NOTIFICATION
// carrying `customData` (nameBufferOffset -1: no text). Each callback sees the file object
// of its own registration. Returns the first failure a callback returned (a veto of a
// query-remove), else STATUS_SUCCESS.
NTSTATUS IoRaiseTargetDeviceEvent(PDEVICE_OBJECT device, const GUID& event, const void* customData = nullptr,
                                  size_t customBytes = 0, LONG nameBufferOffset = -1);

// The number of Plug and Play notification registrations still in place.
size_t IoCountPlugPlayNotifications();

// ---------------------------------------------------------------------------------------
// Shutdown.

// Sends IRP_MJ_SHUTDOWN to the top of the stack of each device registered with
// IoRegisterShutdownNotification (lastChance false) or
// IoRegisterLastChanceShutdownNotification (lastChance true), the latest registration
// first, and waits for each. Registrations stay in place. Returns the number of devices.
size_t IoSendShutdownNotifications(bool lastChance);

// ---------------------------------------------------------------------------------------
// Requests.

// How the most recent IoCompleteRequest of an IRP went.
struct IrpCompletion {
  PIRP Irp = nullptr;
  UCHAR MajorFunction = 0;
  UCHAR MinorFunction = 0;
  PDEVICE_OBJECT CompletedBy = nullptr;  // the device whose location was current
  NTSTATUS Status = 0;
  ULONG_PTR Information = 0;
  CCHAR PriorityBoost = 0;
};

// The last completion of a live IRP (one its owner still holds); false when it has not been
// completed since it was allocated or reused.
bool IoGetLastCompletion(PIRP irp, IrpCompletion* completion);

// Called for every IoCompleteRequest, in the completing thread, before the completion walk
// (so also for requests the I/O manager frees afterwards). Cleared at the start of each test.
void IoSetCompletionObserver(std::function<void(const IrpCompletion&)> observer);

// Marks a request as coming from a 32-bit process: IoIs32bitProcess(irp) is TRUE for it
// while its RequestorMode is UserMode.
void IoSetIrpFrom32bitProcess(PIRP irp, bool from32bit);

struct IoCounters {
  uint64_t IrpsAllocated = 0;  // since the start of the test
  uint64_t IrpsLive = 0;
  uint64_t MdlsAllocated = 0;
  uint64_t MdlsLive = 0;
};
IoCounters IoGetCounters();

// One line per IRP still alive, naming its request, device and driver and what became of
// it (the end-of-test report).
std::vector<std::string> IoDescribeLiveIrps();

// ---------------------------------------------------------------------------------------
// The environment of the current thread and the memory manager.

// While alive, IoGetStackLimits on this thread reports a low limit only `bytesLeft` bytes
// below the caller's frame, so the thread looks short of stack.
class ScopedShortStack {
 public:
  explicit ScopedShortStack(size_t bytesLeft = 1024);
  ~ScopedShortStack();
  ScopedShortStack(const ScopedShortStack&) = delete;
  ScopedShortStack& operator=(const ScopedShortStack&) = delete;

 private:
  size_t previous_;
};

// Makes the next `count` system address mappings (MmMapLockedPagesSpecifyCache, and so
// MmGetSystemAddressForMdlSafe for an MDL not mapped yet) fail; -1 makes all fail, 0 stops.
void MmFailSystemMappings(int count);

}  // namespace kvhost
