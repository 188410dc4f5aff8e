// Changed ranges, the terminal map and the picture of a copied-out change bitmap.
#include "bitmap_view.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>

#include "byte_sizes.h"

namespace kvtools {
namespace {

// Bits the bitmap can speak for: those the geometry names and the bytes hold.
uint64_t UsableBits(std::span<const uint8_t> bitmap, const BitmapGeometry& geometry) {
  return std::min<uint64_t>(geometry.BitCount, static_cast<uint64_t>(bitmap.size()) * 8);
}

// ----- PNG, written without a library: zlib "stored" blocks need no compressor, and a
// 1-bit palette keeps even a 3.5-million-block bitmap under half a megabyte.

uint32_t Crc32(const uint8_t* data, size_t length, uint32_t crc = 0) {
  static const std::array<uint32_t, 256> kTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < 256; ++n) {
      uint32_t c = n;
      for (int k = 0; k < 8; ++k) c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      table[n] = c;
    }
    return table;
  }();
  crc = ~crc;
  for (size_t i = 0; i < length; ++i) crc = kTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

uint32_t Adler32(const std::vector<uint8_t>& data) {
  uint32_t a = 1, b = 0;
  for (uint8_t byte : data) {
    a = (a + byte) % 65521;
    b = (b + a) % 65521;
  }
  return (b << 16) | a;
}

void PutBigEndian(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

void PutChunk(std::vector<uint8_t>& png, const char* type, const std::vector<uint8_t>& data) {
  PutBigEndian(png, static_cast<uint32_t>(data.size()));
  const size_t typeAt = png.size();
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), data.begin(), data.end());
  PutBigEndian(png, Crc32(png.data() + typeAt, png.size() - typeAt));
}

// A zlib stream of stored (uncompressed) deflate blocks.
std::vector<uint8_t> StoredZlib(const std::vector<uint8_t>& raw) {
  std::vector<uint8_t> out = {0x78, 0x01};
  size_t at = 0;
  do {
    const size_t length = std::min<size_t>(raw.size() - at, 65535);
    const bool last = at + length == raw.size();
    out.push_back(last ? 1 : 0);
    out.push_back(static_cast<uint8_t>(length));
    out.push_back(static_cast<uint8_t>(length >> 8));
    out.push_back(static_cast<uint8_t>(~length));
    out.push_back(static_cast<uint8_t>(~length >> 8));
    out.insert(out.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
               raw.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
  } while (at < raw.size());
  PutBigEndian(out, Adler32(raw));
  return out;
}

}  // namespace

bool IsBitSet(std::span<const uint8_t> bitmap, uint64_t bit) {
  return bit / 8 < bitmap.size() && ((bitmap[bit / 8] >> (bit % 8)) & 1) != 0;
}

std::vector<ChangedRange> ChangedRanges(std::span<const uint8_t> bitmap, const BitmapGeometry& geometry) {
  std::vector<ChangedRange> ranges;
  const uint64_t bits = UsableBits(bitmap, geometry);
  for (uint64_t bit = 0; bit < bits;) {
    if (bitmap[bit / 8] == 0 && bit % 8 == 0) {  // a whole byte of unchanged blocks
      bit += 8;
      continue;
    }
    if (!IsBitSet(bitmap, bit)) {
      ++bit;
      continue;
    }
    const uint64_t first = bit;
    while (bit < bits && IsBitSet(bitmap, bit)) ++bit;
    ranges.push_back({first * geometry.BytesPerBit, (bit - first) * geometry.BytesPerBit});
  }
  return ranges;
}

uint64_t CountChangedBlocks(std::span<const uint8_t> bitmap, const BitmapGeometry& geometry) {
  uint64_t count = 0;
  for (const ChangedRange& range : ChangedRanges(bitmap, geometry)) count += range.Length / geometry.BytesPerBit;
  return count;
}

