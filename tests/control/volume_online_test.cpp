// A volume coming online and going offline under the driver, on real NTFS volumes made by
// mkntfs: the disk's classification and exclusion, the file-system reader built while the
// volume's writes are held, the writes held meanwhile going on tracked, failures below, and
// the reader dropped before the volume goes offline.
#include <gtest/gtest.h>

#include <ntdddisk.h>
#include <ntddstor.h>
#include <ntddvol.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "control/cbt_control_handlers.h"
#include "control_request.h"
#include "kvcbt/control.h"
#include "kvhost/io.h"
#include "kvhost/pool.h"
#include "kvtestbed/disk_images.h"
#include "probe_machine.h"
#include "sent_write.h"

namespace {

using kvtest::ControlResult;
using kvtest::LoggedRecord;
using kvtestbed::Volume;

constexpr uint64_t kVolumeBytes = 32ull << 20;

class VolumeOnlineTest : public kvtest::ProbeMachineTest {
 protected:
  // A fixed NTFS volume of the given identity.
  Volume* AddNtfsVolume(kvtestbed::VolumeConfig config) {
    config.SizeBytes = kVolumeBytes;
    Volume* volume = AddVolume(config);
    if (volume == nullptr) return nullptr;
    const std::string error = kvtestbed::FormatNtfs(*volume, {.ClusterSize = 4096, .Label = "Data"});
    EXPECT_EQ(error, "");
    return volume;
  }

  // Brings a booted volume offline and online again, as the mount manager would.
  void Recycle(Volume* volume) {
    ASSERT_EQ(machine_->Offline(*volume), STATUS_SUCCESS);
    ASSERT_EQ(machine_->Online(*volume), STATUS_SUCCESS);
  }

  std::vector<ULONG> CodesSentBelow() const {
    std::vector<ULONG> codes;
    for (const kvtest::ProbeRequest& r : probe_.ControlRequests()) codes.push_back(r.ControlCode);
    return codes;
  }
};

bool IsTracked(const CBT_DEVICE_EXTENSION* e) { return CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT); }

TEST_F(VolumeOnlineTest, AnNtfsVolumeComesOnlineWithItsReaderAndBitmap) {
  BuildMachine();
  Volume* c = AddNtfsVolume({.Name = "C:", .DriveLetter = u'C'});
  BootMachine();
  const CBT_DEVICE_EXTENSION* e = ExtensionOf(c);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_ONLINE | CBT_FLAG_FILE_SYSTEM_READABLE | CBT_FLAG_FS_CONTEXT));
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NTFS});
  EXPECT_EQ(e->BytesPerBit, 65536u);
  EXPECT_GE(uint64_t{e->BitCount} * e->BytesPerBit, e->VolumeSize) << "the bitmap covers the volume";
  EXPECT_EQ(e->TrackingBitmap.SizeOfBitMap, e->BitCount);
  EXPECT_EQ(e->LastRestartCount, e->BaselineRestartCount);
  EXPECT_EQ(e->HoldCount, 0u) << "the online's hold is over";

  // Again, watching what the driver asks the volume: the volume comes online first, then the
  // disk is classified (device descriptor header and whole, adapter), then its writability,
  // then the file system is read.
  Recycle(c);
  const std::vector<ULONG> codes = CodesSentBelow();
  const std::vector<ULONG> expected = {IOCTL_VOLUME_OFFLINE,         IOCTL_VOLUME_ONLINE,
                                       IOCTL_STORAGE_QUERY_PROPERTY, IOCTL_STORAGE_QUERY_PROPERTY,
                                       IOCTL_STORAGE_QUERY_PROPERTY, IOCTL_DISK_IS_WRITABLE,
                                       IOCTL_DISK_GET_PARTITION_INFO_EX};
  ASSERT_GE(codes.size(), expected.size());
  EXPECT_EQ(std::vector<ULONG>(codes.begin(), codes.begin() + static_cast<std::ptrdiff_t>(expected.size())), expected);
  EXPECT_TRUE(IsTracked(e));
  const std::vector<LoggedRecord> online = TakeRecords("CbtVolumeOnline");
  ASSERT_EQ(online.size(), 1u) << "one record: the online itself, which went well";
  EXPECT_EQ(online[0].Status, 0u);
}

