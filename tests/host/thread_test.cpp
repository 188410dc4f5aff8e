// System threads and the current thread: what a driver's own thread relies on (it runs at
// PASSIVE_LEVEL, its object is signalled when it ends, PsTerminateSystemThread does not
// return) and what a test sees of threads left running.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wdm.h>

#include <future>
#include <set>
#include <thread>

#include "kvhost/object.h"
#include "kvhost/thread.h"
#include "kvhost/verifier.h"

namespace {

using testing::HasSubstr;

struct ThreadContext {
  KEVENT Go;
  KIRQL Irql = HIGH_LEVEL;
  HANDLE Id = nullptr;
  bool PassedTerminate = false;
};

void WriterThread(PVOID parameter) {
  auto* context = static_cast<ThreadContext*>(parameter);
  context->Irql = KeGetCurrentIrql();
  context->Id = PsGetCurrentThreadId();
  KeWaitForSingleObject(&context->Go, Executive, KernelMode, FALSE, nullptr);
  PsTerminateSystemThread(STATUS_SUCCESS);
  context->PassedTerminate = true;  // never reached
}

TEST(SystemThread, RunsAtPassiveLevelAndItsObjectIsSignalledWhenItEnds) {
  ThreadContext context;
  KeInitializeEvent(&context.Go, SynchronizationEvent, FALSE);
  HANDLE handle = nullptr;
  CLIENT_ID client{};
  ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, &client, WriterThread, &context),
            STATUS_SUCCESS);
  PVOID thread = nullptr;
  ASSERT_EQ(ObReferenceObjectByHandle(handle, SYNCHRONIZE, *PsThreadType, KernelMode, &thread, nullptr),
            STATUS_SUCCESS);
  EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::RunningSystemThreadCount(), 1u);
  EXPECT_EQ(KeSetPriorityThread(static_cast<PKTHREAD>(thread), LOW_REALTIME_PRIORITY), 8)
      << "a new system thread starts at priority 8";
  EXPECT_EQ(KeQueryPriorityThread(static_cast<PKTHREAD>(thread)), LOW_REALTIME_PRIORITY);

  LARGE_INTEGER poll;
  poll.QuadPart = 0;
  EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, &poll), STATUS_TIMEOUT);
  KeSetEvent(&context.Go, 0, FALSE);
  EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
  EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0)
      << "an ended thread stays signalled";
  ObDereferenceObject(thread);

  EXPECT_EQ(context.Irql, PASSIVE_LEVEL);
  EXPECT_EQ(context.Id, client.UniqueThread);
  EXPECT_NE(context.Id, PsGetCurrentThreadId());
  EXPECT_FALSE(context.PassedTerminate) << "PsTerminateSystemThread does not return";
  EXPECT_TRUE(kvhost::WaitForSystemThreads());
}

void WaitForGo(PVOID parameter) {
  KeWaitForSingleObject(&static_cast<ThreadContext*>(parameter)->Go, Executive, KernelMode, FALSE, nullptr);
}

TEST(SystemThread, OneStillRunningIsNamedByItsStartRoutine) {
  ThreadContext context;
  KeInitializeEvent(&context.Go, NotificationEvent, FALSE);
  HANDLE handle;
  ASSERT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr, WaitForGo, &context), STATUS_SUCCESS);
  ZwClose(handle);
  std::vector<std::string> running = kvhost::DescribeRunningSystemThreads();
  ASSERT_EQ(running.size(), 1u);
  EXPECT_THAT(running[0], HasSubstr("WaitForGo"));
  KeSetEvent(&context.Go, 0, FALSE);
  EXPECT_TRUE(kvhost::WaitForSystemThreads());
  EXPECT_TRUE(kvhost::DescribeRunningSystemThreads().empty());
}

void EndAtDispatch(PVOID) {
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
}

TEST(SystemThread, MisuseIsReported) {
  kvhost::ViolationCapture capture;
  HANDLE handle;
  ASSERT_EQ(PsCreateSystemThread(&handle, 0, nullptr, nullptr, nullptr, EndAtDispatch, nullptr), STATUS_SUCCESS);
  ZwClose(handle);
  ASSERT_TRUE(kvhost::WaitForSystemThreads());
  ASSERT_EQ(capture.Count("ReturnedAtRaisedIrql"), 1u) << capture.Describe();
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("EndAtDispatch"));

  EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER) << "not a system thread";
  EXPECT_TRUE(capture.Saw("TerminateNonSystemThread"));
  KeSetPriorityThread(KeGetCurrentThread(), 40);
  EXPECT_TRUE(capture.Saw("ThreadPriorityRange"));
}

TEST(CurrentThread, EveryHostThreadHasItsOwnThreadAndId) {
  PKTHREAD self = KeGetCurrentThread();
  EXPECT_EQ(reinterpret_cast<PVOID>(PsGetCurrentThread()), reinterpret_cast<PVOID>(self));
  EXPECT_EQ(KeGetCurrentThread(), self);
  std::set<HANDLE> ids{PsGetCurrentThreadId()};
  for (int i = 0; i < 3; ++i) ids.insert(std::async(std::launch::async, [] { return PsGetCurrentThreadId(); }).get());
  EXPECT_EQ(ids.size(), 4u);
  EXPECT_EQ(PsGetCurrentProcessId(), reinterpret_cast<HANDLE>(4)) << "everything runs in the system process";
}

TEST(Processors, CountAndNumberFollowTheMachine) {
  kvhost::SetActiveProcessorCount(3);
  KAFFINITY active = 0;
  EXPECT_EQ(KeQueryActiveProcessorCount(&active), 3u);
  EXPECT_EQ(active, 0b111u);
  EXPECT_EQ(KeQueryActiveProcessorCountEx(ALL_PROCESSOR_GROUPS), 3u);
  EXPECT_EQ(KeQueryActiveProcessorCountEx(1), 0u) << "one processor group";
  PROCESSOR_NUMBER number;
  EXPECT_LT(KeGetCurrentProcessorNumberEx(&number), 3u);
  EXPECT_EQ(number.Group, 0);
  EXPECT_LT(KeGetCurrentProcessorNumber(), 3u);
}

}  // namespace
