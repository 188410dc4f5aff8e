#include "byte_sizes.h"

namespace kvtools {

std::string DescribeSize(uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  if (bytes < 1024 || bytes % 1024 != 0) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  int unit = -1;
  while (unit < 4 && bytes % 1024 == 0 && bytes >= 1024) {
    bytes /= 1024;
    ++unit;
  }
  return std::to_string(bytes) + " " + kUnits[unit];
}

}  // namespace kvtools