// While the volume comes online its writes wait: none is tracked against a reader that does
// not exist yet, and none changes the file system under the reader's set-up. Once the reader
// stands, they go on in order and are tracked.
TEST_F(VolumeOnlineTest, WritesSentWhileTheVolumeComesOnlineAreHeldThenTracked) {
  BuildMachine();
  Volume* c = AddNtfsVolume({.Name = "C:", .DriveLetter = u'C'});
  BootMachine();
  PCBT_DEVICE_EXTENSION e = ExtensionOf(c);
  ASSERT_EQ(machine_->Offline(*c), STATUS_SUCCESS);
  ASSERT_FALSE(IsTracked(e));

  PDEVICE_OBJECT top = c->TopOfStack();
  std::future<NTSTATUS> online = SendHeldBelow(c, IOCTL_VOLUME_ONLINE);
  EXPECT_EQ(e->HoldCount, 1u);

  const uint64_t writesBefore = c->Counters().Writes;
  kvtest::SentWrite first, second;
  kvtest::Send(first, top, 20ll << 20, 4096);
  kvtest::Send(second, top, 24ll << 20, 65536);
  EXPECT_EQ(first.Returned, STATUS_PENDING);
  EXPECT_EQ(second.Returned, STATUS_PENDING);
  EXPECT_FALSE(first.Completed());
  EXPECT_EQ(c->Counters().Writes, writesBefore) << "held writes do not reach the disk";

  probe_.Release();
  EXPECT_EQ(online.get(), STATUS_SUCCESS);
  EXPECT_EQ(first.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(second.Wait().Status, STATUS_SUCCESS);
  EXPECT_EQ(first.Completions, 1);
  EXPECT_EQ(c->Counters().Writes, writesBefore + 2);
  const std::vector<kvtestbed::WriteRequest> reached = c->WriteRequestsSinceOnline();
  ASSERT_EQ(reached.size(), 2u);
  EXPECT_EQ(reached[0].Offset, 20ull << 20) << "in the order they arrived";
  ASSERT_TRUE(IsTracked(e));
  EXPECT_TRUE(RtlTestBit(&e->TrackingBitmap, (20 << 20) / e->BytesPerBit));
  EXPECT_TRUE(RtlTestBit(&e->TrackingBitmap, (24 << 20) / e->BytesPerBit));
  EXPECT_EQ(e->UntrackedWriteCount, 0) << "each was tracked, none counted as untracked";
  EXPECT_EQ(e->HoldCount, 0u);
}

TEST_F(VolumeOnlineTest, AFailedOnlineLeavesTheVolumeOfflineAndLetsItsHeldWritesGo) {
  BuildMachine();
  Volume* c = AddNtfsVolume({.Name = "C:", .DriveLetter = u'C'});
  BootMachine();
  PCBT_DEVICE_EXTENSION e = ExtensionOf(c);
  ASSERT_EQ(machine_->Offline(*c), STATUS_SUCCESS);

  probe_.Answer(IOCTL_VOLUME_ONLINE, {.Status = STATUS_DEVICE_NOT_READY});
  std::future<NTSTATUS> online = SendHeldBelow(c, IOCTL_VOLUME_ONLINE);
  kvtest::SentWrite held;
  kvtest::Send(held, c->TopOfStack(), 1 << 20, 4096);
  probe_.Release();

  EXPECT_EQ(online.get(), STATUS_DEVICE_NOT_READY) << "the volume's failure is the request's";
  EXPECT_EQ(held.Wait().Status, STATUS_DEVICE_OFF_LINE) << "let go, the write meets an offline volume";
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_ONLINE));
  EXPECT_FALSE(IsTracked(e));
  EXPECT_EQ(e->HoldCount, 0u);
  const std::vector<LoggedRecord> records = TakeRecords("CbtVolumeOnline");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].Status, static_cast<ULONG>(STATUS_DEVICE_NOT_READY));
}

