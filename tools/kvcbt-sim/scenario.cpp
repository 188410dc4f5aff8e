// The scenario parser: statements, their arguments and their checks.
#include "scenario.h"

#include <ioevent.h>
#include <ntddstor.h>
#include <wdmguid.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <map>
#include <set>

#include "kvhost/object.h"
#include "kvtestbed/driver_images.h"
#include "kvtestbed/names.h"

namespace kvsim {
namespace {

// Larger volumes than this are a typing mistake, not a test.
constexpr uint64_t kMaxVolumeBytes = 1ull << 50;  // 1 PiB
// One write or read moves at most this much.
constexpr uint64_t kMaxTransferBytes = 64ull << 20;

struct Token {
  std::string Key;  // empty for a positional argument
  std::string Value;
  bool Quoted = false;
};

// A key=value argument; keys match without regard to case, Spelling keeps the key as written
// (a registry value's name).
struct NamedArgument {
  std::string Key;
  std::string Spelling;
  std::string Value;
  bool Quoted = false;
};

struct Statement {
  int Line = 0;
  std::string Source;
  std::string Word;
  std::vector<std::string> Positional;
  std::vector<NamedArgument> Named;
};

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Splits a line into tokens: words, key=value pairs and "quoted text" (with \" and \\).
// Returns false with `error` set for a quote that does not end.
bool Tokenize(std::string_view line, std::vector<Token>* tokens, std::string* source, std::string* error) {
  size_t i = 0;
  size_t end = 0;
  auto readValue = [&](std::string* out, bool* quoted) {
    if (i < line.size() && line[i] == '"') {
      *quoted = true;
      ++i;
      while (i < line.size() && line[i] != '"') {
        if (line[i] == '\\' && i + 1 < line.size()) ++i;
        out->push_back(line[i++]);
      }
      if (i >= line.size()) return false;
      ++i;
      return true;
    }
    while (i < line.size() && !IsSpace(line[i]) && line[i] != '#') out->push_back(line[i++]);
    return true;
  };
  while (true) {
    while (i < line.size() && IsSpace(line[i])) ++i;
    if (i >= line.size() || line[i] == '#') break;
    Token token;
    if (line[i] != '"') {
      while (i < line.size() && !IsSpace(line[i]) && line[i] != '#' && line[i] != '=' && line[i] != '"')
        token.Value.push_back(line[i++]);
      if (i < line.size() && line[i] == '=') {
        ++i;
        token.Key = std::move(token.Value);
        token.Value.clear();
        if (token.Key.empty()) {
          *error = "'=' without a name before it";
          return false;
        }
      }
    }
    if ((token.Key.empty() && token.Value.empty()) || !token.Key.empty()) {
      if (!readValue(&token.Value, &token.Quoted)) {
        *error = "a quoted text does not end on this line";
        return false;
      }
    }
    tokens->push_back(std::move(token));
    end = i;
  }
  *source = std::string(line.substr(0, end));
  while (!source->empty() && IsSpace(source->front())) source->erase(source->begin());
  return true;
}

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::optional<uint64_t> ParseNumber(std::string_view text) {
  if (text.empty()) return std::nullopt;
  uint64_t value = 0;
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  for (char c : text.substr(hex ? 2 : 0)) {
    int digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (hex && c >= 'a' && c <= 'f') digit = c - 'a' + 10;
    else if (hex && c >= 'A' && c <= 'F') digit = c - 'A' + 10;
    else return std::nullopt;
    const uint64_t base = hex ? 16 : 10;
    if (value > (UINT64_MAX - digit) / base) return std::nullopt;
    value = value * base + digit;
  }
  return value;
}

std::optional<bool> ParseSwitch(std::string_view text) {
  const std::string s = Lower(text);
  if (s == "on" || s == "yes" || s == "true" || s == "1") return true;
  if (s == "off" || s == "no" || s == "false" || s == "0") return false;
  return std::nullopt;
}

std::optional<STORAGE_BUS_TYPE> ParseBus(std::string_view text) {
  static const std::map<std::string, STORAGE_BUS_TYPE> kBuses = {
      {"unknown", BusTypeUnknown}, {"scsi", BusTypeScsi},   {"atapi", BusTypeAtapi},   {"ata", BusTypeAta},
      {"1394", BusType1394},       {"fibre", BusTypeFibre}, {"usb", BusTypeUsb},       {"raid", BusTypeRAID},
      {"iscsi", BusTypeiScsi},     {"sas", BusTypeSas},     {"sata", BusTypeSata},     {"sd", BusTypeSd},
      {"mmc", BusTypeMmc},         {"virtual", BusTypeVirtual}, {"file-backed-virtual", BusTypeFileBackedVirtual},
      {"spaces", BusTypeSpaces},   {"nvme", BusTypeNvme},   {"scm", BusTypeSCM},       {"ufs", BusTypeUfs}};
  auto it = kBuses.find(Lower(text));
  if (it == kBuses.end()) return std::nullopt;
  return it->second;
}

const std::map<std::string, const GUID*>& VolumeEvents() {
  static const std::map<std::string, const GUID*> kEvents = {
      {"lock", &GUID_IO_VOLUME_LOCK},
      {"unlock", &GUID_IO_VOLUME_UNLOCK},
      {"lock-failed", &GUID_IO_VOLUME_LOCK_FAILED},
      {"dismount", &GUID_IO_VOLUME_DISMOUNT},
      {"dismount-failed", &GUID_IO_VOLUME_DISMOUNT_FAILED},
      {"mount", &GUID_IO_VOLUME_MOUNT},
      {"query-remove", &GUID_TARGET_DEVICE_QUERY_REMOVE},
      {"remove-cancelled", &GUID_TARGET_DEVICE_REMOVE_CANCELLED},
      {"remove-complete", &GUID_TARGET_DEVICE_REMOVE_COMPLETE},
      {"size-change", &GUID_IO_VOLUME_CHANGE_SIZE},
      {"fve-status-change", &GUID_IO_VOLUME_FVE_STATUS_CHANGE},
      {"need-chkdsk", &GUID_IO_VOLUME_NEED_CHKDSK},
      {"force-closed", &GUID_IO_VOLUME_FORCE_CLOSED},
  };
  return kEvents;
}

std::string Join(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : ", ") + item;
  return out;
}

std::u16string Wide(std::string_view text) { return kvhost::ToWString(text); }

class Parser {
 public:
  Parser(Scenario* scenario, std::vector<ScenarioError>* errors) : scenario_(scenario), errors_(errors) {}

