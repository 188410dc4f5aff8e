// The driver on the simulated machine: a boot with two fixed volumes, a removable volume
// and a shadow copy; a boot with a defragmentation scheduled; a shutdown; a power loss and
// the boot after it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver/cbt_device_extension.h"
#include "kvhost/dbgprint.h"
#include "kvhost/object.h"
#include "kvhost/registry.h"
#include "kvtestbed/driver_images.h"
#include "kvtestbed/machine.h"
#include "log/cbt_log_inspection.h"

namespace {

using kvtestbed::Machine;
using kvtestbed::Volume;
using kvtestbed::VolumeConfig;

const std::string kBanner =
    "\nKeldor Vantage Changed Block Tracker\nDriver Version 10.0.1000\nWindows Version 10.0.26100\n\n";

class MachineBootTest : public testing::Test {
 protected:
  static kvtestbed::MachineConfig Config() {
    kvtestbed::RegisterDriverImage(u"kvcbt", DriverEntry);
    kvtestbed::MachineConfig config;
    config.VolumeUpperFilters = {u"kvcbt"};
    config.SnapshotUpperFilters = {u"kvcbt"};
    config.Services.push_back({u"kvcbt", nullptr, {kvtestbed::RegistrySetting::Dword(u"DebugLog", 1)}});
    return config;
  }

  static VolumeConfig Lettered(char16_t letter, bool removable = false) {
    VolumeConfig config;
    config.Name = std::string(1, static_cast<char>(letter)) + ":";
    config.DriveLetter = letter;
    config.RemovableMedia = removable;
    return config;
  }

  // The driver's filter device in the volume's stack, or nullptr.
  static PDEVICE_OBJECT FilterOf(const Volume& volume) {
    for (PDEVICE_OBJECT d = volume.Device(); d != nullptr; d = d->AttachedDevice)
      if (kvhost::ToUtf8(&d->DriverObject->DriverName) == "\\Driver\\kvcbt") return d;
    return nullptr;
  }

  static std::vector<CBT_LOG_RECORD_BODY> Records() {
    std::vector<CBT_LOG_RECORD_BODY> records(CBT_LOG_QUEUE_LIMIT);
    records.resize(CbtCopyQueuedLogRecords(records.data(), CBT_LOG_QUEUE_LIMIT));
    return records;
  }

  static std::vector<std::string> Texts(const std::vector<CBT_LOG_RECORD_BODY>& records) {
    std::vector<std::string> texts;
    for (const CBT_LOG_RECORD_BODY& r : records) texts.emplace_back(r.Text);
    return texts;
  }

  static size_t BannersPrinted() {
    size_t banners = 0;
    for (const kvhost::DebugOutputLine& line : kvhost::TakeDebugOutput())
      banners += line.ComponentId == 77 && line.Level == 3 && line.Text == kBanner;
    return banners;
  }
};

TEST_F(MachineBootTest, FiltersEveryFixedVolumeAndShadowCopyAndNothingElse) {
  Machine machine(Config());
  Volume* c = machine.AddVolume(Lettered(u'C'));
  Volume* d = machine.AddVolume(Lettered(u'D'));
  Volume* stick = machine.AddVolume(Lettered(u'E', true));
  Volume& shadow = *machine.AddShadowCopy(*c);
  kvhost::TakeDebugOutput();
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);

  EXPECT_EQ(BannersPrinted(), 1u);
  const std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_GE(records.size(), 7u);
  const std::vector<std::string> texts = Texts(records);
  EXPECT_EQ(std::vector<std::string>(texts.begin(), texts.begin() + 7),
            (std::vector<std::string>{"Driver Loaded 10.0.1000", "kvcbt;", "kvcbt;", "none", "none", "ExcludeUSB",
                                      "ExcludeVHD"}));
  EXPECT_EQ(+records[0].Line, 1u);
  EXPECT_EQ(+records[5].Status, 1u);
  EXPECT_EQ(+records[6].Status, 0u);

  for (Volume* volume : {c, d, &shadow}) {
    PDEVICE_OBJECT filter = FilterOf(*volume);
    ASSERT_NE(filter, nullptr) << volume->Name();
    EXPECT_EQ(CbtExtensionOf(filter)->VolumeNumber, volume->Number()) << volume->Name();
    EXPECT_EQ(filter->AttachedDevice, nullptr) << "the filter is the top of the stack";
  }
  EXPECT_EQ(FilterOf(*stick), nullptr) << "removable media is never filtered";
  EXPECT_TRUE(CbtFlagsSet(CbtExtensionOf(FilterOf(shadow)), CBT_FLAG_SNAPSHOT_DEVICE));
  EXPECT_FALSE(CbtFlagsSet(CbtExtensionOf(FilterOf(*d)), CBT_FLAG_SNAPSHOT_DEVICE));

  // A shadow copy committed while the machine runs is filtered as it arrives.
  Volume& later = *machine.AddShadowCopy(*d);
  ASSERT_NE(FilterOf(later), nullptr);
  EXPECT_EQ(CbtExtensionOf(FilterOf(later))->VolumeNumber, later.Number());
  EXPECT_NE(later.Number(), shadow.Number());

  // Writes and reads travel through the filter to the disk and back.
  const std::vector<uint8_t> data(4096, 0xC3);
  EXPECT_EQ(machine.Write(*d, 65536, data).Status, STATUS_SUCCESS);
  EXPECT_EQ(d->ReadDirect(65536, data.size()), data);
  EXPECT_EQ(machine.Read(*d, 65536, 4096).Data, data);
}

TEST_F(MachineBootTest, AScheduledDefragmentationLeavesEveryVolumeUnfiltered) {
  kvtestbed::MachineConfig config = Config();
  Machine machine(config);
  kvhost::SetRegistryDword(Machine::ServiceKeyPath(u"DefragFs"), u"Start", 0);
  Volume* c = machine.AddVolume(Lettered(u'C'));
  Volume& shadow = *machine.AddShadowCopy(*c);
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  EXPECT_EQ(FilterOf(*c), nullptr);
  EXPECT_EQ(FilterOf(shadow), nullptr);
  const std::vector<std::string> texts = Texts(Records());
  ASSERT_GE(texts.size(), 2u);
  EXPECT_EQ(texts[0], "CbtIsRaxcoBootTimeDefragEnabled");
  EXPECT_EQ(texts[1], "Driver Loaded 10.0.1000");
}

// A clean shutdown reaches every filter; a power loss takes the driver's memory with it and
// the next boot starts a fresh instance from its own entry.
TEST_F(MachineBootTest, ShutdownReachesEveryFilterAndABootAfterAPowerLossStartsAfresh) {
  Machine machine(Config());
  Volume* c = machine.AddVolume(Lettered(u'C'));
  Volume* d = machine.AddVolume(Lettered(u'D'));
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  CbtDrainQueuedLogRecords(nullptr, CBT_LOG_QUEUE_LIMIT);
  const std::vector<uint8_t> data(512, 0x11);
  ASSERT_EQ(machine.Write(*c, 0, data).Status, STATUS_SUCCESS);

  machine.Crash();
  EXPECT_EQ(c->ReadDirect(0, data.size()), data) << "a completed write survives the power loss";
  kvhost::TakeDebugOutput();
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  EXPECT_EQ(BannersPrinted(), 1u);
  EXPECT_EQ(Texts(Records()).front(), "Driver Loaded 10.0.1000") << "nothing of the lost instance's queue";
  ASSERT_NE(FilterOf(*c), nullptr);
  ASSERT_NE(FilterOf(*d), nullptr);

  machine.Shutdown();
  EXPECT_FALSE(machine.Running());
}

}  // namespace
