// Rundown protection: a wait for release blocks until the last reference is returned, and
// every acquisition after it began fails.
#include <gtest/gtest.h>
#include <wdm.h>

#include <future>
#include <thread>

#include "kvhost/irql.h"
#include "kvhost/verifier.h"

namespace {

using namespace std::chrono_literals;

// Spins until acquisitions fail, i.e. until the wait has begun, without keeping a reference.
template <class Acquire, class Release>
void AwaitRundownStart(Acquire acquire, Release release) {
  while (acquire()) {
    release();
    std::this_thread::yield();
  }
}

TEST(Rundown, WaitBlocksUntilTheLastReleaseAndLaterAcquisitionsFail) {
  EX_RUNDOWN_REF ref;
  ExInitializeRundownProtection(&ref);
  ASSERT_TRUE(ExAcquireRundownProtection(&ref));
  ASSERT_TRUE(ExAcquireRundownProtectionEx(&ref, 2));

  auto waiter = std::async(std::launch::async, [&] { ExWaitForRundownProtectionRelease(&ref); });
  AwaitRundownStart([&] { return ExAcquireRundownProtection(&ref) != 0; },
                    [&] { ExReleaseRundownProtection(&ref); });
  EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout) << "three references are out";
  ExReleaseRundownProtectionEx(&ref, 2);
  EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout) << "one is still out";
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { ExReleaseRundownProtection(&ref); });  // allowed at DISPATCH_LEVEL
  waiter.get();

  EXPECT_FALSE(ExAcquireRundownProtection(&ref)) << "run down for good";
  ExReInitializeRundownProtection(&ref);
  EXPECT_TRUE(ExAcquireRundownProtection(&ref));
  ExReleaseRundownProtection(&ref);
  ExWaitForRundownProtectionRelease(&ref);  // nothing out: returns at once
  EXPECT_FALSE(ExAcquireRundownProtection(&ref));
}

TEST(Rundown, CacheAwareFormBehavesAlikeInCallerProvidedMemory) {
  SIZE_T size = ExSizeOfRundownProtectionCacheAware();
  auto ref = static_cast<PEX_RUNDOWN_REF_CACHE_AWARE>(ExAllocatePoolWithTag(NonPagedPoolNx, size, KV_POOL_TAG('C', 'b', 't', '0')));
  ASSERT_NE(ref, nullptr);
  ExInitializeRundownProtectionCacheAware(ref, size);
  ASSERT_TRUE(ExAcquireRundownProtectionCacheAware(ref));  // the device's own reference
  // A request's reference, taken and given back on different threads.
  ASSERT_TRUE(std::async(std::launch::async, [&] { return ExAcquireRundownProtectionCacheAware(ref) != 0; }).get());

  ExReleaseRundownProtectionCacheAware(ref);  // removal gives back the device's reference
  auto waiter = std::async(std::launch::async, [&] { ExWaitForRundownProtectionReleaseCacheAware(ref); });
  AwaitRundownStart([&] { return ExAcquireRundownProtectionCacheAware(ref) != 0; },
                    [&] { ExReleaseRundownProtectionCacheAware(ref); });
  EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout);
  std::async(std::launch::async, [&] { ExReleaseRundownProtectionCacheAware(ref); }).get();
  waiter.get();
  EXPECT_FALSE(ExAcquireRundownProtectionCacheAware(ref));
  ExFreePoolWithTag(ref, KV_POOL_TAG('C', 'b', 't', '0'));
}

TEST(Rundown, ReleasingMoreThanWasAcquiredAndUninitialisedUseAreReported) {
  kvhost::ViolationCapture capture;
  EX_RUNDOWN_REF ref;
  ExInitializeRundownProtection(&ref);
  ExReleaseRundownProtection(&ref);
  EXPECT_EQ(capture.Count("RundownReleaseUnderflow"), 1u) << capture.Describe();
  EXPECT_TRUE(ExAcquireRundownProtection(&ref)) << "the count was not taken below zero";

  auto waiter = std::async(std::launch::async, [&] { ExWaitForRundownProtectionRelease(&ref); });
  AwaitRundownStart([&] { return ExAcquireRundownProtection(&ref) != 0; },
                    [&] { ExReleaseRundownProtection(&ref); });
  ExReleaseRundownProtectionEx(&ref, 2);
  waiter.get();
  EXPECT_EQ(capture.Count("RundownReleaseUnderflow"), 2u) << capture.Describe();

  auto* garbage = static_cast<PEX_RUNDOWN_REF_CACHE_AWARE>(
      ExAllocatePoolWithTag(NonPagedPoolNx, ExSizeOfRundownProtectionCacheAware(), KV_POOL_TAG('C', 'b', 't', '0')));
  EXPECT_FALSE(ExAcquireRundownProtectionCacheAware(garbage));
  EXPECT_EQ(capture.Count("RundownNotInitialized"), 1u);
  ExInitializeRundownProtectionCacheAware(garbage, 8);
  EXPECT_EQ(capture.Count("RundownTooSmall"), 1u);
  ExFreePool(garbage);
}

}  // namespace