  void Line(int number, std::string_view text) {
    std::vector<Token> tokens;
    std::string error;
    Statement s;
    s.Line = number;
    if (!Tokenize(text, &tokens, &s.Source, &error)) return Error(number, error);
    if (tokens.empty()) return;
    if (!tokens[0].Key.empty()) return Error(number, "a line starts with a step, not with " + tokens[0].Key + "=");
    s.Word = tokens[0].Value;
    for (size_t i = 1; i < tokens.size(); ++i) {
      if (tokens[i].Key.empty())
        s.Positional.push_back(tokens[i].Value);
      else
        s.Named.push_back({Lower(tokens[i].Key), tokens[i].Key, tokens[i].Value, tokens[i].Quoted});
    }
    Statement_(s);
  }

 private:
  struct Spec {
    StepKind Kind;
    const char* Usage;
    std::vector<std::string> Keys;  // named arguments it takes (expect= is always allowed)
    std::function<bool(const Statement&, Step&)> Parse;
  };

  void Error(int line, std::string message) { errors_->push_back({line, std::move(message)}); }
  bool Fail(const Statement& s, std::string message) {
    Error(s.Line, std::move(message));
    return false;
  }

  const std::string* Named(const Statement& s, std::string_view key) const {
    for (const NamedArgument& a : s.Named)
      if (a.Key == key) return &a.Value;
    return nullptr;
  }

  bool Size(const Statement& s, const std::string& text, const char* what, uint64_t* out) {
    std::optional<uint64_t> value = ParseSize(text);
    if (!value)
      return Fail(s, "bad " + std::string(what) + " '" + text +
                         "' (a number of bytes with an optional unit: 512, 4KiB, 64MiB, 2TiB, 0x1000)");
    *out = *value;
    return true;
  }

  bool Status(const Statement& s, const std::string& text, NTSTATUS* out) {
    std::optional<NTSTATUS> status = kvtestbed::ParseStatus(text);
    if (!status) return Fail(s, "unknown status '" + text + "' (a name such as STATUS_IO_DEVICE_ERROR, or 0xC0000185)");
    *out = *status;
    return true;
  }

  // The volume a step names first; a volume must be declared before it is used.
  bool Target(const Statement& s, Step& step) {
    if (s.Positional.empty()) return Fail(s, s.Word + " needs a volume");
    if (!volumes_.count(s.Positional[0]))
      return Fail(s, "unknown volume '" + s.Positional[0] + "'" +
                         (volumes_.empty() ? std::string(" (no volume is declared yet)")
                                           : " (volumes: " + Join({volumes_.begin(), volumes_.end()}) + ")"));
    step.Target = s.Positional[0];
    return true;
  }

  bool Count(const Statement& s, size_t wanted, const char* usage) {
    if (s.Positional.size() == wanted) return true;
    return Fail(s, std::string(s.Positional.size() < wanted ? "missing" : "too many") + " arguments: " + usage);
  }

