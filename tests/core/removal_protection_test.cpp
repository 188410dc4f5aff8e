// Removal protection: requests racing a volume's removal either get in and give their
// reference back once, or are refused; refusals are paid back without touching the
// rundown block.
#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "cbt_driver_fixture.h"
#include "driver/cbt_removal_protection.h"
#include "kvhost/pool.h"

namespace kvtest {
namespace {

class RemovalProtectionTest : public CbtDriverTest {
 protected:
  void SetUp() override {
    CbtDriverTest::SetUp();
    ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  }

  // Starts the removal of `volume` on its own thread and waits until it is under way.
  std::future<NTSTATUS> StartRemoval(Volume& volume) {
    auto removal = std::async(std::launch::async, [&volume] { return SendPnp(volume.Top(), IRP_MN_REMOVE_DEVICE); });
    while (volume.Extension()->RemovalState != CbtRemovalPending) std::this_thread::yield();
    return removal;
  }

  void FinishRemoval(Volume& volume, std::future<NTSTATUS>& removal) {
    EXPECT_EQ(removal.get(), STATUS_SUCCESS);
    EXPECT_EQ(volume.Pdo->AttachedDevice, nullptr);
    DeleteTestVolume(volume.Lower);
    volume.Removed = true;
  }
};

// A request refused during the removal gives its reference back to the bypass count: the
// removal still waits for the request that got in before it.
TEST_F(RemovalProtectionTest, ARefusedRequestsReleaseLeavesTheRundownAlone) {
  Volume& volume = AddVolume(FixedVolume(1));
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  ASSERT_EQ(CbtAcquireRemovalProtection(volume.Filter), ULONG{CbtRemovalActive});  // a request inside
  auto removal = StartRemoval(volume);

  // The removal marks itself pending before its rundown begins; an acquisition in between
  // still gets in and is given back to the block.
  ULONG state;
  for (;;) {
    state = CbtAcquireRemovalProtection(volume.Filter);
    if (e->RundownBypassCount != 0) break;
    CbtReleaseRemovalProtection(volume.Filter);
    std::this_thread::yield();
  }
  EXPECT_EQ(state, ULONG{CbtRemovalPending});
  EXPECT_EQ(e->RundownBypassCount, 1);
  CbtReleaseRemovalProtection(volume.Filter);
  EXPECT_EQ(e->RundownBypassCount, 0);
  EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout)
      << "the refused request's release must not count as the inside request's";

  CbtReleaseRemovalProtection(volume.Filter);
  FinishRemoval(volume, removal);
}

// Threads send reads and writes while the volume is removed. Each request either got in
// (and was completed by the volume) or was refused with the removal status; the bypass
// count is back to zero when the last refused request has gone, and the removal ends once
// the one request held inside lets go.
TEST_F(RemovalProtectionTest, RequestsRacingTheRemovalGetInOrAreRefused) {
  constexpr int kThreads = 4;
  Volume& volume = AddVolume(FixedVolume(1));
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  ASSERT_EQ(CbtAcquireRemovalProtection(volume.Filter), ULONG{CbtRemovalActive});

  std::atomic<bool> go{false};
  std::atomic<int> gotIn{0};
  std::vector<std::future<NTSTATUS>> senders;
  for (int t = 0; t < kThreads; ++t)
    senders.push_back(std::async(std::launch::async, [&, t] {
      std::vector<unsigned char> buffer(512, static_cast<unsigned char>(t));
      const UCHAR major = t % 2 == 0 ? IRP_MJ_READ : IRP_MJ_WRITE;
      while (!go) std::this_thread::yield();
      for (;;) {
        const NTSTATUS status = Transfer(volume.Top(), major, buffer.data(), 512, 512 * t).Status.Status;
        if (status != STATUS_SUCCESS) return status;
        ++gotIn;
      }
    }));
  go = true;
  while (gotIn < kThreads * 20) std::this_thread::yield();
  auto removal = StartRemoval(volume);

  for (int t = 0; t < kThreads; ++t)
    EXPECT_EQ(senders[t].get(), t % 2 == 0 ? STATUS_DEVICE_DOES_NOT_EXIST : STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(e->RundownBypassCount, 0);
  EXPECT_EQ(volume.Lower->Requests[IRP_MJ_READ] + volume.Lower->Requests[IRP_MJ_WRITE], gotIn.load())
      << "only requests that got in reached the volume";
  EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

  CbtReleaseRemovalProtection(volume.Filter);
  FinishRemoval(volume, removal);
}

// Without memory for a rundown block the volume is still filtered; its removal simply
// does not wait.
TEST_F(RemovalProtectionTest, WithoutARundownBlockTheRemovalOnlyMovesTheState) {
  TestVolume* lower = CreateTestVolume(volumeDriver_, FixedVolume(1));
  ASSERT_NE(lower, nullptr);
  // Name, class property, rundown block: the third of the driver's own blocks.
  kvhost::FailNthAllocation(3, 0x30746243);
  EXPECT_EQ(Driver()->DriverExtension->AddDevice(Driver(), lower->Device), STATUS_SUCCESS);
  kvhost::ClearPoolFaults();
  PDEVICE_OBJECT filter = lower->Device->AttachedDevice;
  ASSERT_NE(filter, nullptr);
  PCBT_DEVICE_EXTENSION e = CbtExtensionOf(filter);
  EXPECT_EQ(e->RundownProtection, nullptr);
  EXPECT_EQ(CbtAcquireRemovalProtection(filter), ULONG{CbtRemovalActive});
  CbtReleaseRemovalProtection(filter);
  EXPECT_EQ(SendPnp(filter, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS);
  EXPECT_EQ(lower->Device->AttachedDevice, nullptr);
  DeleteTestVolume(lower);
}

}  // namespace
}  // namespace kvtest
