// Running a scenario: the machine built from its configuration, each step carried out and
// reported with what the machine did and what the drivers printed.
#include "runner.h"

#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>

#include "bitmap_view.h"
#include "controls.h"
#include "kvcbt/control.h"
#include "kvhost/dbgprint.h"
#include "kvhost/object.h"
#include "kvhost/registry.h"
#include "kvhost/verifier.h"
#include "kvtestbed/disk_images.h"
#include "kvtestbed/fs_model.h"
#include "kvtestbed/names.h"
#include "linked_drivers.h"

namespace kvsim {
namespace {

using kvtestbed::IoResult;
using kvtestbed::Machine;
using kvtestbed::Volume;

std::string Narrow(std::u16string_view text) { return kvhost::ToUtf8(text); }

std::string VersionText(const kvhost::WindowsVersion& v) {
  return std::to_string(v.Major) + "." + std::to_string(v.Minor) + "." + std::to_string(v.Build);
}

std::string DescribeVolume(const Volume& v) {
  const kvtestbed::VolumeConfig c = v.Config();
  std::string out = DescribeSize(c.SizeBytes) + ", " + std::to_string(c.SectorSize) + "-byte sectors";
  if (!c.ImagePath.empty()) out += ", image " + c.ImagePath;
  if (c.Bus == BusTypeUsb) out += ", USB";
  if (c.RemovableMedia) out += ", removable";
  if (c.Vendor == kvtestbed::kVirtualDiskVendor) out += ", " + c.Vendor + " " + c.Product;
  if (c.Partition == kvtestbed::PartitionKind::Recovery) out += ", recovery partition";
  if (c.Partition == kvtestbed::PartitionKind::Reserved) out += ", reserved partition";
  if (c.WriteProtected) out += ", write-protected";
  if (c.BitLockerLocked) out += ", BitLocker-locked";
  return out;
}

// What a read returned, in a few words.
std::string DescribeBytes(const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) return "0 bytes";
  bool uniform = true;
  for (uint8_t b : bytes) uniform = uniform && b == bytes[0];
  char fill[8];
  std::snprintf(fill, sizeof fill, "0x%02X", bytes[0]);
  if (uniform) return DescribeSize(bytes.size()) + ", every byte " + fill;
  return DescribeSize(bytes.size()) + ": " + HexBytes(bytes, 16);
}

// The bytes a write step sends: a fill byte, a repeated text, or (by default) a pattern of
// its own that no other step repeats.
std::vector<uint8_t> WriteData(const Step& step) {
  std::vector<uint8_t> data(step.Length);
  for (size_t i = 0; i < data.size(); ++i) {
    if (step.Fill)
      data[i] = *step.Fill;
    else if (!step.Text.empty())
      data[i] = static_cast<uint8_t>(step.Text[i % step.Text.size()]);
    else
      data[i] = static_cast<uint8_t>(step.Line * 31 + i * 7 + (i >> 9));
  }
  return data;
}

// What each volume's disk should hold after the completed writes of the scenario, sector by
// sector.
using Expected = std::map<uint64_t, std::vector<uint8_t>>;

class Run {
 public:
  explicit Run(Report* report) : report_(report) {}