// Each disk the way its storage descriptor and adapter present it, under both settings of
// the exclusions: which flags it gets, whether the adapter is asked, whether it is tracked.
TEST_F(VolumeOnlineTest, DisksAreClassifiedAndExcludedByTheirIdentityBusAndTheSettings) {
  struct Disk {
    const char* Name;
    const char* Vendor;
    const char* Product;
    STORAGE_BUS_TYPE Bus;
    ULONG Flags;        // of USB, VHD and XVDD
    bool AdapterAsked;  // the third property query
    bool TrackedWhenExcluding;
  };
  const Disk disks[] = {
      {"plain", "KVSIM", "Simulated Disk", BusTypeNvme, 0, true, true},
      {"virtual", "Msft", "Virtual Disk", BusTypeSas, CBT_FLAG_VHD, false, false},
      {"virtual, other case", "mSfT", "vIRTUAL dISK", BusTypeSas, CBT_FLAG_VHD, false, false},
      {"virtual, longer product", "MSFT", "Virtual Disk 2", BusTypeSas, CBT_FLAG_VHD, false, false},
      {"virtual without its space", "Msft", "VirtualDisk", BusTypeSas, 0, true, true},
      {"virtual product of another vendor", "Contoso", "Virtual Disk", BusTypeSas, 0, true, true},
      {"xvdd", "Msft", "XVDD", BusTypeVirtual, CBT_FLAG_XVDD, false, false},
      {"xvdd, longer product", "msft", "xvdd0001", BusTypeVirtual, CBT_FLAG_XVDD, false, false},
      {"usb", "KVSIM", "Stick", BusTypeUsb, CBT_FLAG_USB, true, false},
  };
  for (bool excluding : {true, false}) {
    SCOPED_TRACE(excluding ? "ExcludeUSB=1 ExcludeVHD=1" : "ExcludeUSB=0 ExcludeVHD=0");
    BuildMachine({kvtestbed::RegistrySetting::Dword(u"ExcludeUSB", excluding ? 1 : 0),
                  kvtestbed::RegistrySetting::Dword(u"ExcludeVHD", excluding ? 1 : 0)});
    std::vector<Volume*> volumes;
    for (const Disk& d : disks)
      volumes.push_back(AddNtfsVolume({.Name = d.Name, .Bus = d.Bus, .Vendor = d.Vendor, .Product = d.Product}));
    BootMachine();
    for (size_t i = 0; i < volumes.size(); ++i) {
      const Disk& d = disks[i];
      SCOPED_TRACE(d.Name);
      const CBT_DEVICE_EXTENSION* e = ExtensionOf(volumes[i]);
      EXPECT_EQ(CbtReadFlags(e) & (CBT_FLAG_USB | CBT_FLAG_VHD | CBT_FLAG_XVDD), d.Flags);
      const bool tracked = (d.Flags & CBT_FLAG_XVDD) == 0 && (excluding ? d.TrackedWhenExcluding : true);
      EXPECT_EQ(IsTracked(e), tracked);
      const ControlResult probe = kvtest::SendControlRequest(volumes[i]->TopOfStack(), {.Code = IOCTL_KVCBT_CHECK_EXCLUDED});
      EXPECT_EQ(probe.Status == STATUS_SUCCESS, !tracked) << "a backup application learns whether it is excluded";
      probe_.Clear();
      if ((CbtReadFlags(e) & CBT_FLAG_XVDD) != 0 || !tracked) continue;  // an excluded volume is passed through
      Recycle(volumes[i]);
      const std::vector<ULONG> codes = CodesSentBelow();
      EXPECT_EQ(std::count(codes.begin(), codes.end(), ULONG{IOCTL_STORAGE_QUERY_PROPERTY}), d.AdapterAsked ? 3 : 2);
    }
    machine_.reset();
  }
}

