// The control step: what a control code is sent with, and its answer in words.
#pragma once

#include <string>
#include <vector>

#include "kvtestbed/machine.h"
#include "scenario.h"

namespace kvsim {

// The input buffer a control step sends (a storage property query builds its own) and the
// output size (the answer's layout when known, 1 KiB otherwise).
std::vector<uint8_t> ControlInput(const Step& step);
ULONG ControlOutputLength(const Step& step);

// "length 64 MiB", "vendor Msft, product Virtual Disk, bus USB" ... or the bytes in hex.
std::string DescribeControlAnswer(const Step& step, const kvtestbed::IoResult& result);

// Up to `limit` bytes as "ab cd ef ...".
std::string HexBytes(const std::vector<uint8_t>& bytes, size_t limit);

}  // namespace kvsim