  bool ParseFilter(const Statement& s, Step& step) {
    if (machineConfigured_)
      return Fail(s, "filter configures the machine: it comes before the first volume or boot");
    auto names = [&](const std::string& list, std::vector<std::u16string>* out) {
      size_t start = 0;
      while (start <= list.size()) {
        const size_t comma = std::min(list.find(',', start), list.size());
        const std::string name = list.substr(start, comma - start);
        if (!name.empty()) {
          if (kvtestbed::FindDriverImage(Wide(name)) == nullptr) {
            std::vector<std::string> known;
            for (const std::u16string& n : kvtestbed::DriverImageNames()) known.push_back(kvhost::ToUtf8(n));
            return Fail(s, "no driver image named '" + name + "' in this build (available: " + Join(known) + ")");
          }
          out->push_back(Wide(name));
        }
        start = comma + 1;
      }
      return true;
    };
    const std::string* volume = Named(s, "volume");
    const std::string* snapshot = Named(s, "snapshot");
    if (s.Positional.empty() && volume == nullptr && snapshot == nullptr)
      return Fail(s, "filter needs the names of the filter drivers, bottom first (filter passthrough)");
    for (const std::string& name : s.Positional) {
      if (!names(name, &step.VolumeFilters) || !names(name, &step.SnapshotFilters)) return false;
    }
    if (volume != nullptr && !names(*volume, &step.VolumeFilters)) return false;
    if (snapshot != nullptr && !names(*snapshot, &step.SnapshotFilters)) return false;
    return true;
  }

  bool ParseWindows(const Statement& s, Step& step) {
    if (!Count(s, 1, "windows <major>.<minor>.<build>")) return false;
    unsigned major = 0, minor = 0, build = 0;
    char extra = 0;
    if (std::sscanf(s.Positional[0].c_str(), "%u.%u.%u%c", &major, &minor, &build, &extra) != 3)
      return Fail(s, "bad Windows version '" + s.Positional[0] + "' (major.minor.build, for example 10.0.26100)");
    step.Version.Major = major;
    step.Version.Minor = minor;
    step.Version.Build = build;
    return true;
  }

  // Name=value: a number is a REG_DWORD, a quoted text a REG_SZ.
  bool Value(const Statement& s, const std::string& name, const std::string& value, bool quoted, Step& step) {
    if (!quoted) {
      std::optional<uint64_t> number = ParseNumber(value);
      if (!number || *number > 0xFFFFFFFFull)
        return Fail(s, "bad value '" + value + "' for " + name + " (a 32-bit number, or a \"quoted text\")");
      step.Value = kvtestbed::RegistrySetting::Dword(Wide(name), static_cast<ULONG>(*number));
    } else {
      step.Value = kvtestbed::RegistrySetting::String(Wide(name), Wide(value));
    }
    return true;
  }

  bool ParseSetting(const Statement& s, Step& step, bool registry) {
    const char* usage = registry ? "registry <key> <Name>=<value>" : "setting <Name>=<value>";
    if (s.Named.size() != 1 || s.Positional.size() != (registry ? 1u : 0u)) return Fail(s, std::string("usage: ") + usage);
    if (registry) {
      std::u16string key = Wide(s.Positional[0]);
      if (key.rfind(u"\\Registry\\", 0) != 0) key = u"\\Registry\\Machine\\" + key;
      step.KeyPath = key;
    }
    const NamedArgument& a = s.Named[0];
    return Value(s, a.Spelling, a.Value, a.Quoted, step);
  }

