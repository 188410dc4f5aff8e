// Threads: the kernel's record of every host thread, system threads (PsCreateSystemThread,
// PsTerminateSystemThread), thread ids and priorities, and the processors.
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <csetjmp>
#include <cstdio>
#include <set>
#include <system_error>
#include <thread>

#include "dispatcher_internal.h"
#include "kernel_thread.h"
#include "kvhost/object.h"
#include "kvhost/symbolize.h"
#include "kvhost/thread.h"
#include "kvhost/verifier.h"

namespace {

using kvhost::detail::HostThread;

// Windows' system process id; every thread here belongs to it.
constexpr ULONG_PTR kSystemProcessId = 4;
// The priority PsCreateSystemThread gives a new thread.
constexpr KPRIORITY kDefaultSystemThreadPriority = 8;

std::atomic<ULONG_PTR> g_nextThreadId{8};  // ids are multiples of 4, as Windows' are

thread_local HostThread* t_current = nullptr;

// An adopted thread's record goes away with the thread.
struct AdoptedRecord {
  HostThread* Owned = nullptr;
  ~AdoptedRecord() {
    if (t_current == Owned) t_current = nullptr;
    delete Owned;
  }
};
thread_local AdoptedRecord t_adopted;

struct SystemThreads {
  std::mutex Lock;
  std::condition_variable Ended;
  std::set<PKTHREAD> Running;
};

SystemThreads& Threads() {
  static SystemThreads* threads = new SystemThreads;  // system threads may outlive main
  return *threads;
}

std::atomic<ULONG> g_processorCount{0};

ULONG HostProcessorCount() {
  unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : (n > 64 ? 64 : n);
}

ULONG ProcessorCount() {
  ULONG n = g_processorCount.load(std::memory_order_relaxed);
  return n == 0 ? HostProcessorCount() : n;
}

void InitializeThreadBody(PKTHREAD body, PKSTART_ROUTINE startRoutine, PVOID startContext, bool systemThread) {
  body->Header.Type = ThreadObject;
  body->Header.Size = static_cast<UCHAR>(sizeof(_KTHREAD) / sizeof(LONG));
  body->Header.SignalState = 0;
  InitializeListHead(&body->Header.WaitListHead);
  body->Priority = kDefaultSystemThreadPriority;
  body->ExitStatus = STATUS_PENDING;
  body->ThreadId = g_nextThreadId.fetch_add(4);
  body->StartRoutine = startRoutine;
  body->StartContext = startContext;
  body->SystemThread = systemThread ? TRUE : FALSE;
}

bool IsThreadBody(PKTHREAD thread) {
  return thread != nullptr && thread->Header.Type == ThreadObject &&
         thread->Header.Size == sizeof(_KTHREAD) / sizeof(LONG);
}

std::string DescribeSystemThread(PKTHREAD t) {
  char text[64];
  std::snprintf(text, sizeof text, " (thread id %llu)", static_cast<unsigned long long>(t->ThreadId));
  return "system thread " + kvhost::DescribeRoutine(reinterpret_cast<const void*>(t->StartRoutine)) + text;
}

// The end of a system thread: its object is signalled, its own reference goes, and it
// leaves the running set last, when it no longer touches anything of the machine.
void FinishSystemThread(HostThread* host) {
  PKTHREAD body = host->Thread;
  {
    std::lock_guard<std::mutex> guard(kvhost::detail::DispatcherLock());
    body->Header.SignalState = 1;
    body->Host = nullptr;
    kvhost::detail::WakeWaiters(&body->Header);
  }
  ObDereferenceObject(body);
  t_current = nullptr;
  delete host;
  SystemThreads& s = Threads();
  std::lock_guard<std::mutex> guard(s.Lock);
  s.Running.erase(body);
  s.Ended.notify_all();
}

void RunSystemThread(HostThread* host) {
  t_current = host;
  kvhost::detail::ForceIrql(PASSIVE_LEVEL);
  std::jmp_buf terminated;
  host->TerminateTarget = &terminated;
  PKTHREAD body = host->Thread;
  // PsTerminateSystemThread comes back here without unwinding the thread's frames, as
  // Windows does not unwind them either.
  if (setjmp(terminated) == 0) {
    body->StartRoutine(body->StartContext);
    body->ExitStatus = STATUS_SUCCESS;
  }
  kvhost::detail::CheckReturnedClean("system thread start routine", reinterpret_cast<const void*>(body->StartRoutine));
  FinishSystemThread(host);
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "threads",
      .Order = 20,
      .Reset =
          [] {
            // A system thread of an earlier test still runs driver code against a machine
            // that is about to be deleted under it: nothing sound can follow.
            std::vector<std::string> left = kvhost::DescribeRunningSystemThreads();
            if (!left.empty()) kvhost::BugCheck(0xC4, "a test left a system thread running: " + left.front());
            kvhost::SetActiveProcessorCount(0);
          },
      // A thread told to stop at the end of the test gets a moment to do so.
      .Quiesce = [] { kvhost::WaitForSystemThreads(std::chrono::seconds(5)); },
      .Check =
          [](std::vector<std::string>& problems) {
            for (std::string& line : kvhost::DescribeRunningSystemThreads())
              problems.push_back(line + " is still running");
          },
  });
  return true;
}();

}  // namespace

