// Reading a copied-out change bitmap the way a backup engineer wants to see it: the changed
// ranges in volume byte offsets, a compact map for the terminal, and a picture.
//
// The bitmap is the driver's reply to IOCTL_KVCBT_GET_VOLUME_BITMAP: bit i (bit i mod 8 of
// byte i div 8, least significant first) stands for the volume's bytes from i * BytesPerBit
// to (i + 1) * BytesPerBit and is set when a write touched them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kvtools {

struct BitmapGeometry {
  uint64_t BitCount = 0;     // blocks the bitmap covers
  uint64_t BytesPerBit = 0;  // bytes of volume per block
};

// A stretch of changed volume bytes.
struct ChangedRange {
  uint64_t Offset = 0;
  uint64_t Length = 0;
};

bool IsBitSet(std::span<const uint8_t> bitmap, uint64_t bit);

// The blocks whose bits are set, as volume byte ranges: adjacent blocks form one range. Bits
// past BitCount, or past the bytes given, are not looked at.
std::vector<ChangedRange> ChangedRanges(std::span<const uint8_t> bitmap, const BitmapGeometry& geometry);
uint64_t CountChangedBlocks(std::span<const uint8_t> bitmap, const BitmapGeometry& geometry);

// The bitmap as rows of at most `width` cells; each cell stands for the same number of
// blocks (as few as let the map fit in `maxRows` rows): '#' every block changed, '+' some,
// '.' none. The first line says how many blocks a cell is.
std::vector<std::string> TextMap(std::span<const uint8_t> bitmap, const BitmapGeometry& geometry, size_t width = 64,
                                 size_t maxRows = 16);

// The bitmap as a PNG picture: the blocks in rows, left to right, changed blocks bright on
// dark; a small bitmap gets a square of pixels a block. Returns "" on success, else what
// went wrong.
std::string WriteBitmapPicture(const std::string& path, std::span<const uint8_t> bitmap,
                               const BitmapGeometry& geometry);

// "0x0000000000100000-0x000000000010FFFF  64 KiB".
std::string DescribeRange(const ChangedRange& range);

}  // namespace kvtools