  void Go(const Scenario& scenario) {
    kvtestbed::MachineConfig config;
    size_t first = 0;
    // The configuration steps come first; the machine is built at the first other step.
    for (; first < scenario.Steps.size(); ++first) {
      const Step& step = scenario.Steps[first];
      if (step.Kind == StepKind::Filter) {
        config.VolumeUpperFilters = step.VolumeFilters;
        config.SnapshotUpperFilters = step.SnapshotFilters;
      } else if (step.Kind == StepKind::AllClearAtBoot) {
        config.VolumesSafeForWriteAtBoot = step.On;
      } else if (step.Kind == StepKind::Windows) {
        config.Version.Major = step.Version.Major;
        config.Version.Minor = step.Version.Minor;
        config.Version.Build = step.Version.Build;
      } else {
        break;
      }
      StepReport r = Begin(step);
      r.HasStatus = false;
      r.Detail = "machine configuration";
      End(std::move(r));
    }
    report_->Windows = VersionText(config.Version);
    for (const std::u16string& f : config.VolumeUpperFilters) report_->VolumeFilters.push_back(Narrow(f));
    for (const std::u16string& f : config.SnapshotUpperFilters) report_->SnapshotFilters.push_back(Narrow(f));
    machine_ = std::make_unique<Machine>(config);
    for (size_t i = first; i < scenario.Steps.size(); ++i) {
      StepReport r = Begin(scenario.Steps[i]);
      Carry(scenario.Steps[i], r);
      End(std::move(r));
    }
    report_->TakeDown.Source = "(end of the scenario: the machine is taken down)";
    machine_->TakeDown();
    Collect(report_->TakeDown);
    for (Volume* v : machine_->Volumes())
      report_->Volumes.push_back({v->Name(), Narrow(v->DeviceName()), DescribeVolume(*v), v->Counters(), v->BytesAllocated()});
    machine_.reset();
  }

 private:
  StepReport Begin(const Step& step) {
    StepReport r;
    r.Line = step.Line;
    r.Source = step.Source;
    return r;
  }

  void Collect(StepReport& r) {
    if (machine_ != nullptr)
      for (kvtestbed::MachineEvent& e : machine_->TakeEvents()) r.Events.push_back(std::move(e));
    // One DbgPrintEx call may print several lines (the banner does): each is a line here.
    for (const kvhost::DebugOutputLine& output : kvhost::TakeDebugOutput()) {
      size_t start = 0;
      while (start < output.Text.size()) {
        size_t end = output.Text.find('\n', start);
        if (end == std::string::npos) end = output.Text.size();
        std::string line = output.Text.substr(start, end - start);
        while (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) r.DebugOutput.push_back(std::move(line));
        start = end + 1;
      }
    }
    if (machine_ != nullptr)
      for (std::string& record : TakeDriverRecords(*machine_)) r.Records.push_back(std::move(record));
  }

  void End(StepReport r) {
    Collect(r);
    report_->Steps.push_back(std::move(r));
  }

  Volume* Find(const std::string& name) { return machine_->FindVolume(name); }

  // A status the step ends with; unexpected when the scenario said otherwise, or (without
  // expect=) when `failureIsAProblem` and it is a failure.
  void Finish(const Step& step, StepReport& r, NTSTATUS status, bool failureIsAProblem = false) {
    r.Status = status;
    if (step.Expect) {
      if (status != *step.Expect) {
        r.AsExpected = false;
        r.Problem = "expected " + kvtestbed::StatusName(*step.Expect);
      }
    } else if (failureIsAProblem && !NT_SUCCESS(status)) {
      r.AsExpected = false;
      if (r.Problem.empty()) r.Problem = "failed";
    }
  }

  NTSTATUS Running() const { return machine_->Running() ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_STATE; }