  bool ParseVolume(const Statement& s, Step& step) {
    if (s.Positional.size() != 1) return Fail(s, "usage: volume <name> size=<size> [sector=512|4096] [...]");
    const std::string& name = s.Positional[0];
    if (volumes_.count(name)) return Fail(s, "volume '" + name + "' is declared twice");
    kvtestbed::VolumeConfig& v = step.Volume;
    v.Name = name;
    if (name.size() == 2 && name[1] == ':' && std::isalpha(static_cast<unsigned char>(name[0])))
      v.DriveLetter = static_cast<char16_t>(std::toupper(static_cast<unsigned char>(name[0])));
    const std::string* size = Named(s, "size");
    if (size == nullptr) return Fail(s, "volume " + name + " needs size=<size>");
    if (!Size(s, *size, "size", &v.SizeBytes)) return false;
    if (const std::string* sector = Named(s, "sector")) {
      uint64_t bytes = 0;
      if (!Size(s, *sector, "sector size", &bytes)) return false;
      if (bytes != 512 && bytes != 4096) return Fail(s, "bad sector size '" + *sector + "' (512 or 4096)");
      v.SectorSize = static_cast<uint32_t>(bytes);
    }
    if (v.SizeBytes == 0 || v.SizeBytes % v.SectorSize != 0)
      return Fail(s, "bad size '" + *size + "' (a positive multiple of the " + std::to_string(v.SectorSize) +
                         "-byte sector)");
    if (v.SizeBytes > kMaxVolumeBytes) return Fail(s, "size '" + *size + "' is larger than 1 PiB");
    if (const std::string* letter = Named(s, "letter")) {
      if (letter->size() > 2 || letter->empty() || !std::isalpha(static_cast<unsigned char>((*letter)[0])) ||
          (letter->size() == 2 && (*letter)[1] != ':'))
        return Fail(s, "bad drive letter '" + *letter + "' (A: to Z:)");
      v.DriveLetter = static_cast<char16_t>(std::toupper(static_cast<unsigned char>((*letter)[0])));
    }
    if (const std::string* image = Named(s, "image")) v.ImagePath = *image;
    if (const std::string* bus = Named(s, "bus")) {
      std::optional<STORAGE_BUS_TYPE> type = ParseBus(*bus);
      if (!type) return Fail(s, "unknown bus '" + *bus + "' (sata, sas, nvme, usb, scsi, ata, virtual, ...)");
      v.Bus = *type;
    }
    if (const std::string* identity = Named(s, "identity")) {
      const std::string id = Lower(*identity);
      if (id == "virtual-disk") {
        v.Vendor = kvtestbed::kVirtualDiskVendor;
        v.Product = kvtestbed::kVirtualDiskProduct;
      } else if (id == "xvdd") {
        v.Vendor = kvtestbed::kVirtualDiskVendor;
        v.Product = kvtestbed::kXvddProduct;
      } else if (id != "disk") {
        return Fail(s, "unknown identity '" + *identity + "' (disk, virtual-disk, xvdd)");
      }
    }
    if (const std::string* vendor = Named(s, "vendor")) v.Vendor = *vendor;
    if (const std::string* product = Named(s, "product")) v.Product = *product;
    if (const std::string* type = Named(s, "type")) {
      const std::string t = Lower(*type);
      if (t == "disk") v.DeviceType = FILE_DEVICE_DISK;
      else if (t == "virtual-disk") v.DeviceType = FILE_DEVICE_VIRTUAL_DISK;
      else return Fail(s, "unknown device type '" + *type + "' (disk, virtual-disk)");
    }
    if (const std::string* partition = Named(s, "partition")) {
      const std::string p = Lower(*partition);
      if (p == "mbr") v.PartitionStyle = PARTITION_STYLE_MBR;
      else if (p == "gpt") v.PartitionStyle = PARTITION_STYLE_GPT;
      else return Fail(s, "unknown partition style '" + *partition + "' (gpt, mbr)");
    }
    if (const std::string* kind = Named(s, "kind")) {
      const std::string k = Lower(*kind);
      if (k == "data") v.Partition = kvtestbed::PartitionKind::Data;
      else if (k == "recovery") v.Partition = kvtestbed::PartitionKind::Recovery;
      else if (k == "reserved") v.Partition = kvtestbed::PartitionKind::Reserved;
      else return Fail(s, "unknown partition kind '" + *kind + "' (data, recovery, reserved)");
      if (v.Partition == kvtestbed::PartitionKind::Reserved && v.PartitionStyle == PARTITION_STYLE_MBR)
        return Fail(s, "a reserved partition exists only on a GPT disk");
    }
    if (const std::string* attributes = Named(s, "gpt-attributes")) {
      std::optional<uint64_t> value = ParseNumber(*attributes);
      if (!value) return Fail(s, "bad GPT attributes '" + *attributes + "' (a number such as 0x8000000000000000)");
      v.GptAttributes = *value;
    }
    struct Flag {
      const char* Key;
      bool* Field;
    };
    for (const Flag& f : {Flag{"removable", &v.RemovableMedia}, Flag{"write-protected", &v.WriteProtected},
                          Flag{"bitlocker-locked", &v.BitLockerLocked}, Flag{"async", &v.CompleteFromThread}}) {
      const std::string* value = Named(s, f.Key);
      if (value == nullptr) continue;
      std::optional<bool> on = ParseSwitch(*value);
      if (!on) return Fail(s, "bad value '" + *value + "' for " + f.Key + "= (yes or no)");
      *f.Field = *on;
    }
    if (const std::string* fs = Named(s, "file-system")) {
      const std::string f = Lower(*fs);
      if (f == "model") step.ModelFileSystem = true;
      else if (f != "none") return Fail(s, "unknown file system '" + *fs + "' (model, none)");
    }
    if (!ParseFormat(s, step)) return false;
    volumes_.insert(name);
    return true;
  }