std::vector<std::string> TextMap(std::span<const uint8_t> bitmap, const BitmapGeometry& geometry, size_t width,
                                 size_t maxRows) {
  std::vector<std::string> lines;
  const uint64_t bits = UsableBits(bitmap, geometry);
  if (bits == 0 || width == 0 || maxRows == 0) return lines;
  const uint64_t cells = static_cast<uint64_t>(width) * maxRows;
  const uint64_t perCell = (bits + cells - 1) / cells;
  lines.push_back("each cell is " + std::to_string(perCell) + (perCell == 1 ? " block" : " blocks") + " of " +
                  DescribeSize(geometry.BytesPerBit) + ": '#' all changed, '+' some, '.' none");
  std::string row;
  for (uint64_t first = 0; first < bits; first += perCell) {
    const uint64_t end = std::min(bits, first + perCell);
    uint64_t set = 0;
    for (uint64_t bit = first; bit < end; ++bit) set += IsBitSet(bitmap, bit) ? 1 : 0;
    row.push_back(set == 0 ? '.' : set == end - first ? '#' : '+');
    if (row.size() == width) {
      lines.push_back("|" + row + "|");
      row.clear();
    }
  }
  if (!row.empty()) lines.push_back("|" + row + std::string(width - row.size(), ' ') + "|");
  return lines;
}

std::string WriteBitmapPicture(const std::string& path, std::span<const uint8_t> bitmap,
                               const BitmapGeometry& geometry) {
  const uint64_t bits = UsableBits(bitmap, geometry);
  if (bits == 0) return "the bitmap has no blocks to draw";
  // Near square, a whole number of bytes a row, at most 2048 blocks across; small bitmaps
  // get bigger pixels, so that the picture is at least 512 pixels wide.
  uint64_t columns = 8;
  while (columns * columns < bits && columns < 2048) columns *= 2;
  const uint64_t rows = (bits + columns - 1) / columns;
  const uint64_t scale = std::max<uint64_t>(1, 512 / columns);
  const uint64_t width = columns * scale;
  const uint64_t height = rows * scale;
  if (height > 0x7FFFFFFF) return "the bitmap is too large for one picture";
  // Scanlines: a filter byte (none), then one bit per pixel, most significant first.
  const size_t rowBytes = static_cast<size_t>((width + 7) / 8);
  std::vector<uint8_t> raw;
  raw.reserve(static_cast<size_t>(height) * (rowBytes + 1));
  for (uint64_t y = 0; y < height; ++y) {
    raw.push_back(0);
    const size_t rowAt = raw.size();
    raw.resize(rowAt + rowBytes, 0);
    for (uint64_t x = 0; x < width; ++x) {
      const uint64_t bit = (y / scale) * columns + x / scale;
      if (bit < bits && IsBitSet(bitmap, bit)) raw[rowAt + x / 8] |= static_cast<uint8_t>(0x80 >> (x % 8));
    }
  }
  std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<uint8_t> header;
  PutBigEndian(header, static_cast<uint32_t>(width));
  PutBigEndian(header, static_cast<uint32_t>(height));
  header.insert(header.end(), {1, 3, 0, 0, 0});  // 1 bit per pixel, palette, deflate, no filter, no interlace
  PutChunk(png, "IHDR", header);
  PutChunk(png, "PLTE", {0x1C, 0x22, 0x2B, 0xFF, 0xB0, 0x20});  // unchanged: slate; changed: amber
  PutChunk(png, "IDAT", StoredZlib(raw));
  PutChunk(png, "IEND", {});
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
  out.close();
  return out ? "" : "cannot write " + path;
}

std::string DescribeRange(const ChangedRange& range) {
  char text[64];
  std::snprintf(text, sizeof text, "0x%016llX-0x%016llX  ", static_cast<unsigned long long>(range.Offset),
                static_cast<unsigned long long>(range.Offset + range.Length - 1));
  return text + DescribeSize(range.Length);
}

}  // namespace kvtools
