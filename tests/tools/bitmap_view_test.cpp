// Reading a copied-out bitmap: changed ranges in volume byte offsets, the terminal map, the
// picture. Each is checked against what the bits say, worked out here bit by bit.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "bitmap_view.h"

namespace kvtools {
namespace {

std::vector<uint8_t> BitmapWith(uint64_t bits, std::initializer_list<uint64_t> set) {
  std::vector<uint8_t> bitmap((bits + 7) / 8, 0);
  for (uint64_t bit : set) bitmap[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8));
  return bitmap;
}

TEST(BitmapView, AdjacentBlocksFormOneRangeAcrossByteBoundaries) {
  const BitmapGeometry geometry{40, 65536};
  const std::vector<uint8_t> bitmap = BitmapWith(40, {0, 6, 7, 8, 9, 23, 39});
  const std::vector<ChangedRange> ranges = ChangedRanges(bitmap, geometry);
  ASSERT_EQ(ranges.size(), 4u);
  EXPECT_EQ(ranges[0].Offset, 0u);
  EXPECT_EQ(ranges[0].Length, 65536u);
  EXPECT_EQ(ranges[1].Offset, 6u * 65536);
  EXPECT_EQ(ranges[1].Length, 4u * 65536) << "blocks 6 to 9 run over a byte boundary";
  EXPECT_EQ(ranges[2].Offset, 23u * 65536);
  EXPECT_EQ(ranges[3].Offset, 39u * 65536);
  EXPECT_EQ(CountChangedBlocks(bitmap, geometry), 7u);
  EXPECT_EQ(DescribeRange(ranges[1]), "0x0000000000060000-0x000000000009FFFF  256 KiB");
}

TEST(BitmapView, BitsPastTheLastBlockOrTheBytesGivenAreNotRead) {
  // 10 blocks in 2 bytes: the six bits after block 9 are none of the volume's.
  const std::vector<uint8_t> bitmap = {0x00, 0xFE};
  const std::vector<ChangedRange> ranges = ChangedRanges(bitmap, {10, 4096});
  ASSERT_EQ(ranges.size(), 1u);
  EXPECT_EQ(ranges[0].Offset, 9u * 4096);
  EXPECT_EQ(ranges[0].Length, 4096u);
  // A geometry that claims more blocks than the bytes hold stops at the bytes.
  EXPECT_EQ(CountChangedBlocks(bitmap, {1000, 4096}), 7u);
  EXPECT_TRUE(ChangedRanges({}, {1000, 4096}).empty());
}

TEST(BitmapView, RandomBitmapsGiveTheRangesTheirBitsMake) {
  std::mt19937 random(5);
  for (int round = 0; round < 200; ++round) {
    const uint64_t bits = 1 + random() % 300;
    std::vector<uint8_t> bitmap((bits + 7) / 8);
    for (uint8_t& b : bitmap) b = static_cast<uint8_t>(random() % 3 == 0 ? 0xFF : random());
    const BitmapGeometry geometry{bits, 512};
    std::vector<bool> fromRanges(bits, false);
    uint64_t lastEnd = 0;
    for (const ChangedRange& r : ChangedRanges(bitmap, geometry)) {
      ASSERT_EQ(r.Offset % 512, 0u);
      ASSERT_GT(r.Length, 0u);
      ASSERT_TRUE(r.Offset > lastEnd || r.Offset == 0) << "ranges are apart and in order";
      for (uint64_t b = r.Offset / 512; b < (r.Offset + r.Length) / 512; ++b) fromRanges[b] = true;
      lastEnd = r.Offset + r.Length;
    }
    for (uint64_t b = 0; b < bits; ++b) ASSERT_EQ(fromRanges[b], IsBitSet(bitmap, b)) << "round " << round;
  }
}

TEST(BitmapView, TheMapShowsHowMuchOfEachCellChanged) {
  // 256 blocks on 16 cells of a 4-cell-wide, 4-row map: 16 blocks a cell.
  std::vector<uint8_t> bitmap(32, 0);
  for (int i = 0; i < 2; ++i) bitmap[i] = 0xFF;  // cell 0: all 16 changed
  bitmap[5] = 0x01;                              // cell 2: one of 16
  const std::vector<std::string> map = TextMap(bitmap, {256, 65536}, 4, 4);
  ASSERT_EQ(map.size(), 5u);
  EXPECT_EQ(map[0], "each cell is 16 blocks of 64 KiB: '#' all changed, '+' some, '.' none");
  EXPECT_EQ(map[1], "|#.+.|");
  EXPECT_EQ(map[2], "|....|");
  // A last row that is not full is padded.
  const std::vector<std::string> small = TextMap(BitmapWith(6, {5}), {6, 4096}, 4, 4);
  ASSERT_EQ(small.size(), 3u);
  EXPECT_EQ(small[1], "|....|");
  EXPECT_EQ(small[2], "|.#  |");
}

// The pixels of a picture written with stored deflate blocks, read back from the file.
struct Picture {
  uint32_t Width = 0, Height = 0;
  std::vector<uint8_t> Rows;  // each: a filter byte, then the row's bits
};

uint32_t BigEndian(const uint8_t* p) { return (uint32_t{p[0]} << 24) | (p[1] << 16) | (p[2] << 8) | p[3]; }

Picture ReadPicture(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<uint8_t> png((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  Picture picture;
  EXPECT_GE(png.size(), 8u);
  EXPECT_EQ(std::memcmp(png.data(), "\x89PNG\r\n\x1a\n", 8), 0);
  std::vector<uint8_t> zlib;
  for (size_t at = 8; at + 12 <= png.size();) {
    const uint32_t length = BigEndian(&png[at]);
    const std::string type(png.begin() + at + 4, png.begin() + at + 8);
    if (type == "IHDR") {
      picture.Width = BigEndian(&png[at + 8]);
      picture.Height = BigEndian(&png[at + 12]);
      EXPECT_EQ(png[at + 16], 1) << "one bit a pixel";
      EXPECT_EQ(png[at + 17], 3) << "a palette";
    } else if (type == "IDAT") {
      zlib.insert(zlib.end(), png.begin() + at + 8, png.begin() + at + 8 + length);
    }
    at += 12 + length;
  }
  // Stored blocks: a header byte, LEN, NLEN, then LEN bytes.
  for (size_t at = 2; at + 5 <= zlib.size() - 4;) {
    const size_t length = zlib[at + 1] | (zlib[at + 2] << 8);
    EXPECT_EQ(length ^ 0xFFFF, static_cast<size_t>(zlib[at + 3] | (zlib[at + 4] << 8)));
    picture.Rows.insert(picture.Rows.end(), zlib.begin() + at + 5, zlib.begin() + at + 5 + length);
    if (zlib[at] & 1) break;
    at += 5 + length;
  }
  return picture;
}

bool Lit(const Picture& p, uint32_t x, uint32_t y) {
  const size_t row = (p.Width + 7) / 8 + 1;
  return (p.Rows[y * row + 1 + x / 8] >> (7 - x % 8)) & 1;
}

TEST(BitmapView, ThePictureLightsTheChangedBlocks) {
  const std::string path = testing::TempDir() + "kvtools-bitmap-view.png";
  // 100 blocks: 16 across (the next power of two whose square holds them), 7 rows, each
  // block a 32-pixel square so that the picture is 512 pixels wide.
  ASSERT_EQ(WriteBitmapPicture(path, BitmapWith(100, {0, 17, 99}), {100, 65536}), "");
  const Picture p = ReadPicture(path);
  EXPECT_EQ(p.Width, 512u);
  EXPECT_EQ(p.Height, 7u * 32);
  ASSERT_EQ(p.Rows.size(), p.Height * (p.Width / 8 + 1));
  EXPECT_TRUE(Lit(p, 0, 0));
  EXPECT_TRUE(Lit(p, 31, 31));
  EXPECT_FALSE(Lit(p, 32, 0));
  EXPECT_TRUE(Lit(p, 1 * 32 + 5, 1 * 32 + 5)) << "block 17: row 1, column 1";
  EXPECT_TRUE(Lit(p, 3 * 32, 6 * 32)) << "block 99: row 6, column 3";
  EXPECT_FALSE(Lit(p, 4 * 32, 6 * 32)) << "past the last block";
  std::remove(path.c_str());

  EXPECT_NE(WriteBitmapPicture(path, {}, {0, 65536}), "") << "nothing to draw";
  EXPECT_NE(WriteBitmapPicture("/nonexistent-directory/x.png", BitmapWith(8, {1}), {8, 4096}), "");
}

}  // namespace
}  // namespace kvtools
