// Scenario files of kvcbt-sim (docs/scenario-format.md): parsed and checked whole before
// anything runs, so that every mistake is reported with its line and nothing half runs.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "byte_sizes.h"
#include "kvhost/version.h"
#include "kvtestbed/disk_images.h"
#include "kvtestbed/machine.h"

namespace kvsim {

struct ScenarioError {
  int Line = 0;  // 0: the file as a whole
  std::string Message;
};

enum class StepKind {
  // The machine's configuration (before the first volume or boot).
  Filter,
  AllClearAtBoot,
  // The registry and the Windows release (any time; read at the next boot or load).
  Windows,
  Setting,
  Registry,
  // Volumes.
  Volume,
  ShadowCopy,
  // Power.
  Boot,
  SafeForWrite,
  Shutdown,
  Crash,
  // Requests to the top of a volume's stack, and checks of its disk.
  Write,
  Read,
  Verify,
  Control,
  Bitmap,
  // The mount manager, Plug and Play, notifications, file systems, knobs.
  Link,
  Unlink,
  Letter,
  Online,
  Offline,
  Notify,
  Mount,
  Dismount,
  QueryRemove,
  CancelRemove,
  Remove,
  SurpriseRemove,
  Stop,
  Start,
  Arrive,
  Resize,
  Set,
  Note,
};

// A knob of `set`.
struct Knob {
  enum class Kind { WriteProtected, BitLocker, Completion, Fail, Cancel, Hold } What = Kind::WriteProtected;
  bool On = false;
  NTSTATUS Status = STATUS_SUCCESS;
  uint32_t Count = 0;
  kvtestbed::TransferKind Transfers = kvtestbed::TransferKind::Both;
};

struct Step {
  int Line = 0;
  std::string Source;  // as written, without its comment
  StepKind Kind = StepKind::Note;
  std::string Target;  // the volume a step acts on
  std::optional<NTSTATUS> Expect;

  kvtestbed::VolumeConfig Volume;                // volume
  bool ModelFileSystem = false;                  // volume: formatted with the model file system
  std::optional<kvtestbed::NtfsFormat> Ntfs;     // volume: formatted with NTFS by mkntfs
  std::string NewName;                           // shadow-copy
  uint64_t Offset = 0;                           // write, read
  uint32_t Length = 0;                           // write, read
  std::optional<uint8_t> Fill;                   // write
  std::string Text;                              // write (repeated), note
  ULONG Code = 0;                                // control
  std::vector<uint8_t> Input;                    // control
  std::optional<ULONG> OutLength;                // control
  std::optional<ULONG> Property;                 // control: a STORAGE_PROPERTY_ID
  std::string SavePath;                          // bitmap: the raw copy, saved
  std::string PicturePath;                       // bitmap: a PNG picture of it
  GUID Event{};                                  // notify
  std::u16string LinkName;                       // link, unlink
  char16_t DriveLetter = 0;                      // letter (0: remove it)
  uint64_t Size = 0;                             // resize
  std::vector<Knob> Knobs;                       // set
  std::u16string KeyPath;                        // setting, registry
  kvtestbed::RegistrySetting Value;              // setting, registry
  kvhost::WindowsVersion Version;                // windows
  std::vector<std::u16string> VolumeFilters;     // filter
  std::vector<std::u16string> SnapshotFilters;   // filter
  bool On = true;                                // all-clear-at-boot
};

struct Scenario {
  std::vector<Step> Steps;
};

// Parses and checks a scenario. On failure `errors` holds every mistake found, each with its
// line, and the scenario must not run.
bool ParseScenario(std::string_view text, Scenario* scenario, std::vector<ScenarioError>* errors);

// "64MiB", "4096", "0x1000", "2TiB": a byte count; units are binary (K = KiB = 1024).
std::optional<uint64_t> ParseSize(std::string_view text);
using kvtools::DescribeSize;

}  // namespace kvsim
