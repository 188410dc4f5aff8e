// Byte counts as the tools print them.
#pragma once

#include <cstdint>
#include <string>

namespace kvtools {

// "64 MiB", "512 bytes", "2 TiB": a byte count as people read it, in the largest binary
// unit that divides it.
std::string DescribeSize(uint64_t bytes);

}  // namespace kvtools