// An excluded volume leaves the driver's sight: it gets no shutdown request and its volume
// notification registration goes.
TEST_F(VolumeOnlineTest, AnExcludedVolumeGivesUpItsShutdownAndNotificationRegistrations) {
  BuildMachine();
  AddNtfsVolume({.Name = "C:", .DriveLetter = u'C'});
  BootMachine();

  // A USB disk arrives; its online waits below the driver while the driver's target-device
  // registration for the volume is made, as the volume's arrival makes it.
  probe_.Hold(IOCTL_VOLUME_ONLINE);
  auto arrival = std::async(std::launch::async,
                            [this] { return machine_->AddVolume({.Name = "U:", .DriveLetter = u'U', .Bus = BusTypeUsb}); });
  ASSERT_TRUE(probe_.WaitForHeld());
  Volume* u = machine_->FindVolume("U:");
  ASSERT_NE(u, nullptr);
  PCBT_DEVICE_EXTENSION e = ExtensionOf(u);
  UNICODE_STRING name;
  name.Buffer = reinterpret_cast<PWCH>(const_cast<char16_t*>(u->DeviceName().data()));
  name.Length = name.MaximumLength = static_cast<USHORT>(u->DeviceName().size() * sizeof(WCHAR));
  PFILE_OBJECT file = nullptr;
  PDEVICE_OBJECT device = nullptr;
  ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_ATTRIBUTES, &file, &device), STATUS_SUCCESS);
  const size_t registrationsBefore = kvhost::IoCountPlugPlayNotifications();
  ASSERT_EQ(IoRegisterPlugPlayNotification(
                EventCategoryTargetDeviceChange, 0, file, machine_->LoadedDriver(u"kvcbt"),
                [](PVOID, PVOID) -> NTSTATUS { return STATUS_SUCCESS; }, nullptr, &e->TargetNotificationEntry),
            STATUS_SUCCESS);
  ObDereferenceObject(file);
  probe_.Release();
  ASSERT_EQ(arrival.get(), u);

  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_USB | CBT_FLAG_ONLINE)) << "the online itself succeeded";
  EXPECT_FALSE(IsTracked(e));
  EXPECT_EQ(e->TargetNotificationEntry, nullptr);
  EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), registrationsBefore) << "the registration is gone";

  machine_->TakeEvents();
  machine_->Shutdown();
  bool lastChanceToOne = false;
  for (const kvtestbed::MachineEvent& event : machine_->TakeEvents())
    lastChanceToOne |= event.Text == "IRP_MJ_SHUTDOWN to 1 last-chance device(s)";
  EXPECT_TRUE(lastChanceToOne) << "only C:'s filter is told of the shutdown";
}

TEST_F(VolumeOnlineTest, WriteProtectionAndBitLockerAreReadAtEachOnline) {
  BuildMachine();
  Volume* c = AddNtfsVolume({.Name = "C:", .DriveLetter = u'C', .WriteProtected = true});
  BootMachine();
  PCBT_DEVICE_EXTENSION e = ExtensionOf(c);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_READ_ONLY));
  EXPECT_TRUE(IsTracked(e)) << "a write-protected volume is still read";
  c->SetWriteProtected(false);
  Recycle(c);
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_READ_ONLY)) << "writable again at the next online";

  // Locked by BitLocker: the volume comes online, but its file system cannot be read.
  c->SetBitLockerLocked(true);
  Recycle(c);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_ONLINE | CBT_FLAG_BITLOCKER_LOCKED));
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FILE_SYSTEM_READABLE));
  EXPECT_FALSE(IsTracked(e));
  const std::vector<LoggedRecord> records = TakeRecords("CbtVolumeOnline");
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.back().Status, static_cast<ULONG>(STATUS_FVE_LOCKED_VOLUME));

  c->SetBitLockerLocked(false);
  Recycle(c);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_FILE_SYSTEM_READABLE | CBT_FLAG_FS_CONTEXT));
}

