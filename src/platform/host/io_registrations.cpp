// Shutdown notification and driver reinitialization registrations, and the machine's
// side of them: sending IRP_MJ_SHUTDOWN and running the reinitialization callbacks.
//
// Each registration is a small non-paged packet, as in Windows, so that allocation-failure
// injection reaches it. A shutdown registration references its device; a reinitialization
// registration references its driver.
#include <cstdio>
#include <initializer_list>
#include <vector>

#include "io_internal.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
namespace {

constexpr ULONG kShutdownTag = KV_POOL_TAG('I', 'o', 'S', 'd');
constexpr ULONG kReinitTag = KV_POOL_TAG('I', 'o', 'R', 'i');

struct ShutdownPacket {
  LIST_ENTRY ListEntry;
  PDEVICE_OBJECT DeviceObject;
};

struct ReinitPacket {
  LIST_ENTRY ListEntry;
  PDRIVER_OBJECT DriverObject;
  PDRIVER_REINITIALIZE Routine;
  PVOID Context;
};

struct Registrations {
  std::mutex Lock;
  LIST_ENTRY Shutdown;    // newest first
  LIST_ENTRY LastChance;  // newest first
  LIST_ENTRY Reinit;      // in registration order
  LIST_ENTRY BootReinit;  // in registration order
  Registrations() { Reset(); }
  void Reset() {
    InitializeListHead(&Shutdown);
    InitializeListHead(&LastChance);
    InitializeListHead(&Reinit);
    InitializeListHead(&BootReinit);
  }
};

Registrations& Regs() {
  static Registrations* regs = new Registrations;
  return *regs;
}

NTSTATUS RegisterShutdown(LIST_ENTRY* list, PDEVICE_OBJECT device, const void* site) {
  auto* packet = static_cast<ShutdownPacket*>(
      AllocateIoPool(sizeof(ShutdownPacket), kShutdownTag, site, "IoRegisterShutdownNotification"));
  if (packet == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  packet->DeviceObject = device;
  ObReferenceObject(device);
  std::lock_guard<std::mutex> guard(Regs().Lock);
  InsertHeadList(list, &packet->ListEntry);
  device->Flags |= DO_SHUTDOWN_REGISTERED;
  return STATUS_SUCCESS;
}

// Takes out of `lists` (the lock held) the packets that `match(packet, list)` chooses.
template <typename Packet, typename Match>
std::vector<Packet*> Unlink(std::initializer_list<LIST_ENTRY*> lists, Match match) {
  std::vector<Packet*> taken;
  for (LIST_ENTRY* list : lists) {
    for (LIST_ENTRY* e = list->Flink; e != list;) {
      auto* packet = CONTAINING_RECORD(e, Packet, ListEntry);
      e = e->Flink;
      if (!match(packet, list)) continue;
      RemoveEntryList(&packet->ListEntry);
      taken.push_back(packet);
    }
  }
  return taken;
}

// Removes every shutdown registration of `device`; returns how many there were.
size_t UnregisterShutdown(PDEVICE_OBJECT device) {
  std::vector<ShutdownPacket*> removed;
  {
    std::lock_guard<std::mutex> guard(Regs().Lock);
    removed = Unlink<ShutdownPacket>({&Regs().Shutdown, &Regs().LastChance},
                                     [&](ShutdownPacket* p, LIST_ENTRY*) { return p->DeviceObject == device; });
    device->Flags &= ~DO_SHUTDOWN_REGISTERED;
  }
  for (ShutdownPacket* packet : removed) {
    ObDereferenceObject(packet->DeviceObject);
    FreeIoPool(packet, kShutdownTag, "IoUnregisterShutdownNotification");
  }
  return removed.size();
}

void RegisterReinitialization(LIST_ENTRY* list, PDRIVER_OBJECT driver, PDRIVER_REINITIALIZE routine, PVOID context,
                              const void* site) {
  auto* packet = static_cast<ReinitPacket*>(
      AllocateIoPool(sizeof(ReinitPacket), kReinitTag, site, "IoRegisterDriverReinitialization"));
  if (packet == nullptr) return;  // Windows drops a registration it cannot record
  packet->DriverObject = driver;
  packet->Routine = routine;
  packet->Context = context;
  ObReferenceObject(driver);
  std::lock_guard<std::mutex> guard(Regs().Lock);
  InsertTailList(list, &packet->ListEntry);
}

size_t RunReinitialization(LIST_ENTRY* list) {
  LIST_ENTRY pass;
  InitializeListHead(&pass);
  {
    std::lock_guard<std::mutex> guard(Regs().Lock);
    if (IsListEmpty(list)) return 0;
    // The callbacks of this pass; those they register go to the next one.
    pass.Flink = list->Flink;
    pass.Blink = list->Blink;
    pass.Flink->Blink = &pass;
    pass.Blink->Flink = &pass;
    InitializeListHead(list);
  }
  size_t ran = 0;
  while (!IsListEmpty(&pass)) {
    auto* packet = CONTAINING_RECORD(RemoveHeadList(&pass), ReinitPacket, ListEntry);
    PDRIVER_OBJECT driver = packet->DriverObject;
    driver->DriverExtension->Count++;
    packet->Routine(driver, packet->Context, driver->DriverExtension->Count);
    ObDereferenceObject(driver);
    FreeIoPool(packet, kReinitTag, "driver reinitialization");
    ++ran;
  }
  return ran;
}

size_t SendShutdown(LIST_ENTRY* list) {
  std::vector<PDEVICE_OBJECT> devices;
  {
    std::lock_guard<std::mutex> guard(Regs().Lock);
    for (LIST_ENTRY* e = list->Flink; e != list; e = e->Flink) {
      PDEVICE_OBJECT device = CONTAINING_RECORD(e, ShutdownPacket, ListEntry)->DeviceObject;
      ObReferenceObject(device);
      devices.push_back(device);
    }
  }
  for (PDEVICE_OBJECT device : devices) {
    PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_SHUTDOWN, top, nullptr, 0, nullptr, &event, &iosb);
    if (irp != nullptr && IoCallDriver(top, irp) == STATUS_PENDING)
      KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(top);
    ObDereferenceObject(device);
  }
  return devices.size();
}

std::string DescribeReinit(const ReinitPacket* packet, bool boot) {
  char text[96];
  std::snprintf(text, sizeof text, "%sreinitialization callback %p", boot ? "boot-driver " : "",
                reinterpret_cast<void*>(packet->Routine));
  return text;
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "I/O manager: registrations",
      .Order = 50,
      // Packets of a previous test are forgotten; the pool's accounting has reported them.
      .Reset =
          [] {
            std::lock_guard<std::mutex> guard(Regs().Lock);
            Regs().Reset();
          },
      .Quiesce = nullptr,
      .Check = nullptr,
  });
  return true;
}();

}  // namespace