  // format=ntfs [cluster=<size>] [label="text"]: the disk comes formatted by mkntfs.
  bool ParseFormat(const Statement& s, Step& step) {
    const std::string* format = Named(s, "format");
    const std::string* cluster = Named(s, "cluster");
    const std::string* label = Named(s, "label");
    if (format == nullptr) {
      if (cluster != nullptr || label != nullptr) return Fail(s, "cluster= and label= belong to format=ntfs");
      return true;
    }
    if (Lower(*format) != "ntfs") return Fail(s, "unknown format '" + *format + "' (ntfs)");
    if (step.ModelFileSystem) return Fail(s, "a volume has one file system: format=ntfs or file-system=model");
    kvtestbed::NtfsFormat ntfs;
    if (cluster != nullptr) {
      uint64_t bytes = 0;
      if (!Size(s, *cluster, "cluster size", &bytes)) return false;
      if (bytes < step.Volume.SectorSize || bytes > (2u << 20) || (bytes & (bytes - 1)) != 0)
        return Fail(s, "bad cluster size '" + *cluster + "' (a power of two from the sector size to 2MiB)");
      ntfs.ClusterSize = static_cast<uint32_t>(bytes);
    }
    if (ntfs.ClusterSize < step.Volume.SectorSize) ntfs.ClusterSize = step.Volume.SectorSize;
    if (label != nullptr) {
      if (label->size() > 32) return Fail(s, "label '" + *label + "' is longer than 32 characters");
      ntfs.Label = *label;
    }
    // mkntfs needs room for its metadata: a volume below a megabyte is no NTFS volume.
    if (step.Volume.SizeBytes < (1ull << 20)) return Fail(s, "an NTFS volume needs at least 1MiB");
    step.Ntfs = ntfs;
    return true;
  }

  bool ParseBitmap(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 1, "bitmap <volume> [save=<file>] [picture=<file.png>]")) return false;
    if (const std::string* save = Named(s, "save")) {
      if (save->empty()) return Fail(s, "save= needs a file name");
      step.SavePath = *save;
    }
    if (const std::string* picture = Named(s, "picture")) {
      if (picture->empty()) return Fail(s, "picture= needs a file name");
      step.PicturePath = *picture;
    }
    return true;
  }