namespace kvhost::detail {

HostThread& CurrentThread() {
  if (t_current != nullptr) return *t_current;
  auto* host = new HostThread;
  host->Thread = &host->Adopted.Tcb;
  InitializeThreadBody(host->Thread, nullptr, nullptr, false);
  host->Thread->Host = host;
  t_adopted.Owned = host;
  t_current = host;
  return *host;
}

void BecomeSystemThread() { CurrentThread().Thread->SystemThread = TRUE; }

void CheckReturnedClean(const char* what, const void* routine) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql != PASSIVE_LEVEL) {
    // Windows: bug check 0xE1, WORKER_THREAD_RETURNED_AT_BAD_IRQL (and its kin for threads).
    kvhost::ReportViolationF("ReturnedAtRaisedIrql", "%s %s returned at IRQL %u", what,
                             kvhost::DescribeRoutine(routine).c_str(), irql);
  }
  std::string locks;
  ULONG held = ReleaseAbandonedSpinLocks(&locks);
  if (held != 0)
    kvhost::ReportViolationF("ReturnedHoldingSpinLock", "%s %s returned holding %lu spin lock(s): %s", what,
                             kvhost::DescribeRoutine(routine).c_str(), static_cast<unsigned long>(held), locks.c_str());
  ForceIrql(PASSIVE_LEVEL);
}

}  // namespace kvhost::detail