// The descriptor a disk returns is the disk's to get wrong: whatever it says, the driver
// reads it within what it allocated, refuses what contradicts itself, and leaves the disk
// an ordinary one.
TEST_F(VolumeOnlineTest, ADiskDescriptorThatContradictsItselfLeavesTheDiskOrdinary) {
  BuildMachine();
  Volume* d = AddVolume({.Name = "D:"});
  BootMachine();
  PCBT_DEVICE_EXTENSION e = ExtensionOf(d);

  // Version, Size, then the offsets of the vendor and product identifiers, and the strings.
  // What the disk sends is at most 256 bytes, whatever Size says.
  auto descriptor = [](ULONG version, ULONG size, ULONG vendorAt, ULONG productAt, const char* vendor,
                       const char* product) {
    std::vector<uint8_t> bytes(std::clamp<size_t>(size, 8, 256), 0);
    auto put = [&](size_t at, const void* data, size_t length) {
      if (at < bytes.size()) std::memcpy(bytes.data() + at, data, std::min(length, bytes.size() - at));
    };
    put(0, &version, 4);
    put(4, &size, 4);
    put(12, &vendorAt, 4);
    put(16, &productAt, 4);
    put(vendorAt, vendor, std::strlen(vendor) + 1);
    put(productAt, product, std::strlen(product) + 1);
    return bytes;
  };
  struct Case {
    const char* What;
    kvtest::ProbeReply Reply;
    NTSTATUS Status;
    ULONG Flags;
  };
  const Case cases[] = {
      {"the query fails", {.Status = STATUS_IO_DEVICE_ERROR}, STATUS_IO_DEVICE_ERROR, 0},
      {"a size of 8", {.Bytes = descriptor(40, 8, 40, 45, "", "")}, STATUS_FILE_CORRUPT_ERROR, 0},
      {"a size past belief", {.Bytes = descriptor(40, 0x7FFFFFF0, 40, 45, "", "")}, STATUS_FILE_CORRUPT_ERROR, 0},
      {"another version", {.Bytes = descriptor(36, 64, 40, 45, "Msft", "XVDD")}, STATUS_FILE_CORRUPT_ERROR, 0},
      {"a vendor inside the header", {.Bytes = descriptor(40, 64, 20, 45, "Msft", "XVDD")}, STATUS_FILE_CORRUPT_ERROR, 0},
      {"a product inside the header", {.Bytes = descriptor(40, 64, 40, 12, "Msft", "XVDD")}, STATUS_FILE_CORRUPT_ERROR, 0},
      {"a product far past the end", {.Bytes = descriptor(40, 64, 40, 0xFFFFFFF0, "Msft", "")}, STATUS_SUCCESS, 0},
      {"a vendor past the end is not checked", {.Bytes = descriptor(40, 64, 0x100000, 45, "", "xvdd")}, STATUS_SUCCESS,
       CBT_FLAG_XVDD},
      {"a product too near the end for its name", {.Bytes = descriptor(40, 52, 40, 45, "Msft", "Virtual")},
       STATUS_SUCCESS, 0},
      {"a vendor that is not Microsoft", {.Bytes = descriptor(40, 64, 40, 45, "Msfx", "XVDD")}, STATUS_SUCCESS, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.What);
    CbtClearFlags(e, CBT_FLAG_USB | CBT_FLAG_VHD | CBT_FLAG_XVDD);
    probe_.Answer(IOCTL_STORAGE_QUERY_PROPERTY, c.Reply);
    EXPECT_EQ(CbtQueryDiskIdentity(e), c.Status);
    EXPECT_EQ(CbtReadFlags(e) & (CBT_FLAG_USB | CBT_FLAG_VHD | CBT_FLAG_XVDD), c.Flags);
  }

  // No pool for the descriptor: the disk stays unclassified.
  probe_.Answer(IOCTL_STORAGE_QUERY_PROPERTY, {.Bytes = descriptor(40, 64, 40, 45, "Msft", "XVDD")});
  CbtClearFlags(e, CBT_FLAG_XVDD);
  kvhost::FailAllocationsWithTag(CBT_POOL_TAG);
  EXPECT_EQ(CbtQueryDiskIdentity(e), STATUS_INSUFFICIENT_RESOURCES);
  kvhost::ClearPoolFaults();
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_XVDD));
  EXPECT_EQ(CbtQueryDiskIdentity(e), STATUS_SUCCESS);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_XVDD));
  CbtClearFlags(e, CBT_FLAG_XVDD);  // lets the volume's removal find it tracked, as it came
}