  void Carry(const Step& step, StepReport& r) {
    Volume* v = step.Target.empty() ? nullptr : Find(step.Target);
    switch (step.Kind) {
      case StepKind::Filter:
      case StepKind::AllClearAtBoot:
        break;  // the parser keeps them before the machine is built
      case StepKind::Windows: {
        kvhost::WindowsVersion version = machine_->Config().Version;
        version.Major = step.Version.Major;
        version.Minor = step.Version.Minor;
        version.Build = step.Version.Build;
        machine_->SetWindowsVersion(version);
        r.Detail = "Windows " + VersionText(version) + " from the next boot";
        return Finish(step, r, STATUS_SUCCESS);
      }
      case StepKind::Setting:
      case StepKind::Registry: {
        std::u16string key = step.KeyPath;
        if (step.Kind == StepKind::Setting) {
          const auto& filters = machine_->Config().VolumeUpperFilters;
          key = Machine::ServiceKeyPath(filters.empty() ? std::u16string(u"passthrough") : filters.back());
        }
        const bool set = kvhost::SetRegistryValue(key, step.Value.Name, step.Value.Type, step.Value.Data.data(),
                                                  step.Value.Data.size());
        r.Detail = Narrow(key) + "\\" + Narrow(step.Value.Name);
        return Finish(step, r, set ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID, true);
      }
      case StepKind::Volume: {
        std::string error;
        Volume* added = machine_->AddVolume(step.Volume, &error);
        if (added == nullptr) {
          r.Problem = error;
          return Finish(step, r, STATUS_INVALID_PARAMETER, true);
        }
        r.Detail = Narrow(added->DeviceName()) + ", " + DescribeVolume(*added);
        if (step.Ntfs) {
          // Formatted before it is connected, as a disk comes formatted.
          const std::string error = kvtestbed::FormatNtfs(*added, *step.Ntfs);
          if (!error.empty()) {
            r.Problem = "cannot format NTFS: " + error;
            return Finish(step, r, STATUS_UNSUCCESSFUL, true);
          }
          r.Detail += ", NTFS (mkntfs) with " + DescribeSize(step.Ntfs->ClusterSize) + " clusters" +
                      (step.Ntfs->Label.empty() ? "" : ", label \"" + step.Ntfs->Label + "\"");
        }
        if (step.ModelFileSystem) {
          // Formatted before it is connected, as a disk comes formatted.
          kvtestbed::ModelFormat format;
          format.VolumeBytes = added->SizeBytes();
          const NTSTATUS formatted = kvtestbed::FormatModelVolume(*added->DirectIo(), format);
          if (!NT_SUCCESS(formatted)) {
            r.Problem = "cannot format the model file system";
            return Finish(step, r, formatted, true);
          }
          added->AttachFileSystem(std::make_shared<kvtestbed::ModelFileSystem>());
          r.Detail += ", model file system";
        }
        return Finish(step, r, STATUS_SUCCESS);
      }
      case StepKind::ShadowCopy: {
        Volume* copy = machine_->AddShadowCopy(*v, step.NewName);
        expected_[copy->Name()] = expected_[v->Name()];
        r.Detail = copy->Name() + " is " + Narrow(copy->DeviceName());
        return Finish(step, r, STATUS_SUCCESS);
      }
      case StepKind::Boot: {
        const NTSTATUS status = machine_->Boot();
        if (NT_SUCCESS(status)) ++report_->Boots;
        r.Detail = NT_SUCCESS(status) ? "boot " + std::to_string(machine_->BootCount()) : "the machine is running";
        return Finish(step, r, status, true);
      }
      case StepKind::SafeForWrite:
        machine_->SignalVolumesSafeForWrite();
        return Finish(step, r, Running(), true);
      case StepKind::Shutdown:
      case StepKind::Crash: {
        const NTSTATUS status = Running();
        if (NT_SUCCESS(status)) {
          if (step.Kind == StepKind::Shutdown) {
            machine_->Shutdown();
            ++report_->Shutdowns;
          } else {
            machine_->Crash();
            ++report_->PowerLosses;
          }
        } else {
          r.Detail = "the machine is off";
        }
        return Finish(step, r, status, true);
      }
      case StepKind::Write: {
        const std::vector<uint8_t> data = WriteData(step);
        const IoResult result = machine_->Write(*v, step.Offset, data);
        if (NT_SUCCESS(result.Status)) {
          Remember(*v, step.Offset, data);
          r.Detail = DescribeSize(result.Information) + " written";
        }
        return Finish(step, r, result.Status);
      }
      case StepKind::Read: {
        const IoResult result = machine_->Read(*v, step.Offset, step.Length);
        if (NT_SUCCESS(result.Status)) r.Detail = DescribeBytes(result.Data);
        return Finish(step, r, result.Status);
      }
      case StepKind::Verify:
        return Verify(step, *v, r);
      case StepKind::Bitmap:
        return Bitmap(step, *v, r);
      case StepKind::Control: {
        const IoResult result = machine_->Control(*v, step.Code, ControlInput(step), ControlOutputLength(step));
        r.Detail = DescribeControlAnswer(step, result);
        return Finish(step, r, result.Status);
      }
      case StepKind::Link:
        return Finish(step, r, machine_->SendLinkCreated(*v, step.LinkName));
      case StepKind::Unlink:
        return Finish(step, r, machine_->SendLinkDeleted(*v, step.LinkName));
      case StepKind::Letter:
        return Finish(step, r,
                      step.DriveLetter != 0 ? machine_->AssignDriveLetter(*v, step.DriveLetter) : machine_->RemoveDriveLetter(*v));
      case StepKind::Online:
        return Finish(step, r, machine_->Online(*v));
      case StepKind::Offline:
        return Finish(step, r, machine_->Offline(*v));
      case StepKind::Notify:
        r.Detail = kvtestbed::EventName(step.Event);
        return Finish(step, r, machine_->Notify(*v, step.Event));
      case StepKind::Mount:
        return Finish(step, r, machine_->Mount(*v));
      case StepKind::Dismount:
        return Finish(step, r, machine_->Dismount(*v));
      case StepKind::QueryRemove:
        return Finish(step, r, machine_->QueryRemove(*v));
      case StepKind::CancelRemove:
        return Finish(step, r, machine_->CancelRemove(*v));
      case StepKind::Remove:
        return Finish(step, r, machine_->Remove(*v));
      case StepKind::SurpriseRemove:
        return Finish(step, r, machine_->SurpriseRemove(*v));
      case StepKind::Stop:
        return Finish(step, r, machine_->Stop(*v));
      case StepKind::Start:
        return Finish(step, r, machine_->Start(*v));
      case StepKind::Arrive:
        return Finish(step, r, machine_->Arrive(*v));
      case StepKind::Resize:
        r.Detail = "to " + DescribeSize(step.Size);
        return Finish(step, r, machine_->Resize(*v, step.Size));
      case StepKind::Set:
        return Set(step, *v, r);
      case StepKind::Note:
        r.HasStatus = false;
        r.Detail = step.Text;
        return;
    }
  }

