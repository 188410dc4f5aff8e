// Control codes the simulator knows the layout of: their input and their answer in words.
#include "controls.h"

#include <diskguid.h>
#include <mountdev.h>
#include <ntdddisk.h>
#include <ntddstor.h>
#include <ntddvol.h>

#include <cstdio>
#include <cstring>

#include "kvcbt_replies.h"
#include "kvhost/object.h"
#include "kvtestbed/names.h"

namespace kvsim {
namespace {

template <typename T>
bool Read(const kvtestbed::IoResult& r, T* value, size_t at = 0) {
  if (r.Data.size() < at + sizeof(T)) return false;
  std::memcpy(value, r.Data.data() + at, sizeof(T));
  return true;
}

std::string Hex64(unsigned long long value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%016llX", value);
  return text;
}

const char* BusName(unsigned bus) {
  static const char* const kNames[] = {"unknown", "SCSI",  "ATAPI", "ATA",  "1394",    "SSA",
                                       "Fibre",   "USB",   "RAID",  "iSCSI", "SAS",    "SATA",
                                       "SD",      "MMC",   "virtual", "file-backed virtual", "Spaces", "NVMe",
                                       "SCM",     "UFS"};
  return bus < sizeof kNames / sizeof kNames[0] ? kNames[bus] : "other";
}

// A NUL-terminated identifier at `offset` of a descriptor, or "(none)".
std::string Identifier(const kvtestbed::IoResult& r, ULONG offset) {
  if (offset == 0 || offset >= r.Data.size()) return "(none)";
  const char* begin = reinterpret_cast<const char*>(r.Data.data()) + offset;
  return std::string(begin, strnlen(begin, r.Data.size() - offset));
}

std::string PartitionKind(const GUID& type) {
  if (type == PARTITION_BASIC_DATA_GUID) return "basic data";
  if (type == PARTITION_MSFT_RECOVERY_GUID) return "recovery";
  if (type == PARTITION_MSFT_RESERVED_GUID) return "Microsoft reserved";
  return kvtestbed::GuidText(type);
}

std::string DescribeSizeBytes(long long bytes) { return DescribeSize(static_cast<uint64_t>(bytes)); }

}  // namespace

std::string HexBytes(const std::vector<uint8_t>& bytes, size_t limit) {
  std::string out;
  char hex[4];
  for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
    std::snprintf(hex, sizeof hex, "%02x", bytes[i]);
    out += (i == 0 ? "" : " ") + std::string(hex);
  }
  if (bytes.size() > limit) out += " ...";
  return out;
}

std::vector<uint8_t> ControlInput(const Step& step) {
  if (step.Code == IOCTL_STORAGE_QUERY_PROPERTY && step.Input.empty()) {
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = static_cast<STORAGE_PROPERTY_ID>(step.Property.value_or(StorageDeviceProperty));
    query.QueryType = PropertyStandardQuery;
    std::vector<uint8_t> bytes(sizeof query);
    std::memcpy(bytes.data(), &query, sizeof query);
    return bytes;
  }
  return step.Input;
}

ULONG ControlOutputLength(const Step& step) {
  if (step.OutLength) return *step.OutLength;
  switch (step.Code) {
    case IOCTL_DISK_GET_DRIVE_GEOMETRY:
      return sizeof(DISK_GEOMETRY);
    case IOCTL_DISK_GET_LENGTH_INFO:
      return sizeof(GET_LENGTH_INFORMATION);
    case IOCTL_DISK_GET_PARTITION_INFO_EX:
      return sizeof(PARTITION_INFORMATION_EX);
    case IOCTL_VOLUME_GET_GPT_ATTRIBUTES:
      return sizeof(VOLUME_GET_GPT_ATTRIBUTES_INFORMATION);
    case IOCTL_DISK_IS_WRITABLE:
    case IOCTL_VOLUME_ONLINE:
    case IOCTL_VOLUME_OFFLINE:
    case IOCTL_VOLUME_IS_OFFLINE:
    case IOCTL_MOUNTDEV_LINK_CREATED:
    case IOCTL_MOUNTDEV_LINK_DELETED:
      return 0;
    default:
      return KvcbtReplyLength(step.Code).value_or(1024);
  }
}

