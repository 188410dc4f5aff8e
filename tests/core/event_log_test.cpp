// The record queue: what a record holds, the bound on outstanding records, and recording
// from many threads at DISPATCH_LEVEL.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "cbt_driver_fixture.h"
#include "kvhost/irql.h"
#include "kvhost/pool.h"
#include "kvhost/registry.h"
#include "log/cbt_event_log.h"
#include "log/cbt_log_inspection.h"

namespace kvtest {
namespace {

constexpr ULONG kLogTag = 0x0157544A;

class EventLogTest : public CbtDriverTest {
 protected:
  void SetUp() override {
    CbtDriverTest::SetUp();
    ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
    DropRecords();
  }
};

TEST_F(EventLogTest, ARecordCarriesItsArgumentsAndAtMost62Characters) {
  const std::string sixtyTwo(62, 'a');
  const std::string sixtyThree = std::string(62, 'b') + "c";
  EXPECT_EQ(CbtLogEvent(0x40000004, 12, L'D', sixtyTwo.c_str(), 4321, 0xC000009A), STATUS_SUCCESS);
  EXPECT_EQ(CbtLogEvent(0, 0, L'?', sixtyThree.c_str(), 2, 0), STATUS_SUCCESS);
  EXPECT_EQ(CbtLogEvent(1, 2, L'E', nullptr, 3, 4), STATUS_SUCCESS);

  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(+records[0].DeviceFlags, 0x40000004u);
  EXPECT_EQ(+records[0].VolumeNumber, 12u);
  EXPECT_EQ(+records[0].DriveLetter, u'D');
  EXPECT_EQ(+records[0].Line, 4321u);
  EXPECT_EQ(+records[0].Status, 0xC000009Au);
  EXPECT_EQ(std::string(records[0].Text), sixtyTwo);
  EXPECT_EQ(std::string(records[1].Text), std::string(62, 'b')) << "cut after its 62nd character";
  const char zeros[CBT_LOG_TEXT_BYTES] = {};
  EXPECT_EQ(std::memcmp(records[1].Text + 62, zeros, 2), 0);
  EXPECT_EQ(std::memcmp(records[2].Text, zeros, sizeof zeros), 0) << "a null text leaves the field zero";
}

TEST_F(EventLogTest, AtMost4096RecordsAreOutstanding) {
  for (int i = 0; i < CBT_LOG_QUEUE_LIMIT; ++i) ASSERT_EQ(CBT_LOG_DRIVER("CbtTest", i), STATUS_SUCCESS);
  EXPECT_EQ(CBT_LOG_DRIVER("CbtTest", 4096), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(CbtEventLog.QueuedCount, CBT_LOG_QUEUE_LIMIT);
  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_EQ(records.size(), size_t{CBT_LOG_QUEUE_LIMIT});
  EXPECT_EQ(+records.back().Status, 4095u) << "the refused record is dropped without trace";

  CBT_LOG_RECORD_BODY oldest;
  ASSERT_EQ(CbtDrainQueuedLogRecords(&oldest, 1), 1u);
  EXPECT_EQ(+oldest.Status, 0u);
  EXPECT_EQ(CBT_LOG_DRIVER("CbtTest", 4097), STATUS_SUCCESS) << "a drained place is taken again";
  EXPECT_EQ(CbtEventLog.QueuedCount, CBT_LOG_QUEUE_LIMIT);
}

TEST_F(EventLogTest, WithoutARecordTheCallIsDroppedAndTheCountRestored) {
  kvhost::ExhaustLookasideList(&CbtEventLog.RecordLookaside);
  EXPECT_EQ(CBT_LOG_DRIVER("CbtTest", 0), STATUS_INSUFFICIENT_RESOURCES);
  kvhost::ExhaustLookasideList(&CbtEventLog.RecordLookaside, false);
  EXPECT_EQ(CbtEventLog.QueuedCount, 0);
  EXPECT_TRUE(Records().empty());
}

TEST_F(EventLogTest, ThreadsAtDispatchLevelEachQueueEveryRecordInTheirOrder) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      kvhost::ScopedIrql atDispatch(DISPATCH_LEVEL);
      for (int i = 0; i < kPerThread; ++i) CbtLogEvent(0, static_cast<ULONG>(t), L'?', "CbtTest", 0, i);
    });
  for (std::thread& thread : threads) thread.join();
  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_EQ(records.size(), size_t{kThreads * kPerThread});
  std::vector<ULONG> next(kThreads, 0);
  for (const CBT_LOG_RECORD_BODY& record : records) EXPECT_EQ(+record.Status, next[record.VolumeNumber]++);
  EXPECT_EQ(CbtEventLog.QueuedCount, kThreads * kPerThread);
}

// With the log off a call costs nothing: no record, no allocation.
TEST_F(CbtDriverTest, WithTheLogOffNothingIsQueuedOrAllocated) {
  kvhost::SetRegistryDword(kServiceKey, u"DebugLog", 0);
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  const kvhost::PoolMark mark = kvhost::MarkPool();
  EXPECT_EQ(CBT_LOG_DRIVER("CbtTest", 0), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::AllocationsSince(mark), 0u);
  EXPECT_TRUE(Records().empty());
}

TEST_F(CbtDriverTest, WithoutTheLogImageTheLogStaysOffWhateverTheSetting) {
  kvhost::FailNthAllocation(1, kLogTag);
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  kvhost::ClearPoolFaults();
  EXPECT_EQ(CBT_LOG_DRIVER("CbtTest", 0), STATUS_SUCCESS);
  EXPECT_TRUE(Records().empty()) << "not even the load records";
}

}  // namespace
}  // namespace kvtest
