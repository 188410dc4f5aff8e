// The write-side watch on restart pages: a write whose data begins with a restart page gives
// its count and loses its clean flag on the way to the disk; anything else passes unchanged.
#include <gtest/gtest.h>
#include <wdm.h>

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