  void Set(const Step& step, Volume& v, StepReport& r) {
    std::vector<std::string> done;
    for (const Knob& k : step.Knobs) {
      switch (k.What) {
        case Knob::Kind::WriteProtected:
          v.SetWriteProtected(k.On);
          done.push_back(k.On ? "write-protected" : "writable");
          break;
        case Knob::Kind::BitLocker:
          v.SetBitLockerLocked(k.On);
          done.push_back(k.On ? "BitLocker-locked" : "BitLocker-unlocked");
          break;
        case Knob::Kind::Completion:
          v.SetCompleteFromThread(k.On);
          done.push_back(k.On ? "completing from the storage thread" : "completing inline");
          break;
        case Knob::Kind::Hold:
          v.HoldCompletions(k.On);
          done.push_back(k.On ? "completions held" : "completions released");
          break;
        case Knob::Kind::Cancel:
          v.CancelTransfers(k.Count);
          done.push_back("the next " + std::to_string(k.Count) + " transfer(s) cancelled");
          break;
        case Knob::Kind::Fail: {
          v.FailTransfers(k.Status, k.Count, k.Transfers);
          const char* which = k.Transfers == kvtestbed::TransferKind::Reads    ? "read"
                              : k.Transfers == kvtestbed::TransferKind::Writes ? "write"
                                                                                : "transfer";
          done.push_back("the next " + std::to_string(k.Count) + " " + which + "(s) fail with " +
                         kvtestbed::StatusName(k.Status));
          break;
        }
      }
    }
    for (const std::string& d : done) r.Detail += (r.Detail.empty() ? "" : ", ") + d;
    Finish(step, r, STATUS_SUCCESS);
  }

  // The geometry a backup application works with: the tracking-information query's, or,
  // while the volume has no tracking file for the query to answer from, the same numbers
  // from the driver's volume record.
  std::optional<kvtools::BitmapGeometry> Geometry(Volume& v, std::string* source) {
    const IoResult query = machine_->Control(v, IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX, {},
                                             sizeof(CBT_VOLUME_TRACKING_INFORMATION_EX));
    if (NT_SUCCESS(query.Status) && query.Data.size() >= sizeof(CBT_VOLUME_TRACKING_INFORMATION_EX)) {
      CBT_VOLUME_TRACKING_INFORMATION_EX info;
      std::memcpy(&info, query.Data.data(), sizeof info);
      *source = "the tracking-information query";
      return kvtools::BitmapGeometry{info.BitCount, info.BytesPerBit};
    }
    *source = "the driver's volume record";
    return DriverBitmapGeometry(v.Device());
  }

