// The write-side watch on restart pages: a write whose data begins with a restart page gives
// its count and loses its clean flag on the way to the disk; anything else passes unchanged.
#include <gtest/gtest.h>
#include <wdm.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "fs/cbt_ntfs.h"
#include "kvhost/io.h"
#include "ntfs_fixture.h"

namespace kvfs {
namespace {

constexpr ULONG kTestTag = KV_POOL_TAG('T', 'e', 's', 't');

// A write request over `data`: its MDL describes the bytes from non-paged pool (mapped by
// construction) or from a locked buffer that still has to be mapped.
class WriteRequest {
 public:
  WriteRequest(const std::vector<uint8_t>& data, bool nonPaged) : bytes_(data) {
    irp_ = IoAllocateIrp(1, FALSE);
    if (nonPaged) {
      pool_ = ExAllocatePoolWithTag(NonPagedPoolNx, bytes_.size(), kTestTag);
      std::memcpy(pool_, bytes_.data(), bytes_.size());
      mdl_ = IoAllocateMdl(pool_, static_cast<ULONG>(bytes_.size()), FALSE, FALSE, nullptr);
      MmBuildMdlForNonPagedPool(mdl_);
    } else {
      mdl_ = IoAllocateMdl(bytes_.data(), static_cast<ULONG>(bytes_.size()), FALSE, FALSE, nullptr);
      MmProbeAndLockPages(mdl_, KernelMode, IoReadAccess);
      locked_ = true;
    }
    irp_->MdlAddress = mdl_;
  }
  ~WriteRequest() {
    irp_->MdlAddress = nullptr;
    if (locked_) MmUnlockPages(mdl_);
    IoFreeMdl(mdl_);
    if (pool_ != nullptr) ExFreePoolWithTag(pool_, kTestTag);
    IoFreeIrp(irp_);
  }
  PIRP Irp() const { return irp_; }
  // The bytes the write carries now.
  std::vector<uint8_t> Data() const {
    const uint8_t* at = pool_ != nullptr ? static_cast<const uint8_t*>(pool_) : bytes_.data();
    return std::vector<uint8_t>(at, at + bytes_.size());
  }

 private:
  std::vector<uint8_t> bytes_;
  PVOID pool_ = nullptr;
  PMDL mdl_ = nullptr;
  PIRP irp_ = nullptr;
  bool locked_ = false;
};

uint16_t FlagsAt(const std::vector<uint8_t>& page, size_t areaOffset) {
  return static_cast<uint16_t>(page[areaOffset + 0x0E] | (page[areaOffset + 0x0F] << 8));
}

class LogFileWriteTest : public testing::Test {
 protected:
  NTFS_VOLUME_CONTEXT context_ = {};
};

TEST_F(LogFileWriteTest, ARestartPageWriteGivesItsCountAndLosesItsCleanFlag) {
  for (const char* signature : {"RSTR", "CHKD"}) {
    for (bool nonPaged : {true, false}) {
      std::vector<uint8_t> page = BuildRestartPage({.Count = 12, .Lsn = 40, .Flags = 0x0003, .Signature = signature});
      page.resize(8192, 0xEE);  // two pages written at once: only the first is looked at
      WriteRequest write(page, nonPaged);
      ULONG count = 0;
      ASSERT_TRUE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), &count)) << signature;
      EXPECT_EQ(count, 12u);
      const std::vector<uint8_t> written = write.Data();
      EXPECT_EQ(FlagsAt(written, 0x30), 0x0001) << "only the clean flag goes";
      std::vector<uint8_t> expected = page;
      expected[0x30 + 0x0E] = 0x01;
      EXPECT_EQ(written, expected) << "nothing else changes";
    }
  }
}

uint32_t CountAt(const std::vector<uint8_t>& page, size_t areaOffset) {
  uint32_t count;
  std::memcpy(&count, &page[areaOffset + 0x28], 4);
  return count;
}

// The page protected anew with update sequence number `number`. Numbers with bit 0x0002 set
// show a clean flag cleared where the number stands instead of the flags.
std::vector<uint8_t> WithSequenceNumber(std::vector<uint8_t> page, uint16_t number) {
  EXPECT_TRUE(UnprotectRecord(page));
  uint16_t arrayOffset;
  std::memcpy(&arrayOffset, &page[0x04], 2);
  const uint16_t before = static_cast<uint16_t>(number - 1);  // protecting counts it up
  std::memcpy(&page[arrayOffset], &before, 2);
  EXPECT_TRUE(ProtectRecord(page));
  EXPECT_EQ(page[arrayOffset], static_cast<uint8_t>(number));
  return page;
}

// The page goes to the disk protected: the last two bytes of each 512-byte stride carry the
// update sequence number, and what belongs there waits in the update sequence array. An
// area 16 bytes before a stride's end has its flags there; the clean flag is then cleared in
// their array entry, and the page still reads whole. The count, at a multiple of 8, is never
// on a stride's end: an area just before one still gives it as written.
TEST_F(LogFileWriteTest, FlagsOnAStrideEndAreClearedWhereThePageKeepsThem) {
  for (uint16_t areaOffset : {0x1D8, 0x1F0, 0x3F0, 0xDF0}) {
    SCOPED_TRACE(areaOffset);
    const std::vector<uint8_t> page = WithSequenceNumber(
        BuildRestartPage({.Count = 21, .Lsn = 5, .Flags = 0x0003, .AreaOffset = areaOffset}), 0x0107);
    WriteRequest write(page, true);
    ULONG count = 0;
    ASSERT_TRUE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), &count));
    EXPECT_EQ(count, 21u);
    std::vector<uint8_t> written = write.Data();
    size_t changed = 0;
    for (size_t i = 0; i < page.size(); ++i) changed += written[i] != page[i];
    EXPECT_EQ(changed, 1u) << "one byte of the flags, wherever they are kept";
    ASSERT_TRUE(UnprotectRecord(written)) << "the page is not torn";
    EXPECT_EQ(FlagsAt(written, areaOffset), 0x0001);
    EXPECT_EQ(CountAt(written, areaOffset), 21u);
  }

  // A page without an array keeps its flags where they are, as the log's reader takes it.
  std::vector<uint8_t> bare = BuildRestartPage({.Count = 4, .Lsn = 5, .AreaOffset = 0x1F0});
  ASSERT_TRUE(UnprotectRecord(bare));
  bare[0x06] = 0;
  bare[0x07] = 0;
  WriteRequest write(bare, true);
  ULONG count = 0;
  ASSERT_TRUE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), &count));
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(FlagsAt(write.Data(), 0x1F0), 0x0000);
}

