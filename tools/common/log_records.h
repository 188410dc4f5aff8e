// The driver's debug-log records in words, for the simulator's report and kvcbt-inspect.
#pragma once

#include <cstdint>
#include <string>

#include "kvcbt/log_record.h"

namespace kvtools {

// "CbtVolumeOnline:97 STATUS_SUCCESS, C: volume 1 [ONLINE FILE_SYSTEM_READABLE]"; a record
// that concerns no volume leaves the volume out.
std::string DescribeLogRecord(const CBT_LOG_RECORD_BODY& record);

// The names of the set bits of a volume's state word, "ONLINE FS_CONTEXT" ("none" for 0;
// a bit without a name as its hexadecimal value).
std::string DescribeDeviceFlags(uint32_t flags);

}  // namespace kvtools
