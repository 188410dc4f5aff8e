#include "log_records.h"

#include <cstdio>
#include <cstring>
#include <iterator>

#include "kvcbt/device_flags.h"
#include "kvtestbed/names.h"

namespace kvtools {
namespace {

struct FlagName {
  uint32_t Bit;
  const char* Name;
};

#define KV_FLAG(name) {name, #name + sizeof("CBT_FLAG_") - 1}
constexpr FlagName kFlagNames[] = {
    KV_FLAG(CBT_FLAG_SURPRISE_REMOVED),  KV_FLAG(CBT_FLAG_REMOVED),
    KV_FLAG(CBT_FLAG_SNAPSHOT_DEVICE),   KV_FLAG(CBT_FLAG_SANDBOX_BASE_LAYER),
    KV_FLAG(CBT_FLAG_USB),               KV_FLAG(CBT_FLAG_VHD),
    KV_FLAG(CBT_FLAG_XVDD),              KV_FLAG(CBT_FLAG_RECOVERY_PARTITION),
    KV_FLAG(CBT_FLAG_RESERVED_PARTITION), KV_FLAG(CBT_FLAG_READ_ONLY),
    KV_FLAG(CBT_FLAG_ONLINE),            KV_FLAG(CBT_FLAG_SIZE_CHANGED),
    KV_FLAG(CBT_FLAG_BITLOCKER_LOCKED),  KV_FLAG(CBT_FLAG_WRITTEN),
    KV_FLAG(CBT_FLAG_TRACKING_ERROR),    KV_FLAG(CBT_FLAG_NEEDS_CHKDSK),
    KV_FLAG(CBT_FLAG_MOUNT_LINK),        KV_FLAG(CBT_FLAG_FILE_SYSTEM_READABLE),
    KV_FLAG(CBT_FLAG_FS_CONTEXT),        KV_FLAG(CBT_FLAG_MOUNTED),
    KV_FLAG(CBT_FLAG_LOCKED),            KV_FLAG(CBT_FLAG_TRACKING_FILE_READY),
    KV_FLAG(CBT_FLAG_TRACKING_FILE_OPEN), KV_FLAG(CBT_FLAG_FLUSH_METADATA),
    KV_FLAG(CBT_FLAG_BITMAP_DIRTY),      KV_FLAG(CBT_FLAG_MFT_ATTRIBUTE_LIST),
    KV_FLAG(CBT_FLAG_TRACKING_VALID),    KV_FLAG(CBT_FLAG_SHUTDOWN),
};
#undef KV_FLAG

}  // namespace

std::string DescribeDeviceFlags(uint32_t flags) {
  if (flags == 0) return "none";
  std::string out;
  uint32_t named = 0;
  for (const FlagName& f : kFlagNames) {
    if ((flags & f.Bit) == 0) continue;
    out += (out.empty() ? "" : " ") + std::string(f.Name);
    named |= f.Bit;
  }
  if ((flags & ~named) != 0) {
    char rest[16];
    std::snprintf(rest, sizeof rest, "0x%08X", flags & ~named);
    out += (out.empty() ? "" : " ") + std::string(rest);
  }
  return out;
}

std::string DescribeLogRecord(const CBT_LOG_RECORD_BODY& record) {
  char text[CBT_LOG_TEXT_BYTES + 1] = {};
  std::memcpy(text, record.Text, CBT_LOG_TEXT_BYTES);
  const uint32_t line = record.Line;
  const uint32_t status = record.Status;
  const uint32_t flags = record.DeviceFlags;
  const uint32_t volume = record.VolumeNumber;
  const uint16_t letter = record.DriveLetter;
  // The field carries a status, or for some records a value (a setting, a count): a number
  // without a severity is shown as the number it is.
  const bool isStatus = status == 0 || (status & 0xC0000000u) != 0;
  std::string out = std::string(text) + ":" + std::to_string(line) + " " +
                    (isStatus ? kvtestbed::StatusName(static_cast<NTSTATUS>(status)) : "value " + std::to_string(status));
  if (flags != 0 || volume != 0 || letter != CBT_LOG_NO_DRIVE_LETTER) {
    out += ", ";
    if (letter >= 'A' && letter <= 'Z') out += std::string(1, static_cast<char>(letter)) + ": ";
    out += "volume " + std::to_string(volume) + " [" + DescribeDeviceFlags(flags) + "]";
  }
  return out;
}

}  // namespace kvtools
