// Power: a clean shutdown, a power loss and booting again from the same disks.
#include <cstdio>
#include <fstream>
#include <unistd.h>

#include "kvhost/io.h"
#include "kvhost/object.h"
#include "kvhost/pool.h"
#include "kvhost/registry.h"
#include "testbed_support.h"

namespace kvtestbed::testing {
namespace {

TEST(MachineLifecycle, CleanShutdownSendsShutdownThenSetPowerToEveryStack) {
  Machine machine;
  Volume* c = machine.AddVolume(LetteredVolume(u'C'));
  Volume* d = machine.AddVolume(LetteredVolume(u'D'));
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  TakeTestFilterEvents();
  c->TakeRequestLog();

  machine.Shutdown();
  EXPECT_FALSE(machine.Running());
  const std::vector<TestFilterEvent> seen = TakeTestFilterEvents();
  std::vector<std::string> order;
  for (const TestFilterEvent& e : seen) order.push_back(e.Device.substr(8) + " " + e.What);
  EXPECT_EQ(order, (std::vector<std::string>{"HarddiskVolume2 IRP_MJ_SHUTDOWN", "HarddiskVolume1 IRP_MJ_SHUTDOWN",
                                             "HarddiskVolume2 IRP_MN_SET_POWER", "HarddiskVolume1 IRP_MN_SET_POWER"}))
      << "shutdown to the latest registration first, then set-power from the latest volume";
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen.back().Detail, "PowerSystemShutdown, effective PowerSystemShutdown");
  // The requests went through the filter to the volume device.
  EXPECT_EQ(c->TakeRequestLog(),
            (std::vector<std::string>{"IRP_MJ_SHUTDOWN", "IRP_MN_SET_POWER PowerSystemShutdown"}));
  EXPECT_EQ(d->Device(), nullptr) << "powered off";
}

// A write sent to the top of a stack and left in flight: its completion frees the request.
struct InFlightWrite {
  std::vector<uint8_t> Data;
  NTSTATUS Status = STATUS_PENDING;

  static NTSTATUS Completed(PDEVICE_OBJECT, PIRP irp, PVOID context) {
    static_cast<InFlightWrite*>(context)->Status = irp->IoStatus.Status;
    if (irp->MdlAddress != nullptr) {
      MmUnlockPages(irp->MdlAddress);
      IoFreeMdl(irp->MdlAddress);
    }
    irp->MdlAddress = nullptr;
    IoFreeIrp(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
  }

  NTSTATUS Send(Volume& volume, uint64_t offset) {
    PDEVICE_OBJECT top = volume.TopOfStack();
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(offset);
    PIRP irp = IoBuildAsynchronousFsdRequest(IRP_MJ_WRITE, top, Data.data(), static_cast<ULONG>(Data.size()), &at,
                                             nullptr);
    IoSetCompletionRoutine(irp, Completed, this, TRUE, TRUE, TRUE);
    return IoCallDriver(top, irp);
  }
};

TEST(MachineLifecycle, PowerLossKeepsEveryCompletedWriteAndNothingOfMemory) {
  Machine machine;
  Volume* c = machine.AddVolume(LetteredVolume(u'C'));
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  kvhost::SetRegistryDword(Machine::ServiceKeyPath(u"passthrough"), u"WrittenBeforeTheCrash", 7);
  ASSERT_EQ(machine.Write(*c, 8192, Pattern(4096, 1)).Status, STATUS_SUCCESS);

  // A second write is still in flight (the disk has not completed it) when the power goes.
  c->SetCompleteFromThread(true);
  c->HoldCompletions(true);
  InFlightWrite inFlight{Pattern(4096, 2)};
  ASSERT_EQ(inFlight.Send(*c, 0), STATUS_PENDING);
  EXPECT_EQ(kvhost::IoGetCounters().IrpsLive, 1u);

  machine.Crash();
  EXPECT_FALSE(machine.Running());
  EXPECT_EQ(inFlight.Status, STATUS_DEVICE_POWER_FAILURE) << "the disk stopped before it took the write";
  EXPECT_EQ(c->ReadDirect(8192, 4096), Pattern(4096, 1));
  EXPECT_EQ(c->ReadDirect(0, 4096), std::vector<uint8_t>(4096, 0));
  ASSERT_EQ(c->Writes().size(), 1u);
  EXPECT_EQ(c->Writes()[0].Offset, 8192u);
  // Memory is gone: no pool, no request, no object of the last boot survives.
  EXPECT_EQ(kvhost::OutstandingBlocks(), 0u);
  EXPECT_EQ(kvhost::IoGetCounters().IrpsLive, 0u);
  EXPECT_TRUE(kvhost::ObDescribeLiveObjects().empty());
  EXPECT_EQ(kvhost::ObLookupObjectByName(u"\\Driver\\passthrough"), nullptr);
  // The registry is on disk.
  EXPECT_EQ(kvhost::GetRegistryDword(Machine::ServiceKeyPath(u"passthrough"), u"WrittenBeforeTheCrash"), 7u);

  // Booting again runs a fresh driver instance over the same disk.
  c->HoldCompletions(false);
  c->SetCompleteFromThread(false);
  TakeTestFilterEvents();
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  EXPECT_EQ(machine.BootCount(), 2u);
  EXPECT_EQ(CountSeen(TakeTestFilterEvents(), "DriverEntry"), 1u);
  IoResult read = machine.Read(*c, 8192, 4096);
  ASSERT_EQ(read.Status, STATUS_SUCCESS);
  EXPECT_EQ(read.Data, Pattern(4096, 1));
}

TEST(MachineLifecycle, RebootFindsMemoryAndImageDisksAsTheyWere) {
  char path[] = "/tmp/kvtestbed-imageXXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  {
    Machine machine;
    Volume* c = machine.AddVolume(LetteredVolume(u'C'));
    VolumeConfig imageConfig = LetteredVolume(u'E', 1ull << 30);
    imageConfig.ImagePath = path;
    imageConfig.SectorSize = 4096;
    Volume* e = machine.AddVolume(imageConfig);
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
    ASSERT_EQ(machine.Write(*c, 0, Pattern(65536, 3)).Status, STATUS_SUCCESS);
    ASSERT_EQ(machine.Write(*e, (1ull << 30) - 8192, Pattern(8192, 4)).Status, STATUS_SUCCESS);
    machine.Shutdown();
    ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
    EXPECT_EQ(machine.Read(*c, 0, 65536).Data, Pattern(65536, 3));
    EXPECT_EQ(machine.Read(*e, (1ull << 30) - 8192, 8192).Data, Pattern(8192, 4));
    EXPECT_LT(e->BytesAllocated(), 1u << 20) << "the image file stays sparse";
  }
  // The image outlives the machine: the bytes are in the file, where a later run finds them.
  std::ifstream image(path, std::ios::binary);
  image.seekg((1ll << 30) - 8192);
  std::vector<uint8_t> bytes(8192);
  image.read(reinterpret_cast<char*>(bytes.data()), 8192);
  EXPECT_EQ(bytes, Pattern(8192, 4));
  std::remove(path);
}

}  // namespace
}  // namespace kvtestbed::testing
