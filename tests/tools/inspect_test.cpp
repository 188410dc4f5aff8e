// kvcbt-inspect's bitmap command: what it prints for a bitmap file, and that every mistake of
// its arguments or its file gets a clear message and an exit status rather than a wrong
// answer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "inspect.h"

namespace kvinspect {
namespace {

class InspectBitmap : public testing::Test {
 protected:
  void SetUp() override { path_ = testing::TempDir() + "kvinspect-" + std::to_string(::getpid()) + ".bitmap"; }
  void TearDown() override { std::remove(path_.c_str()); }

  void WriteFile(const std::vector<uint8_t>& bytes) {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }

  Output Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "bitmap");
    return Inspect(arguments);
  }

  std::string path_;
};

TEST_F(InspectBitmap, PrintsTheChangedRangesOfTheVolume) {
  WriteFile({0x03, 0x00, 0x80, 0x01});  // blocks 0, 1, 23 and 24 of 26
  const Output text = Run({path_, "--bytes-per-bit", "65536", "--bit-count", "26"});
  EXPECT_EQ(text.Status, 0) << text.Err;
  EXPECT_EQ(text.Out, "bitmap   " + path_ +
                          ": 26 blocks of 64 KiB (1664 KiB of volume)\n"
                          "changed  4 blocks, 256 KiB in 2 ranges\n"
                          "  0x0000000000000000-0x000000000001FFFF  128 KiB\n"
                          "  0x0000000000170000-0x000000000018FFFF  128 KiB\n");

  const Output json = Run({path_, "--bytes-per-bit", "65536", "--bit-count", "26", "--json"});
  EXPECT_EQ(json.Status, 0);
  EXPECT_NE(json.Out.find("\"bitCount\":26,\"bytesPerBit\":65536,\"changedBlocks\":4,\"ranges\":[{\"offset\":0,"
                          "\"length\":131072},{\"offset\":1507328,\"length\":131072}]"),
            std::string::npos)
      << json.Out;

  const Output map = Run({path_, "--bytes-per-bit", "4096", "--map"});
  EXPECT_EQ(map.Status, 0);
  EXPECT_NE(map.Out.find("|##.....................##.......  "), std::string::npos) << map.Out;
}

TEST_F(InspectBitmap, ABitmapThatDoesNotMatchItsGeometryIsTold) {
  WriteFile({0x00, 0xFF});
  const Output mismatch = Run({path_, "--bytes-per-bit", "4096", "--bit-count", "20"});
  EXPECT_EQ(mismatch.Status, 1);
  EXPECT_NE(mismatch.Err.find("holds 2 bytes, but 20 blocks take 3"), std::string::npos) << mismatch.Err;

  // Bits set past the stated last block: the ranges are given, and the doubt said.
  const Output past = Run({path_, "--bytes-per-bit", "4096", "--bit-count", "12"});
  EXPECT_EQ(past.Status, 1);
  EXPECT_NE(past.Err.find("bits past block 11 are set"), std::string::npos) << past.Err;
  EXPECT_NE(past.Out.find("changed  4 blocks"), std::string::npos) << past.Out;

  WriteFile({});
  EXPECT_EQ(Run({path_, "--bytes-per-bit", "4096"}).Status, 1) << "an empty file is no bitmap";
  std::remove(path_.c_str());
  const Output missing = Run({path_, "--bytes-per-bit", "4096"});
  EXPECT_EQ(missing.Status, 1);
  EXPECT_NE(missing.Err.find("cannot read"), std::string::npos);
}

TEST_F(InspectBitmap, MistakenArgumentsAreUsageErrors) {
  WriteFile({0x01});
  const std::vector<std::vector<std::string>> mistakes = {
      {path_},                                       // no block size
      {path_, "--bytes-per-bit"},                    // no number
      {path_, "--bytes-per-bit", "0"},               // not positive
      {path_, "--bytes-per-bit", "64k"},             // not a number
      {path_, "--bytes-per-bit", "99999999999999999999"},
      {"--bytes-per-bit", "4096"},                   // no file
      {path_, path_, "--bytes-per-bit", "4096"},     // two files
      {path_, "--bytes-per-bit", "4096", "--colour"},
      {path_, "--bytes-per-bit", "4096", "--picture"},
  };
  for (const std::vector<std::string>& arguments : mistakes) {
    const Output out = Run(arguments);
    EXPECT_EQ(out.Status, 2) << arguments.back();
    EXPECT_NE(out.Err.find("usage: kvcbt-inspect"), std::string::npos);
    EXPECT_TRUE(out.Out.empty());
  }
  EXPECT_EQ(Inspect({"frobnicate"}).Status, 2);
  EXPECT_EQ(Inspect({}).Status, 2);
  EXPECT_EQ(Inspect({"--help"}).Status, 0);
}

}  // namespace
}  // namespace kvinspect
