// The replies of the driver's own control codes, read through the public records so that the
// simulator reads them exactly as a backup application would.
#include "kvcbt_replies.h"

#include <bit>
#include <cstring>

#include "kvcbt/control.h"

namespace kvsim {
namespace {

template <typename Record>
bool ReadRecord(const std::vector<uint8_t>& reply, Record* record, size_t bytes = sizeof(Record)) {
  if (reply.size() < bytes) return false;
  std::memset(record, 0, sizeof(Record));
  std::memcpy(record, reply.data(), bytes);
  return true;
}

std::string Geometry(CBT_U32 bytesPerSector, CBT_U32 sectorsPerCluster, CBT_U32 bitCount, CBT_U32 bytesPerBit,
                     CBT_U32 firstLcn, CBT_U32 endLcn) {
  return std::to_string(bytesPerSector) + "-byte sectors, " + std::to_string(sectorsPerCluster) +
         " sectors per cluster, " + std::to_string(bitCount) + " blocks of " + std::to_string(bytesPerBit) +
         " bytes, tracking file at clusters " + std::to_string(firstLcn) + " to " + std::to_string(endLcn);
}

std::string DescribeInformation(const CBT_VOLUME_TRACKING_INFORMATION& info) {
  const CBT_U64 tracked = info.TrackedWriteCount;
  const CBT_U64 total = info.TotalWriteCount;
  const CBT_I64 resetTime = info.ResetTime;
  std::string out = Geometry(info.BytesPerSector, info.SectorsPerCluster, info.BitCount, info.BytesPerBit,
                             info.FirstLcn, info.EndLcn) +
                    ", " + std::to_string(tracked) + " of " + std::to_string(total) + " writes tracked";
  if (info.ResetOccurred != 0) out += ", history broken at system time " + std::to_string(resetTime);
  return out;
}

std::string DescribeInformationEx(const CBT_VOLUME_TRACKING_INFORMATION_EX& info, bool full) {
  const CBT_U64 tracked = info.TrackedWriteCount;
  const CBT_U64 paging = info.PagingWriteCount;
  const CBT_U64 untracked = info.UntrackedWriteCount;
  const CBT_U64 bits = info.TrackedWriteBits;
  const CBT_U64 bytes = info.TrackedWriteBytes;
  const CBT_I64 loadTime = info.LoadTime;
  const CBT_U64 microseconds = info.TrackingTimeMicroseconds;
  const CBT_U32 restartCount = info.RestartCountA;
  const CBT_U64 trimmed = info.TrimClearedBytes;
  const CBT_U64 fileBytes = info.TrackingFileBytesWritten;
  std::string out = Geometry(info.BytesPerSector, info.SectorsPerCluster, info.BitCount, info.BytesPerBit,
                             info.FirstLcn, info.EndLcn) +
                    ", " + std::to_string(tracked) + " writes tracked (" + std::to_string(paging) + " paging, " +
                    std::to_string(bytes) + " bytes, " + std::to_string(bits) + " blocks marked in " +
                    std::to_string(microseconds) + " us), " + std::to_string(untracked) + " untracked, " +
                    std::to_string(trimmed) + " bytes cleared by trims, loaded at system time " +
                    std::to_string(loadTime) + ", restart count " + std::to_string(restartCount);
  if (full) out += ", " + std::to_string(fileBytes) + " tracking-file bytes written";
  return out;
}

std::string DescribeBitmap(const std::vector<uint8_t>& reply) {
  size_t changed = 0;
  for (uint8_t byte : reply) changed += static_cast<size_t>(std::popcount(byte));
  return std::to_string(reply.size()) + " bitmap bytes, " + std::to_string(changed) + " blocks changed";
}

}  // namespace

std::optional<ULONG> KvcbtReplyLength(ULONG code) {
  switch (code) {
    case IOCTL_KVCBT_QUERY_DRIVER_VERSION:
      return sizeof(CBT_DRIVER_VERSION);
    case IOCTL_KVCBT_QUERY_TRACKING_ENABLED:
      return sizeof(CBT_TRACKING_ENABLED_REPLY);
    case IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION:
      return sizeof(CBT_VOLUME_TRACKING_INFORMATION);
    case IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX:
      return sizeof(CBT_VOLUME_TRACKING_INFORMATION_EX);
    case IOCTL_KVCBT_CHECK_VOLUME_BITMAP:
    case IOCTL_KVCBT_SET_RESET_TIME:
    case IOCTL_KVCBT_RESERVED_34:
    case IOCTL_KVCBT_RESERVED_35:
    case IOCTL_KVCBT_DISABLE_TRACKING:
    case IOCTL_KVCBT_ENABLE_TRACKING:
    case IOCTL_KVCBT_LOG_MARKER:
    case IOCTL_KVCBT_CHECK_EXCLUDED:
      return 0;
    default:
      return std::nullopt;
  }
}

std::optional<std::string> DescribeKvcbtReply(ULONG code, const std::vector<uint8_t>& reply) {
  switch (code) {
    case IOCTL_KVCBT_QUERY_DRIVER_VERSION: {
      CBT_DRIVER_VERSION version;
      if (!ReadRecord(reply, &version)) break;
      return "driver version " + std::to_string(version.Major) + "." + std::to_string(version.Minor) + "." +
             std::to_string(version.Build);
    }
    case IOCTL_KVCBT_QUERY_TRACKING_ENABLED: {
      CBT_TRACKING_ENABLED_REPLY enabled;
      if (!ReadRecord(reply, &enabled)) break;
      return std::string(enabled != 0 ? "tracking on" : "tracking off");
    }
    case IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION: {
      CBT_VOLUME_TRACKING_INFORMATION info;
      if (!ReadRecord(reply, &info)) break;
      return DescribeInformation(info);
    }
    case IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX: {
      CBT_VOLUME_TRACKING_INFORMATION_EX info;
      const bool full = reply.size() >= sizeof info;
      if (!ReadRecord(reply, &info, full ? sizeof info : CBT_VOLUME_TRACKING_INFORMATION_EX_SHORT_SIZE)) break;
      return DescribeInformationEx(info, full);
    }
    case IOCTL_KVCBT_GET_VOLUME_BITMAP:
      return DescribeBitmap(reply);
    default:
      break;
  }
  return std::nullopt;
}

}  // namespace kvsim