// Pages whose flags cannot be changed without tearing them: flags on a stride's end whose
// array cannot stand for them, or flags inside the array. Each is declined and written as
// sent. The area is at 0x3F0, its flags on the end of stride 2; the array is at 0x1E with nine
// entries.
TEST_F(LogFileWriteTest, APageWhoseArrayCannotHoldItsFlagsIsDeclined) {
  const std::vector<uint8_t> page =
      WithSequenceNumber(BuildRestartPage({.Count = 21, .Lsn = 5, .AreaOffset = 0x3F0}), 0x0107);
  // The array (number and entries, 18 bytes) moved to `to`, and the header saying so.
  auto moved = [&](uint16_t to) {
    std::vector<uint8_t> bad = page;
    std::copy(page.begin() + 0x1E, page.begin() + 0x30, bad.begin() + to);
    std::memcpy(&bad[0x04], &to, 2);
    return bad;
  };
  struct Case {
    const char* What;
    std::vector<uint8_t> Data;
  };
  std::vector<Case> cases = {{"the stride does not carry the number", page},
                             {"the array has no entry for the stride", page},
                             {"an odd array offset", page},
                             {"the array inside the page's header", moved(0x1C)},
                             {"the array after the restart area", moved(0x500)},
                             {"the entry on a stride's end itself", moved(0x1FA)},
                             {"an area whose flags are the array's sequence number", page}};
  cases[0].Data[0x3FE] ^= 0xFF;
  cases[1].Data[0x06] = 2;
  // Odd, with the bytes there made to look like the number, so that only the offset is wrong.
  cases[2].Data[0x04] = 0x1F;
  cases[2].Data[0x1F] = page[0x3FE];
  cases[2].Data[0x20] = page[0x3FF];
  // An area at 0x10 (its first bytes the header's page sizes) has its flags at 0x1E.
  cases[6].Data[0x18] = 0x10;
  cases[6].Data[0x19] = 0x00;
  for (const Case& c : cases) {
    WriteRequest write(c.Data, true);
    ULONG count = 99;
    EXPECT_FALSE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), &count)) << c.What;
    EXPECT_EQ(count, 0u) << c.What;
    EXPECT_EQ(write.Data(), c.Data) << c.What;
  }
}

TEST_F(LogFileWriteTest, OtherWritesPassUnchanged) {
  struct Case {
    const char* What;
    std::vector<uint8_t> Data;
  };
  std::vector<uint8_t> restart = BuildRestartPage({.Count = 12, .Lsn = 40});
  std::vector<uint8_t> misaligned = restart;
  misaligned[0x18] = 0x34;
  std::vector<uint8_t> bigPages = restart;
  bigPages[0x11] = 0x20;  // system page size 8,192
  std::vector<uint8_t> farArea = restart;
  farArea[0x18] = 0x00;
  farArea[0x19] = 0x10;  // area at 4,096
  std::vector<uint8_t> record = restart;
  std::memcpy(record.data(), "RCRD", 4);
  std::vector<uint8_t> shortWrite(restart.begin(), restart.begin() + 0x40);  // the area does not fit
  const std::vector<Case> cases = {{"area offset 0x34", misaligned},
                                   {"page size 8,192", bigPages},
                                   {"area at the page's end", farArea},
                                   {"log record page", record},
                                   {"restart page cut short", shortWrite},
                                   {"ordinary data", std::vector<uint8_t>(4096, 0x52)}};
  for (const Case& c : cases) {
    WriteRequest write(c.Data, true);
    ULONG count = 99;
    EXPECT_FALSE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), &count)) << c.What;
    EXPECT_EQ(write.Data(), c.Data) << c.What;
  }
}

TEST_F(LogFileWriteTest, MissingPiecesOrAFailedMappingNeverFailTheWrite) {
  const std::vector<uint8_t> page = BuildRestartPage({.Count = 12, .Lsn = 40});
  ULONG count = 5;
  EXPECT_FALSE(NtfsIsLogFileRestartCountIrp(&context_, nullptr, &count));
  WriteRequest write(page, false);
  EXPECT_FALSE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), nullptr));
  kvhost::MmFailSystemMappings(1);
  EXPECT_FALSE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), &count));
  EXPECT_EQ(write.Data(), page);
  // Once the buffer can be mapped the same write is recognised.
  EXPECT_TRUE(NtfsIsLogFileRestartCountIrp(&context_, write.Irp(), &count));
  EXPECT_EQ(count, 12u);

  PIRP bare = IoAllocateIrp(1, FALSE);
  EXPECT_FALSE(NtfsIsLogFileRestartCountIrp(nullptr, bare, &count));
  IoFreeIrp(bare);
}

}  // namespace
}  // namespace kvfs
