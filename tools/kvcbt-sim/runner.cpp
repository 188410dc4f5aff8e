// Running a scenario: the machine built from its configuration, each step carried out and
// reported with what the machine did and what the drivers printed.
#include "runner.h"

#include <map>
#include <memory>
#include <optional>

#include "controls.h"
#include "kvhost/dbgprint.h"
#include "kvhost/object.h"
#include "kvhost/registry.h"
#include "kvhost/verifier.h"
#include "kvtestbed/fs_model.h"
#include "kvtestbed/names.h"

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
    for (kvhost::DebugOutputLine& line : kvhost::TakeDebugOutput()) {
      while (!line.Text.empty() && (line.Text.back() == '\n' || line.Text.back() == '\r')) line.Text.pop_back();
      while (!line.Text.empty() && line.Text.front() == '\n') line.Text.erase(line.Text.begin());
      if (!line.Text.empty()) r.DebugOutput.push_back(std::move(line.Text));
    }
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