  bool ParseShadowCopy(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 1, "shadow-copy <volume> [as=<name>]")) return false;
    if (shadowCopyNames_.count(step.Target)) return Fail(s, step.Target + " is a shadow copy: it has none of its own");
    const std::string* as = Named(s, "as");
    step.NewName = as != nullptr ? *as : step.Target + "@" + std::to_string(++shadowCopies_[step.Target]);
    if (volumes_.count(step.NewName)) return Fail(s, "volume '" + step.NewName + "' is declared twice");
    volumes_.insert(step.NewName);
    shadowCopyNames_.insert(step.NewName);
    return true;
  }

  bool ParseTransfer(const Statement& s, Step& step, bool write) {
    const char* usage = write ? "write <volume> <offset> <length> [pattern=0xNN | text=\"...\"]"
                              : "read <volume> <offset> <length>";
    if (!Target(s, step) || !Count(s, 3, usage)) return false;
    uint64_t length = 0;
    if (!Size(s, s.Positional[1], "offset", &step.Offset) || !Size(s, s.Positional[2], "length", &length)) return false;
    if (length > kMaxTransferBytes) return Fail(s, "length '" + s.Positional[2] + "' is more than 64 MiB in one request");
    step.Length = static_cast<uint32_t>(length);
    if (const std::string* pattern = Named(s, "pattern")) {
      std::optional<uint64_t> byte = ParseNumber(*pattern);
      if (!byte || *byte > 0xFF) return Fail(s, "bad pattern '" + *pattern + "' (one byte, such as 0xAB)");
      step.Fill = static_cast<uint8_t>(*byte);
    }
    if (const std::string* text = Named(s, "text")) {
      if (text->empty()) return Fail(s, "text= needs at least one character");
      if (step.Fill) return Fail(s, "pattern= and text= cannot both give the data");
      step.Text = *text;
    }
    return true;
  }

  bool ParseControl(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 2, "control <volume> <control code> [in=<hex bytes>] [out=<size>]")) return false;
    std::optional<ULONG> code = kvtestbed::ParseControlCode(s.Positional[1]);
    if (!code) return Fail(s, "unknown control code '" + s.Positional[1] + "' (a name such as IOCTL_DISK_GET_LENGTH_INFO, or 0x0007405C)");
    step.Code = *code;
    if (const std::string* in = Named(s, "in")) {
      std::string hex;
      for (char c : *in)
        if (!IsSpace(c) && c != ':' && c != '-') hex.push_back(c);
      if (hex.size() % 2 != 0) return Fail(s, "bad input bytes '" + *in + "' (pairs of hexadecimal digits)");
      for (size_t i = 0; i < hex.size(); i += 2) {
        std::optional<uint64_t> byte = ParseNumber("0x" + hex.substr(i, 2));
        if (!byte) return Fail(s, "bad input bytes '" + *in + "' (pairs of hexadecimal digits)");
        step.Input.push_back(static_cast<uint8_t>(*byte));
      }
    }
    if (const std::string* out = Named(s, "out")) {
      uint64_t bytes = 0;
      if (!Size(s, *out, "output size", &bytes)) return false;
      if (bytes > kMaxTransferBytes) return Fail(s, "output size '" + *out + "' is more than 64 MiB");
      step.OutLength = static_cast<ULONG>(bytes);
    }
    if (const std::string* property = Named(s, "property")) {
      const std::string p = Lower(*property);
      if (p == "device") step.Property = StorageDeviceProperty;
      else if (p == "adapter") step.Property = StorageAdapterProperty;
      else return Fail(s, "unknown storage property '" + *property + "' (device, adapter)");
    }
    return true;
  }

  bool ParseNotify(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 2, "notify <volume> <event>")) return false;
    const auto& events = VolumeEvents();
    auto it = events.find(Lower(s.Positional[1]));
    if (it != events.end()) {
      step.Event = *it->second;
      return true;
    }
    for (const auto& [name, guid] : events)
      if (kvtestbed::EventName(*guid) == s.Positional[1]) {
        step.Event = *guid;
        return true;
      }
    std::vector<std::string> names;
    for (const auto& [name, guid] : events) names.push_back(name);
    return Fail(s, "unknown event '" + s.Positional[1] + "' (" + Join(names) + ")");
  }

  bool ParseLink(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 2, "link|unlink <volume> <name>")) return false;
    step.LinkName = Wide(s.Positional[1]);
    return true;
  }

  bool ParseLetter(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 2, "letter <volume> <X:|none>")) return false;
    const std::string& letter = s.Positional[1];
    if (Lower(letter) == "none") return true;
    if (letter.size() != 2 || letter[1] != ':' || !std::isalpha(static_cast<unsigned char>(letter[0])))
      return Fail(s, "bad drive letter '" + letter + "' (A: to Z:, or none)");
    step.DriveLetter = static_cast<char16_t>(std::toupper(static_cast<unsigned char>(letter[0])));
    return true;
  }

  bool ParseResize(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 2, "resize <volume> <size>")) return false;
    if (!Size(s, s.Positional[1], "size", &step.Size)) return false;
    if (step.Size == 0 || step.Size > kMaxVolumeBytes) return Fail(s, "bad size '" + s.Positional[1] + "'");
    return true;
  }

  // set <volume> write-protected=yes bitlocker=locked completion=thread fail=STATUS/3/writes
  //     cancel=2 hold=yes
  bool ParseSet(const Statement& s, Step& step) {
    if (!Target(s, step) || !Count(s, 1, "set <volume> <knob>=<value> ...")) return false;
    for (const NamedArgument& a : s.Named) {
      const std::string& key = a.Key;
      const std::string& value = a.Value;
      Knob k;
      if (key == "write-protected" || key == "hold") {
        std::optional<bool> on = ParseSwitch(value);
        if (!on) return Fail(s, "bad value '" + value + "' for " + key + "= (yes or no)");
        k.What = key == "hold" ? Knob::Kind::Hold : Knob::Kind::WriteProtected;
        k.On = *on;
      } else if (key == "bitlocker") {
        const std::string v = Lower(value);
        if (v != "locked" && v != "unlocked") return Fail(s, "bad value '" + value + "' for bitlocker= (locked or unlocked)");
        k.What = Knob::Kind::BitLocker;
        k.On = v == "locked";
      } else if (key == "completion") {
        const std::string v = Lower(value);
        if (v != "inline" && v != "thread") return Fail(s, "bad value '" + value + "' for completion= (inline or thread)");
        k.What = Knob::Kind::Completion;
        k.On = v == "thread";
      } else if (key == "cancel") {
        std::optional<uint64_t> n = ParseNumber(value);
        if (!n || *n > 0xFFFFFFFFull) return Fail(s, "bad count '" + value + "' for cancel=");
        k.What = Knob::Kind::Cancel;
        k.Count = static_cast<uint32_t>(*n);
      } else if (key == "fail") {
        // STATUS[/count[/reads|writes]]
        k.What = Knob::Kind::Fail;
        k.Count = 1;
        const size_t slash = value.find('/');
        if (!Status(s, value.substr(0, slash), &k.Status)) return false;
        if (slash != std::string::npos) {
          const std::string rest = value.substr(slash + 1);
          const size_t second = rest.find('/');
          std::optional<uint64_t> n = ParseNumber(rest.substr(0, second));
          if (!n || *n > 0xFFFFFFFFull) return Fail(s, "bad count in fail='" + value + "' (STATUS/count/reads|writes)");
          k.Count = static_cast<uint32_t>(*n);
          if (second != std::string::npos) {
            const std::string which = Lower(rest.substr(second + 1));
            if (which == "reads") k.Transfers = kvtestbed::TransferKind::Reads;
            else if (which == "writes") k.Transfers = kvtestbed::TransferKind::Writes;
            else if (which != "both") return Fail(s, "bad transfers in fail='" + value + "' (reads, writes or both)");
          }
        }
      } else {
        return Fail(s, "unknown knob '" + key + "=' (write-protected, bitlocker, completion, fail, cancel, hold)");
      }
      step.Knobs.push_back(k);
    }
    if (step.Knobs.empty()) return Fail(s, "set needs at least one knob, such as write-protected=yes");
    return true;
  }

  const std::map<std::string, Spec>& Specs() {
    if (specs_.empty()) specs_ = MakeSpecs();
    return specs_;
  }

  std::map<std::string, Spec> MakeSpecs() {
    using K = StepKind;
    auto target = [this](const char* usage) {
      return [this, usage](const Statement& s, Step& step) { return Target(s, step) && Count(s, 1, usage); };
    };
    auto bare = [this](const char* usage) {
      return [this, usage](const Statement& s, Step&) { return Count(s, 0, usage); };
    };
    return {
        {"filter", {K::Filter, "filter <driver>[,<driver>...] [volume=...] [snapshot=...]", {"volume", "snapshot"},
                    [this](const Statement& s, Step& st) { return ParseFilter(s, st); }}},
        {"all-clear-at-boot", {K::AllClearAtBoot, "all-clear-at-boot yes|no", {},
                               [this](const Statement& s, Step& st) {
                                 if (machineConfigured_)
                                   return Fail(s, "all-clear-at-boot configures the machine: it comes before the first volume or boot");
                                 if (!Count(s, 1, "all-clear-at-boot yes|no")) return false;
                                 std::optional<bool> on = ParseSwitch(s.Positional[0]);
                                 if (!on) return Fail(s, "bad value '" + s.Positional[0] + "' (yes or no)");
                                 st.On = *on;
                                 return true;
                               }}},
        {"windows", {K::Windows, "windows <major>.<minor>.<build>", {},
                     [this](const Statement& s, Step& st) { return ParseWindows(s, st); }}},
        {"setting", {K::Setting, "setting <Name>=<value>", {"*"},
                     [this](const Statement& s, Step& st) { return ParseSetting(s, st, false); }}},
        {"registry", {K::Registry, "registry <key> <Name>=<value>", {"*"},
                      [this](const Statement& s, Step& st) { return ParseSetting(s, st, true); }}},
        {"volume", {K::Volume, "volume <name> size=<size> ...",
                    {"size", "sector", "letter", "image", "bus", "identity", "vendor", "product", "type", "partition",
                     "kind", "gpt-attributes", "removable", "write-protected", "bitlocker-locked", "async", "file-system",
                     "format", "cluster", "label"},
                    [this](const Statement& s, Step& st) { return ParseVolume(s, st); }}},
        {"shadow-copy", {K::ShadowCopy, "shadow-copy <volume> [as=<name>]", {"as"},
                         [this](const Statement& s, Step& st) { return ParseShadowCopy(s, st); }}},
        {"boot", {K::Boot, "boot", {}, bare("boot")}},
        {"safe-for-write", {K::SafeForWrite, "safe-for-write", {}, bare("safe-for-write")}},
        {"shutdown", {K::Shutdown, "shutdown", {}, bare("shutdown")}},
        {"crash", {K::Crash, "crash", {}, bare("crash")}},
        {"write", {K::Write, "write <volume> <offset> <length> [pattern=0xNN | text=\"...\"]", {"pattern", "text"},
                   [this](const Statement& s, Step& st) { return ParseTransfer(s, st, true); }}},
        {"read", {K::Read, "read <volume> <offset> <length>", {},
                  [this](const Statement& s, Step& st) { return ParseTransfer(s, st, false); }}},
        {"verify", {K::Verify, "verify <volume>", {}, target("verify <volume>")}},
        {"control", {K::Control, "control <volume> <code> [in=<hex>] [out=<size>] [property=device|adapter]",
                     {"in", "out", "property"}, [this](const Statement& s, Step& st) { return ParseControl(s, st); }}},
        {"bitmap", {K::Bitmap, "bitmap <volume> [save=<file>] [picture=<file.png>]", {"save", "picture"},
                    [this](const Statement& s, Step& st) { return ParseBitmap(s, st); }}},
        {"link", {K::Link, "link <volume> <name>", {}, [this](const Statement& s, Step& st) { return ParseLink(s, st); }}},
        {"unlink", {K::Unlink, "unlink <volume> <name>", {},
                    [this](const Statement& s, Step& st) { return ParseLink(s, st); }}},
        {"letter", {K::Letter, "letter <volume> <X:|none>", {},
                    [this](const Statement& s, Step& st) { return ParseLetter(s, st); }}},
        {"online", {K::Online, "online <volume>", {}, target("online <volume>")}},
        {"offline", {K::Offline, "offline <volume>", {}, target("offline <volume>")}},
        {"notify", {K::Notify, "notify <volume> <event>", {},
                    [this](const Statement& s, Step& st) { return ParseNotify(s, st); }}},
        {"mount", {K::Mount, "mount <volume>", {}, target("mount <volume>")}},
        {"dismount", {K::Dismount, "dismount <volume>", {}, target("dismount <volume>")}},
        {"query-remove", {K::QueryRemove, "query-remove <volume>", {}, target("query-remove <volume>")}},
        {"cancel-remove", {K::CancelRemove, "cancel-remove <volume>", {}, target("cancel-remove <volume>")}},
        {"remove", {K::Remove, "remove <volume>", {}, target("remove <volume>")}},
        {"surprise-remove", {K::SurpriseRemove, "surprise-remove <volume>", {}, target("surprise-remove <volume>")}},
        {"stop", {K::Stop, "stop <volume>", {}, target("stop <volume>")}},
        {"start", {K::Start, "start <volume>", {}, target("start <volume>")}},
        {"arrive", {K::Arrive, "arrive <volume>", {}, target("arrive <volume>")}},
        {"resize", {K::Resize, "resize <volume> <size>", {},
                    [this](const Statement& s, Step& st) { return ParseResize(s, st); }}},
        {"set", {K::Set, "set <volume> <knob>=<value> ...", {"*"},
                 [this](const Statement& s, Step& st) { return ParseSet(s, st); }}},
        {"note", {K::Note, "note \"text\"", {}, [this](const Statement& s, Step& st) {
                    if (!Count(s, 1, "note \"text\"")) return false;
                    st.Text = s.Positional[0];
                    return true;
                  }}},
    };
  }

  void Statement_(const Statement& s) {
    auto it = Specs().find(s.Word);
    if (it == Specs().end()) {
      std::vector<std::string> words;
      for (const auto& [word, spec] : Specs()) words.push_back(word);
      return Error(s.Line, "unknown step '" + s.Word + "' (steps: " + Join(words) + ")");
    }
    const Spec& spec = it->second;
    Step step;
    step.Line = s.Line;
    step.Source = s.Source;
    step.Kind = spec.Kind;
    const bool anyKey = std::find(spec.Keys.begin(), spec.Keys.end(), "*") != spec.Keys.end();
    std::vector<NamedArgument> arguments;
    for (const NamedArgument& a : s.Named) {
      if (a.Key == "expect") {
        NTSTATUS status = STATUS_SUCCESS;
        if (!Status(s, a.Value, &status)) return;
        step.Expect = status;
        continue;
      }
      if (!anyKey && std::find(spec.Keys.begin(), spec.Keys.end(), a.Key) == spec.Keys.end())
        return Error(s.Line, "unknown argument '" + a.Spelling + "=' (usage: " + spec.Usage + ")");
      arguments.push_back(a);
    }
    Statement withoutExpect = s;
    withoutExpect.Named = std::move(arguments);
    if (!spec.Parse(withoutExpect, step)) return;
    if (spec.Kind == StepKind::Volume || spec.Kind == StepKind::Boot) machineConfigured_ = true;
    scenario_->Steps.push_back(std::move(step));
  }

  Scenario* scenario_;
  std::vector<ScenarioError>* errors_;
  std::set<std::string> volumes_;
  std::map<std::string, int> shadowCopies_;
  std::set<std::string> shadowCopyNames_;
  bool machineConfigured_ = false;
  std::map<std::string, Spec> specs_;
};

}  // namespace

