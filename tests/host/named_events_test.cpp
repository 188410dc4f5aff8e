// Named events the machine provides and the Zw event and wait services, as the driver's
// boot-time wait uses them: open until the event exists, then wait in one-second steps.
#include <gtest/gtest.h>
#include <wdm.h>

#include <atomic>
#include <thread>

#include "kvhost/clock.h"
#include "kvhost/irql.h"
#include "kvhost/named_events.h"
#include "kvhost/object.h"
#include "kvhost/thread.h"
#include "kvhost/verifier.h"

namespace {

constexpr std::u16string_view kSafeName = u"\\Device\\VolumesSafeForWriteAccess";

NTSTATUS OpenEvent(const WCHAR* name, HANDLE* handle, ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE) {
  UNICODE_STRING text;
  RtlInitUnicodeString(&text, name);
  OBJECT_ATTRIBUTES oa;
  InitializeObjectAttributes(&oa, &text, attributes, nullptr, nullptr);
  return ZwOpenEvent(handle, EVENT_ALL_ACCESS, &oa);
}

TEST(NamedEvents, OpenFindsTheMachinesEventAndWaitsEndBySignalOrTimeout) {
  HANDLE handle = nullptr;
  EXPECT_EQ(OpenEvent(L"\\Device\\VolumesSafeForWriteAccess", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
  PKEVENT safe = kvhost::CreateNamedEvent(kSafeName, NotificationEvent, FALSE);
  ASSERT_NE(safe, nullptr);
  EXPECT_EQ(kvhost::CreateNamedEvent(kSafeName, NotificationEvent, FALSE), nullptr) << "the name is taken";
  EXPECT_EQ(OpenEvent(L"\\device\\volumessafeforwriteaccess", &handle, OBJ_KERNEL_HANDLE),
            STATUS_OBJECT_NAME_NOT_FOUND)
      << "without OBJ_CASE_INSENSITIVE the case must match";
  ASSERT_EQ(OpenEvent(L"\\device\\volumessafeforwriteaccess", &handle), STATUS_SUCCESS);

  kvhost::FreezeClock();
  LARGE_INTEGER oneSecond;
  oneSecond.QuadPart = -kvhost::kSystemTimeUnitsPerSecond;
  std::atomic<NTSTATUS> first = STATUS_PENDING;
  std::atomic<NTSTATUS> second = STATUS_PENDING;
  std::thread waiter([&] {
    first = ZwWaitForSingleObject(handle, FALSE, &oneSecond);
    second = ZwWaitForSingleObject(handle, FALSE, &oneSecond);
  });
  ASSERT_TRUE(kvhost::WaitForThreadsInTimedWait(1));
  kvhost::AdvanceClock(kvhost::kSystemTimeUnitsPerSecond);
  while (first == STATUS_PENDING) std::this_thread::yield();
  ASSERT_TRUE(kvhost::WaitForWaiters(safe, 1)) << "the second wait has begun";
  KeSetEvent(safe, 0, FALSE);
  waiter.join();
  EXPECT_EQ(first, STATUS_TIMEOUT);
  EXPECT_EQ(second, STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  // The machine's event stays (permanent) and is not reported as left behind.
}

TEST(NamedEvents, CreatedEventsByHandleAndWaitsOnOtherHandles) {
  HANDLE unnamed = nullptr;
  ASSERT_EQ(ZwCreateEvent(&unnamed, EVENT_ALL_ACCESS, nullptr, SynchronizationEvent, FALSE), STATUS_SUCCESS);
  LONG previous = -1;
  EXPECT_EQ(ZwSetEvent(unnamed, &previous), STATUS_SUCCESS);
  EXPECT_EQ(previous, 0);
  LARGE_INTEGER now{};
  EXPECT_EQ(ZwWaitForSingleObject(unnamed, FALSE, &now), STATUS_SUCCESS);
  EXPECT_EQ(ZwWaitForSingleObject(unnamed, FALSE, &now), STATUS_TIMEOUT) << "a synchronization event resets itself";
  EXPECT_EQ(ZwSetEvent(unnamed, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(ZwClearEvent(unnamed), STATUS_SUCCESS);
  EXPECT_EQ(ZwWaitForSingleObject(unnamed, FALSE, &now), STATUS_TIMEOUT);

  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"\\BaseNamedObjects\\KvcbtReady");
  OBJECT_ATTRIBUTES oa;
  InitializeObjectAttributes(&oa, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
  HANDLE named = nullptr, again = nullptr;
  ASSERT_EQ(ZwCreateEvent(&named, EVENT_ALL_ACCESS, &oa, NotificationEvent, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(ZwCreateEvent(&again, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_OBJECT_NAME_COLLISION);
  oa.Attributes |= OBJ_OPENIF;
  ASSERT_EQ(ZwCreateEvent(&again, EVENT_ALL_ACCESS, &oa, NotificationEvent, FALSE), STATUS_OBJECT_NAME_EXISTS);
  EXPECT_EQ(ZwWaitForSingleObject(again, FALSE, &now), STATUS_SUCCESS) << "the same, signalled event";
  ZwClose(named);
  ZwClose(again);
  HANDLE gone = nullptr;
  EXPECT_EQ(OpenEvent(L"\\BaseNamedObjects\\KvcbtReady", &gone), STATUS_OBJECT_NAME_NOT_FOUND)
      << "a temporary event goes with its last handle";

  // A thread handle is signalled when the thread ends.
  HANDLE thread = nullptr;
  ASSERT_EQ(PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, [](PVOID) {}, nullptr),
            STATUS_SUCCESS);
  EXPECT_EQ(ZwWaitForSingleObject(thread, FALSE, nullptr), STATUS_SUCCESS);
  ZwClose(thread);

  // A key is not waitable; a handle to one is refused. So is a name of another kind.
  PVOID device = kvhost::ObCreateObject(*IoDeviceObjectType, 8, u"\\Device\\NotAnEvent");
  EXPECT_EQ(OpenEvent(L"\\Device\\NotAnEvent", &gone), STATUS_OBJECT_TYPE_MISMATCH);
  HANDLE deviceHandle = kvhost::ObCreateHandle(device);
  EXPECT_EQ(ZwWaitForSingleObject(deviceHandle, FALSE, &now), STATUS_OBJECT_TYPE_MISMATCH);
  ZwClose(deviceHandle);
  ObDereferenceObject(device);

  kvhost::ViolationCapture capture;
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { ZwSetEvent(unnamed, nullptr); });
  EXPECT_TRUE(capture.Saw("PassiveLevelRequired")) << capture.Describe();
  ZwClose(unnamed);
}

}  // namespace