void UnregisterShutdownOfDeletedDevice(PDEVICE_OBJECT device) { UnregisterShutdown(device); }

std::vector<std::string> TakeReinitializationsOf(PDRIVER_OBJECT driver) {
  std::vector<ReinitPacket*> taken;
  std::vector<std::string> described;
  {
    std::lock_guard<std::mutex> guard(Regs().Lock);
    taken = Unlink<ReinitPacket>({&Regs().BootReinit, &Regs().Reinit}, [&](ReinitPacket* p, LIST_ENTRY* list) {
      if (p->DriverObject != driver) return false;
      described.push_back(DescribeReinit(p, list == &Regs().BootReinit));
      return true;
    });
  }
  for (ReinitPacket* packet : taken) {
    ObDereferenceObject(packet->DriverObject);
    FreeIoPool(packet, kReinitTag, "driver reinitialization");
  }
  return described;
}

}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

NTSTATUS IoRegisterShutdownNotification(PDEVICE_OBJECT DeviceObject) {
  return RegisterShutdown(&Regs().Shutdown, DeviceObject, __builtin_return_address(0));
}

NTSTATUS IoRegisterLastChanceShutdownNotification(PDEVICE_OBJECT DeviceObject) {
  return RegisterShutdown(&Regs().LastChance, DeviceObject, __builtin_return_address(0));
}

void IoUnregisterShutdownNotification(PDEVICE_OBJECT DeviceObject) {
  if (UnregisterShutdown(DeviceObject) == 0)
    kvhost::ReportViolation("ShutdownNotRegistered", "IoUnregisterShutdownNotification of " +
                                                         DescribeDevice(DeviceObject) +
                                                         ", which is not registered for shutdown notification");
}

void IoRegisterBootDriverReinitialization(PDRIVER_OBJECT DriverObject, PDRIVER_REINITIALIZE DriverReinitializationRoutine,
                                          PVOID Context) {
  RegisterReinitialization(&Regs().BootReinit, DriverObject, DriverReinitializationRoutine, Context,
                           __builtin_return_address(0));
}

void IoRegisterDriverReinitialization(PDRIVER_OBJECT DriverObject, PDRIVER_REINITIALIZE DriverReinitializationRoutine,
                                      PVOID Context) {
  RegisterReinitialization(&Regs().Reinit, DriverObject, DriverReinitializationRoutine, Context,
                           __builtin_return_address(0));
}

}  // extern "C"

namespace kvhost {

size_t IoRunBootDriverReinitialization() { return RunReinitialization(&Regs().BootReinit); }
size_t IoRunDriverReinitialization() { return RunReinitialization(&Regs().Reinit); }
size_t IoSendShutdownNotifications(bool lastChance) {
  return SendShutdown(lastChance ? &Regs().LastChance : &Regs().Shutdown);
}

}  // namespace kvhost