std::optional<uint64_t> ParseSize(std::string_view text) {
  size_t digits = 0;
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (hex) {
    digits = 2;
    while (digits < text.size() && std::isxdigit(static_cast<unsigned char>(text[digits]))) ++digits;
  } else {
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) ++digits;
  }
  std::optional<uint64_t> number = ParseNumber(text.substr(0, digits));
  if (!number) return std::nullopt;
  const std::string unit = Lower(text.substr(digits));
  static const std::map<std::string, int> kShifts = {
      {"", 0},   {"b", 0},    {"k", 10},  {"kb", 10}, {"kib", 10}, {"m", 20},  {"mb", 20},  {"mib", 20},
      {"g", 30}, {"gb", 30},  {"gib", 30}, {"t", 40}, {"tb", 40},  {"tib", 40}, {"p", 50}, {"pb", 50}, {"pib", 50}};
  auto it = kShifts.find(unit);
  if (it == kShifts.end() || (hex && !unit.empty())) return std::nullopt;
  if (it->second != 0 && *number > (UINT64_MAX >> it->second)) return std::nullopt;
  return *number << it->second;
}

bool ParseScenario(std::string_view text, Scenario* scenario, std::vector<ScenarioError>* errors) {
  const size_t before = errors->size();
  if (text.find('\0') != std::string_view::npos) {
    errors->push_back({0, "the file holds a NUL byte: it is not a scenario text"});
    return false;
  }
  Parser parser(scenario, errors);
  int line = 0;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t end = std::min(text.find('\n', start), text.size());
    parser.Line(++line, text.substr(start, end - start));
    if (end == text.size()) break;
    start = end + 1;
  }
  if (errors->size() == before && scenario->Steps.empty()) errors->push_back({0, "the scenario has no steps"});
  return errors->size() == before;
}

}  // namespace kvsim