namespace kvhost {

std::vector<std::string> DescribeRunningSystemThreads() {
  SystemThreads& s = Threads();
  std::lock_guard<std::mutex> guard(s.Lock);
  std::vector<std::string> out;
  for (PKTHREAD t : s.Running) out.push_back(DescribeSystemThread(t));
  return out;
}

size_t RunningSystemThreadCount() {
  SystemThreads& s = Threads();
  std::lock_guard<std::mutex> guard(s.Lock);
  return s.Running.size();
}

bool WaitForSystemThreads(std::chrono::milliseconds limit) {
  SystemThreads& s = Threads();
  std::unique_lock<std::mutex> lock(s.Lock);
  return s.Ended.wait_for(lock, limit, [&] { return s.Running.empty(); });
}

size_t WaitersOn(const void* dispatcherObject) {
  auto* header = static_cast<const DISPATCHER_HEADER*>(dispatcherObject);
  std::lock_guard<std::mutex> guard(detail::DispatcherLock());
  if (header->WaitListHead.Flink == nullptr) return 0;
  size_t count = 0;
  for (const LIST_ENTRY* e = header->WaitListHead.Flink; e != &header->WaitListHead; e = e->Flink) ++count;
  return count;
}

bool WaitForWaiters(const void* dispatcherObject, size_t count, std::chrono::milliseconds limit) {
  auto until = std::chrono::steady_clock::now() + limit;
  while (WaitersOn(dispatcherObject) < count) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void SetActiveProcessorCount(ULONG count) { g_processorCount.store(count > 64 ? 64 : count); }

}  // namespace kvhost

extern "C" {

PKTHREAD KeGetCurrentThread(VOID) { return kvhost::detail::CurrentThread().Thread; }

HANDLE PsGetCurrentThreadId(VOID) {
  return reinterpret_cast<HANDLE>(kvhost::detail::CurrentThread().Thread->ThreadId);
}

HANDLE PsGetCurrentProcessId(VOID) { return reinterpret_cast<HANDLE>(kSystemProcessId); }

HANDLE PsGetThreadId(PETHREAD Thread) { return reinterpret_cast<HANDLE>(Thread->Tcb.ThreadId); }

BOOLEAN PsIsSystemThread(PETHREAD Thread) { return Thread->Tcb.SystemThread; }

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext) {
  const void* caller = __builtin_return_address(0);
  if (KeGetCurrentIrql() != PASSIVE_LEVEL)
    kvhost::ReportViolationF("ThreadCreateIrql", "PsCreateSystemThread by %s at IRQL %u",
                             kvhost::DescribeCodeAddress(caller).c_str(), KeGetCurrentIrql());
  if (ThreadHandle == nullptr || StartRoutine == nullptr) return STATUS_INVALID_PARAMETER;

  auto* body = static_cast<_ETHREAD*>(kvhost::ObCreateObject(*PsThreadType, sizeof(_ETHREAD)));
  if (body == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  InitializeThreadBody(&body->Tcb, StartRoutine, StartContext, true);
  auto* host = new HostThread;
  host->Thread = &body->Tcb;
  body->Tcb.Host = host;
  HANDLE handle = kvhost::ObCreateHandle(body, DesiredAccess);
  {
    SystemThreads& s = Threads();
    std::lock_guard<std::mutex> guard(s.Lock);
    s.Running.insert(&body->Tcb);
  }
  try {
    // The new thread owns the creation reference and drops it when it ends.
    std::thread(RunSystemThread, host).detach();
  } catch (const std::system_error&) {
    {
      SystemThreads& s = Threads();
      std::lock_guard<std::mutex> guard(s.Lock);
      s.Running.erase(&body->Tcb);
    }
    delete host;
    kvhost::ObCloseHandle(handle);
    ObDereferenceObject(body);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  *ThreadHandle = handle;
  if (ClientId != nullptr) {
    ClientId->UniqueProcess = reinterpret_cast<HANDLE>(kSystemProcessId);
    ClientId->UniqueThread = reinterpret_cast<HANDLE>(body->Tcb.ThreadId);
  }
  return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus) {
  HostThread& self = kvhost::detail::CurrentThread();
  if (self.TerminateTarget == nullptr) {
    kvhost::ReportViolationF("TerminateNonSystemThread", "PsTerminateSystemThread by %s on a thread that is not a "
                             "system thread",
                             kvhost::DescribeCodeAddress(__builtin_return_address(0)).c_str());
    return STATUS_INVALID_PARAMETER;
  }
  self.Thread->ExitStatus = ExitStatus;
  std::longjmp(*self.TerminateTarget, 1);
}

KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority) {
  const void* caller = __builtin_return_address(0);
  if (!IsThreadBody(Thread)) {
    kvhost::ReportViolationF("ThreadNotAThread", "KeSetPriorityThread(%p) by %s: not a thread",
                             static_cast<void*>(Thread), kvhost::DescribeCodeAddress(caller).c_str());
    return 0;
  }
  if (Priority <= LOW_PRIORITY || Priority > HIGH_PRIORITY) {
    kvhost::ReportViolationF("ThreadPriorityRange", "KeSetPriorityThread(%p, %d) by %s: priority out of range",
                             static_cast<void*>(Thread), Priority, kvhost::DescribeCodeAddress(caller).c_str());
    return Thread->Priority;
  }
  if (KeGetCurrentIrql() > DISPATCH_LEVEL)
    kvhost::ReportViolationF("ThreadPriorityIrql", "KeSetPriorityThread by %s at IRQL %u",
                             kvhost::DescribeCodeAddress(caller).c_str(), KeGetCurrentIrql());
  // The host scheduler does not follow it; the value is what the driver reads back.
  return __atomic_exchange_n(&Thread->Priority, Priority, __ATOMIC_SEQ_CST);
}

KPRIORITY KeQueryPriorityThread(PKTHREAD Thread) { return __atomic_load_n(&Thread->Priority, __ATOMIC_SEQ_CST); }

ULONG KeGetCurrentProcessorNumberEx(PPROCESSOR_NUMBER ProcNumber) {
  int cpu = sched_getcpu();
  ULONG number = static_cast<ULONG>(cpu < 0 ? 0 : cpu) % ProcessorCount();
  if (ProcNumber != nullptr) {
    ProcNumber->Group = 0;
    ProcNumber->Number = static_cast<UCHAR>(number);
    ProcNumber->Reserved = 0;
  }
  return number;
}

ULONG KeQueryActiveProcessorCount(KAFFINITY* ActiveProcessors) {
  ULONG count = ProcessorCount();
  if (ActiveProcessors != nullptr) *ActiveProcessors = count >= 64 ? ~KAFFINITY{0} : ((KAFFINITY{1} << count) - 1);
  return count;
}

ULONG KeQueryActiveProcessorCountEx(USHORT GroupNumber) {
  return (GroupNumber == 0 || GroupNumber == ALL_PROCESSOR_GROUPS) ? ProcessorCount() : 0;
}

}  // extern "C"
