// Mapping pairs into a cluster map: the input is a lowest VCN (8 bytes) and the pairs. What
// the decoder adds must be a map of non-negative clusters that start inside the volume,
// from the lowest VCN on.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ntfs_fuzz_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvfuzz;
  if (size < 8) return 0;
  LONGLONG lowestVcn;
  std::memcpy(&lowestVcn, data, 8);
  // The pairs in a buffer of exactly their size, so that a read past them is caught.
  std::vector<uint8_t> pairs(data + 8, data + size);

  const size_t mark = PoolMark();
  NTFS_VOLUME_CONTEXT context = {};
  context.BytesPerCluster = 4096;
  context.TotalClusters = 1 << 20;
  LARGE_MCB mcb;
  FsRtlInitializeLargeMcb(&mcb, PagedPool);
  const NTSTATUS status = NtfsAddMappingPairsToMcb(&context, &mcb, pairs.empty() ? nullptr : pairs.data(),
                                                   static_cast<ULONG>(pairs.size()), lowestVcn);
  ExpectReaderStatus(status, "NtfsAddMappingPairsToMcb");
  LONGLONG vcn, lcn, clusters;
  for (ULONG i = 0; FsRtlGetNextLargeMcbEntry(&mcb, i, &vcn, &lcn, &clusters); ++i) {
    if (lcn == -1) continue;
    if (lcn < 0 || lcn > context.TotalClusters + (1ll << 32) || vcn < lowestVcn || clusters <= 0) {
      std::fprintf(stderr, "run %lld -> %lld (%lld clusters) from lowest VCN %lld\n", static_cast<long long>(vcn),
                   static_cast<long long>(lcn), static_cast<long long>(clusters), static_cast<long long>(lowestVcn));
      std::abort();
    }
  }
  FsRtlUninitializeLargeMcb(&mcb);
  AbortOnLeak(mark, "the mapping pairs");
  return 0;
}