  // The bitmap copied out through the driver's control code, as a backup application copies
  // it, shown as changed ranges and a map, and checked against the writes that reached the
  // disk since the volume came online: each of their blocks must be marked, and no other.
  void Bitmap(const Step& step, Volume& v, StepReport& r) {
    if (!machine_->Running() || v.Device() == nullptr) return Finish(step, r, STATUS_NO_SUCH_DEVICE);
    std::string source;
    const std::optional<kvtools::BitmapGeometry> geometry = Geometry(v, &source);
    const uint64_t bytes = geometry ? (geometry->BitCount + 7) / 8 : 1;
    const IoResult copy = machine_->Control(v, IOCTL_KVCBT_GET_VOLUME_BITMAP, {}, static_cast<ULONG>(bytes));
    if (!NT_SUCCESS(copy.Status) || !geometry) {
      if (!DriverFiltersVolume(v.Device()))
        r.Detail = v.Name() + " has no tracking driver above it: it filters fixed-disk volumes and shadow copies";
      else if (NT_SUCCESS(machine_->Control(v, IOCTL_KVCBT_CHECK_EXCLUDED).Status))
        r.Detail = v.Name() + " is excluded from tracking: the driver passes its requests through";
      else
        r.Detail = v.Name() + " has no change bitmap: the driver reads no file system on it";
      return Finish(step, r, NT_SUCCESS(copy.Status) ? STATUS_NOT_FOUND : copy.Status);
    }
    const std::span<const uint8_t> bitmap(copy.Data);
    const std::vector<kvtools::ChangedRange> ranges = kvtools::ChangedRanges(bitmap, *geometry);
    const uint64_t changed = kvtools::CountChangedBlocks(bitmap, *geometry);
    r.Detail = std::to_string(changed) + " of " + std::to_string(geometry->BitCount) + " blocks of " +
               DescribeSize(geometry->BytesPerBit) + " changed (" + DescribeSize(changed * geometry->BytesPerBit) +
               " of the volume); geometry from " + source;
    constexpr size_t kShownRanges = 12;
    if (!ranges.empty()) r.Lines.push_back("changed ranges (volume byte offsets):");
    for (size_t i = 0; i < ranges.size() && i < kShownRanges; ++i)
      r.Lines.push_back("  " + kvtools::DescribeRange(ranges[i]));
    if (ranges.size() > kShownRanges)
      r.Lines.push_back("  ... and " + std::to_string(ranges.size() - kShownRanges) + " more ranges");
    for (const std::string& line : kvtools::TextMap(bitmap, *geometry)) r.Lines.push_back(line);
    if (!step.SavePath.empty()) {
      std::ofstream out(step.SavePath, std::ios::binary | std::ios::trunc);
      out.write(reinterpret_cast<const char*>(copy.Data.data()), static_cast<std::streamsize>(copy.Data.size()));
      out.close();
      r.Lines.push_back(out ? "saved the " + DescribeSize(copy.Data.size()) + " bitmap to " + step.SavePath +
                                  " (kvcbt-inspect bitmap " + step.SavePath + " --bytes-per-bit " +
                                  std::to_string(geometry->BytesPerBit) + ")"
                            : "!! cannot write " + step.SavePath);
    }
    if (!step.PicturePath.empty()) {
      const std::string error = kvtools::WriteBitmapPicture(step.PicturePath, bitmap, *geometry);
      r.Lines.push_back(error.empty() ? "picture in " + step.PicturePath : "!! " + error);
    }
    CheckAgainstWrites(v, bitmap, *geometry, r);
    Finish(step, r, copy.Status);
  }