std::string DescribeControlAnswer(const Step& step, const kvtestbed::IoResult& r) {
  if (!NT_SUCCESS(r.Status) && r.Status != STATUS_BUFFER_OVERFLOW) return {};
  switch (step.Code) {
    case IOCTL_DISK_GET_DRIVE_GEOMETRY: {
      DISK_GEOMETRY g;
      if (!Read(r, &g)) break;
      return std::to_string(g.BytesPerSector) + "-byte sectors, " + std::to_string(g.SectorsPerTrack) +
             " per track, " + std::to_string(g.TracksPerCylinder) + " tracks per cylinder, " +
             std::to_string(g.Cylinders.QuadPart) + " cylinders, " +
             (g.MediaType == FixedMedia ? "fixed" : g.MediaType == RemovableMedia ? "removable" : "other") + " media";
    }
    case IOCTL_DISK_GET_LENGTH_INFO: {
      GET_LENGTH_INFORMATION l;
      if (!Read(r, &l)) break;
      return "length " + DescribeSizeBytes(l.Length.QuadPart);
    }
    case IOCTL_DISK_GET_PARTITION_INFO_EX: {
      PARTITION_INFORMATION_EX p;
      if (!Read(r, &p)) break;
      std::string out = (p.PartitionStyle == PARTITION_STYLE_GPT ? "GPT" : p.PartitionStyle == PARTITION_STYLE_MBR ? "MBR" : "raw");
      out += " partition " + std::to_string(p.PartitionNumber) + ", ";
      if (p.PartitionStyle == PARTITION_STYLE_GPT) {
        out += PartitionKind(p.Gpt.PartitionType) + ", attributes " + Hex64(p.Gpt.Attributes);
      } else {
        char type[8];
        std::snprintf(type, sizeof type, "0x%02X", p.Mbr.PartitionType);
        out += std::string("type ") + type;
      }
      return out + ", at " + DescribeSizeBytes(p.StartingOffset.QuadPart) + ", " +
             DescribeSizeBytes(p.PartitionLength.QuadPart) + " long";
    }
    case IOCTL_VOLUME_GET_GPT_ATTRIBUTES: {
      VOLUME_GET_GPT_ATTRIBUTES_INFORMATION a;
      if (!Read(r, &a)) break;
      return "GPT attributes " + Hex64(a.GptAttributes);
    }
    case IOCTL_MOUNTDEV_QUERY_DEVICE_NAME: {
      USHORT bytes = 0;
      if (!Read(r, &bytes)) break;
      if (r.Status == STATUS_BUFFER_OVERFLOW) return "the name takes " + std::to_string(bytes) + " bytes";
      std::u16string name((std::min<size_t>(bytes, r.Data.size() - 2)) / 2, u'\0');
      std::memcpy(name.data(), r.Data.data() + 2, name.size() * 2);
      return kvhost::ToUtf8(name);
    }
    case IOCTL_STORAGE_QUERY_PROPERTY: {
      if (step.Property.value_or(StorageDeviceProperty) == StorageAdapterProperty) {
        UCHAR bus = 0;
        if (!Read(r, &bus, FIELD_OFFSET(STORAGE_ADAPTER_DESCRIPTOR, BusType))) break;
        return std::string("adapter on bus ") + BusName(bus);
      }
      STORAGE_DEVICE_DESCRIPTOR d;
      if (!Read(r, &d, 0) || r.Data.size() < FIELD_OFFSET(STORAGE_DEVICE_DESCRIPTOR, RawDeviceProperties)) break;
      return "vendor " + Identifier(r, d.VendorIdOffset) + ", product " + Identifier(r, d.ProductIdOffset) +
             ", bus " + BusName(d.BusType) + (d.RemovableMedia ? ", removable media" : "");
    }
    default:
      if (std::optional<std::string> reply = DescribeKvcbtReply(step.Code, r.Data)) return *reply;
      break;
  }
  return r.Data.empty() ? std::string() : std::to_string(r.Data.size()) + " bytes: " + HexBytes(r.Data, 32);
}

}  // namespace kvsim
