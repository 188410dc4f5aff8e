// The bitmap's geometry: the worked volumes, what the geometry promises for any volume, and
// inputs it refuses.
#include <gtest/gtest.h>
#include <wdm.h>

#include <random>

#include "tracking/cbt_tracking.h"

namespace kvtest {
namespace {

struct WorkedVolume {
  const char* Name;
  ULONG Clusters;
  ULONG BytesPerCluster;
  ULONG BytesPerBit;
  ULONG Bits;
};

TEST(BitmapGeometryTest, WorkedVolumesGetTheirBlockSizeAndBitCount) {
  const WorkedVolume volumes[] = {
      {"1 GiB", 262144, 4096, 65536, 16384},
      {"64 GiB", 16777216, 4096, 65536, 1048576},
      {"100 GiB", 26214400, 4096, 65536, 1638400},
      {"1 TiB", 268435456, 4096, 311296, 3532046},
      {"2,000,000,000,000 bytes", 488281250, 4096, 569344, 3512815},
      {"4 TiB", 1073741824, 4096, 1257472, 3497531},
      {"one cluster of 2 MiB", 1, 2097152, 2097152, 1},
  };
  for (const WorkedVolume& v : volumes) {
    ULONG bits = 0, bytesPerBit = 0;
    EXPECT_EQ(CbtCalculateBitmapGeometry(v.Clusters, v.BytesPerCluster, &bits, &bytesPerBit), STATUS_SUCCESS) << v.Name;
    EXPECT_EQ(bytesPerBit, v.BytesPerBit) << v.Name;
    EXPECT_EQ(bits, v.Bits) << v.Name;
  }
}

TEST(BitmapGeometryTest, AnyVolumeIsCoveredByWholeClustersOfAtLeast64KiB) {
  std::mt19937 random(6);
  for (int i = 0; i < 200000; ++i) {
    const ULONG clusterShift = std::uniform_int_distribution<ULONG>(9, 21)(random);
    const ULONG bytesPerCluster =
        i % 4 == 0 ? std::uniform_int_distribution<ULONG>(1, 1u << 22)(random) : (1u << clusterShift);
    const ULONG clusters = i % 3 == 0 ? std::uniform_int_distribution<ULONG>(1, 100000)(random)
                                      : std::uniform_int_distribution<ULONG>(1, 0xFFFFFFFFu)(random);
    ULONG bits = 0, bytesPerBit = 0;
    ASSERT_EQ(CbtCalculateBitmapGeometry(clusters, bytesPerCluster, &bits, &bytesPerBit), STATUS_SUCCESS)
        << clusters << " clusters of " << bytesPerCluster;
    const unsigned long long volume = 1ull * clusters * bytesPerCluster;
    SCOPED_TRACE(testing::Message() << clusters << " clusters of " << bytesPerCluster << ": " << bits << " bits of "
                                    << bytesPerBit);
    ASSERT_EQ(bytesPerBit % bytesPerCluster, 0u) << "a bit covers whole clusters";
    if (65536 % bytesPerCluster == 0) ASSERT_GE(bytesPerBit, 65536u);
    ASSERT_GE(1ull * bits * bytesPerBit, volume) << "every byte of the volume has its bit";
    ASSERT_LT(1ull * (bits - 1) * bytesPerBit, volume) << "no bit lies wholly past the end";
    // Bit counts stay near 3.5 million for each started 64 TiB, unless the bits are single
    // clusters or the 64 KiB floor.
    const unsigned long long target = ((volume >> 46) + 1) * 104857600ull / 30;
    if (bytesPerBit > bytesPerCluster && bytesPerBit > 65536) ASSERT_LE(bits, 2 * target + 1);
  }
}

TEST(BitmapGeometryTest, ZeroInputsAndMissingOutputsAreRefusedLeavingTheOutputsAlone) {
  ULONG bits = 7, bytesPerBit = 9;
  EXPECT_EQ(CbtCalculateBitmapGeometry(0, 4096, &bits, &bytesPerBit), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(CbtCalculateBitmapGeometry(100, 0, &bits, &bytesPerBit), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(CbtCalculateBitmapGeometry(100, 4096, nullptr, &bytesPerBit), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(CbtCalculateBitmapGeometry(100, 4096, &bits, nullptr), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(bits, 7u);
  EXPECT_EQ(bytesPerBit, 9u);
}

}  // namespace
}  // namespace kvtest