  // Every block of a write the volume took must be marked. A write the volume refused may
  // have been marked on its way down (the driver marks before it passes a write on, which
  // never misses a block); a block no write request touched must not be.
  void CheckAgainstWrites(const Volume& v, std::span<const uint8_t> bitmap, const kvtools::BitmapGeometry& geometry,
                          StepReport& r) {
    std::set<uint64_t> written, touched;
    for (const kvtestbed::WriteRequest& w : v.WriteRequestsSinceOnline()) {
      if (w.Length == 0) continue;
      const uint64_t last = std::min<uint64_t>((w.Offset + w.Length - 1) / geometry.BytesPerBit, geometry.BitCount - 1);
      for (uint64_t block = w.Offset / geometry.BytesPerBit; block <= last; ++block) {
        touched.insert(block);
        if (NT_SUCCESS(w.Status)) written.insert(block);
      }
    }
    uint64_t missing = 0, extra = 0, firstMissing = 0, firstExtra = 0;
    for (uint64_t block : written)
      if (!kvtools::IsBitSet(bitmap, block) && missing++ == 0) firstMissing = block;
    for (uint64_t block = 0; block < geometry.BitCount; ++block)
      if (kvtools::IsBitSet(bitmap, block) && !touched.count(block) && extra++ == 0) firstExtra = block;
    if (missing == 0 && extra == 0) {
      r.Lines.push_back("checked: each of the " + std::to_string(written.size()) + " blocks written since " + v.Name() +
                        " came online is marked, and no block that no write touched");
      return;
    }
    r.AsExpected = false;
    if (missing != 0)
      r.Problem = std::to_string(missing) + " written blocks are not marked, the first block " +
                  std::to_string(firstMissing);
    if (extra != 0)
      r.Problem += (r.Problem.empty() ? "" : "; ") + std::to_string(extra) +
                   " blocks are marked that no write touched since the volume came online, the first block " +
                   std::to_string(firstExtra);
  }

  void Remember(const Volume& v, uint64_t offset, const std::vector<uint8_t>& data) {
    const uint32_t sector = v.Config().SectorSize;
    Expected& e = expected_[v.Name()];
    for (size_t at = 0; at < data.size(); at += sector)
      e[(offset + at) / sector] = std::vector<uint8_t>(data.begin() + at, data.begin() + at + sector);
  }

  // Every sector a completed write of the scenario put on the volume must be on its disk.
  void Verify(const Step& step, const Volume& v, StepReport& r) {
    const uint32_t sector = v.Config().SectorSize;
    const uint64_t size = v.SizeBytes();
    size_t checked = 0, differing = 0;
    uint64_t firstDifference = 0;
    for (const auto& [index, bytes] : expected_[v.Name()]) {
      if ((index + 1) * sector > size) continue;  // cut off by a resize
      ++checked;
      if (v.ReadDirect(index * sector, sector) != bytes && differing++ == 0) firstDifference = index * sector;
    }
    if (differing == 0) {
      r.Detail = "the disk holds all " + DescribeSize(checked * sector) + " that completed writes put there";
      return Finish(step, r, STATUS_SUCCESS);
    }
    r.Detail = std::to_string(differing) + " of " + std::to_string(checked) + " written sectors differ on the disk, " +
               "the first at offset " + std::to_string(firstDifference);
    r.Problem = "the disk lost completed writes";
    Finish(step, r, STATUS_DATA_ERROR, true);
  }

  Report* report_;
  std::unique_ptr<Machine> machine_;
  std::map<std::string, Expected> expected_;
};

}  // namespace

size_t Report::Unexpected() const {
  size_t n = 0;
  for (const StepReport& s : Steps) n += !s.AsExpected;
  return n;
}

Report RunScenario(const Scenario& scenario, std::string origin) {
  Report report;
  report.Scenario = std::move(origin);
  kvhost::BeginTest();
  kvhost::SetDebugOutputEcho(false);
  Run(&report).Go(scenario);
  report.LeftBehind = kvhost::EndTest();
  return report;
}

}  // namespace kvsim