TEST_F(VolumeOnlineTest, OfflineDropsTheReaderBeforeTheVolumeGoesAndKeepsItOnlineWhenRefused) {
  BuildMachine();
  Volume* c = AddNtfsVolume({.Name = "C:", .DriveLetter = u'C'});
  BootMachine();
  PCBT_DEVICE_EXTENSION e = ExtensionOf(c);
  PDEVICE_OBJECT top = c->TopOfStack();

  // While the volume below handles the offline, the reader is already gone.
  std::future<NTSTATUS> offline = SendHeldBelow(c, IOCTL_VOLUME_OFFLINE);
  EXPECT_FALSE(IsTracked(e));
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NONE});
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_ONLINE)) << "online until the volume says otherwise";
  probe_.Release();
  EXPECT_EQ(offline.get(), STATUS_SUCCESS);
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_ONLINE));

  // Offline again: the volume is not online, so the request is answered here.
  probe_.Clear();
  EXPECT_EQ(kvtest::SendControlRequest(top, {.Code = IOCTL_VOLUME_OFFLINE}).Status, STATUS_SUCCESS);
  EXPECT_TRUE(probe_.ControlRequests().empty()) << "the volume below never sees it";

  // A refused offline leaves the volume online, without its reader.
  ASSERT_EQ(machine_->Online(*c), STATUS_SUCCESS);
  ASSERT_TRUE(IsTracked(e));
  TakeRecords();
  probe_.Answer(IOCTL_VOLUME_OFFLINE, {.Status = STATUS_DEVICE_BUSY});
  EXPECT_EQ(kvtest::SendControlRequest(top, {.Code = IOCTL_VOLUME_OFFLINE}).Status, STATUS_DEVICE_BUSY);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_ONLINE));
  EXPECT_FALSE(IsTracked(e));
  const std::vector<LoggedRecord> records = TakeRecords("CbtVolumeOffline");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].Status, static_cast<ULONG>(STATUS_DEVICE_BUSY));
}

// The tracking file is written a last time, marked final, when a volume that has one goes
// offline; a shadow copy's tracking file is its original's and is not written.
TEST_F(VolumeOnlineTest, OfflineWritesTheTrackingFileOfAVolumeButNotOfAShadowCopy) {
  BuildMachine();
  Volume* c = AddNtfsVolume({.Name = "C:", .DriveLetter = u'C'});
  BootMachine();
  Volume* copy = machine_->AddShadowCopy(*c, "C:@1");
  ASSERT_NE(copy, nullptr);
  TakeRecords();
  for (Volume* v : {c, copy}) {
    SCOPED_TRACE(v->Name());
    ASSERT_TRUE(CbtFlagsSet(ExtensionOf(v), CBT_FLAG_ONLINE));
    CbtSetFlags(ExtensionOf(v), CBT_FLAG_TRACKING_FILE_READY);
    ASSERT_EQ(machine_->Offline(*v), STATUS_SUCCESS);
    EXPECT_EQ(TakeRecords("CbtFlushTrackingFile").size(), v == c ? 1u : 0u);
    CbtClearFlags(ExtensionOf(v), CBT_FLAG_TRACKING_FILE_READY);
  }
}

}  // namespace
