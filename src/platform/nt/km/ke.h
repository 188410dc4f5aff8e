// Kernel core: IRQL, spin locks, dispatcher objects (events, semaphores), waits, time,
// threads and processors, bug checks.
#pragma once
#include "basetypes.h"

// ---------------------------------------------------------------------------------------
// IRQL. PASSIVE_LEVEL, APC_LEVEL, DISPATCH_LEVEL ... are in basetypes.h.
#define SYNCH_LEVEL 12

EXTERN_C NTHALAPI KIRQL KeGetCurrentIrql(VOID);
EXTERN_C NTHALAPI KIRQL KfRaiseIrql(_In_ KIRQL NewIrql);
EXTERN_C NTHALAPI VOID KeLowerIrql(_In_ KIRQL NewIrql);
EXTERN_C NTKERNELAPI KIRQL KeRaiseIrqlToDpcLevel(VOID);
EXTERN_C NTKERNELAPI KIRQL KeRaiseIrqlToSynchLevel(VOID);
#define KeRaiseIrql(a, b) (*(b) = KfRaiseIrql(a))

// ---------------------------------------------------------------------------------------
// Spin locks. A KSPIN_LOCK is one pointer-sized word, zero when free.
typedef ULONG_PTR KSPIN_LOCK;
typedef KSPIN_LOCK* PKSPIN_LOCK;

typedef struct _KSPIN_LOCK_QUEUE {
  struct _KSPIN_LOCK_QUEUE* volatile Next;
  PKSPIN_LOCK volatile Lock;
} KSPIN_LOCK_QUEUE, *PKSPIN_LOCK_QUEUE;

typedef struct _KLOCK_QUEUE_HANDLE {
  KSPIN_LOCK_QUEUE LockQueue;
  KIRQL OldIrql;
} KLOCK_QUEUE_HANDLE, *PKLOCK_QUEUE_HANDLE;

FORCEINLINE VOID KeInitializeSpinLock(_Out_ PKSPIN_LOCK SpinLock) { *SpinLock = 0; }

EXTERN_C NTKERNELAPI KIRQL KeAcquireSpinLockRaiseToDpc(_Inout_ PKSPIN_LOCK SpinLock);
EXTERN_C NTKERNELAPI VOID KeReleaseSpinLock(_Inout_ PKSPIN_LOCK SpinLock, _In_ KIRQL NewIrql);
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

EXTERN_C NTKERNELAPI VOID KeAcquireSpinLockAtDpcLevel(_Inout_ PKSPIN_LOCK SpinLock);
EXTERN_C NTKERNELAPI VOID KeReleaseSpinLockFromDpcLevel(_Inout_ PKSPIN_LOCK SpinLock);
EXTERN_C NTKERNELAPI BOOLEAN FASTCALL KeTryToAcquireSpinLockAtDpcLevel(_Inout_ PKSPIN_LOCK SpinLock);
EXTERN_C NTKERNELAPI BOOLEAN FASTCALL KeTestSpinLock(_In_ PKSPIN_LOCK SpinLock);
EXTERN_C NTKERNELAPI KIRQL KeAcquireSpinLockForDpc(_Inout_ PKSPIN_LOCK SpinLock);
EXTERN_C NTKERNELAPI VOID KeReleaseSpinLockForDpc(_Inout_ PKSPIN_LOCK SpinLock, _In_ KIRQL OldIrql);

EXTERN_C NTKERNELAPI VOID FASTCALL KeAcquireInStackQueuedSpinLock(_Inout_ PKSPIN_LOCK SpinLock,
                                                                  _Out_ PKLOCK_QUEUE_HANDLE LockHandle);
EXTERN_C NTKERNELAPI VOID FASTCALL KeReleaseInStackQueuedSpinLock(_In_ PKLOCK_QUEUE_HANDLE LockHandle);
EXTERN_C NTKERNELAPI VOID FASTCALL KeAcquireInStackQueuedSpinLockAtDpcLevel(_Inout_ PKSPIN_LOCK SpinLock,
                                                                            _Out_ PKLOCK_QUEUE_HANDLE LockHandle);
EXTERN_C NTKERNELAPI VOID FASTCALL KeReleaseInStackQueuedSpinLockFromDpcLevel(_In_ PKLOCK_QUEUE_HANDLE LockHandle);

// ---------------------------------------------------------------------------------------
// Threads and processes (opaque to drivers).
typedef struct _KTHREAD* PKTHREAD;
typedef struct _KTHREAD* PRKTHREAD;
typedef struct _ETHREAD* PETHREAD;
typedef struct _KPROCESS* PKPROCESS;
typedef struct _KPROCESS* PRKPROCESS;
typedef struct _EPROCESS* PEPROCESS;

// ---------------------------------------------------------------------------------------
// Dispatcher objects. Every waitable object starts with a DISPATCHER_HEADER; the whole
// state of an event or a semaphore lives in the caller's structure (drivers embed them in
// their device extensions), and waiting threads are linked into WaitListHead through
// their wait blocks.
typedef enum _KOBJECTS {
  EventNotificationObject = 0,
  EventSynchronizationObject = 1,
  MutantObject = 2,
  ProcessObject = 3,
  QueueObject = 4,
  SemaphoreObject = 5,
  ThreadObject = 6,
  GateObject = 7,
  TimerNotificationObject = 8,
  TimerSynchronizationObject = 9,
  Spare2Object = 10,
  Spare3Object = 11,
  Spare4Object = 12,
  Spare5Object = 13,
  Spare6Object = 14,
  Spare7Object = 15,
  Spare8Object = 16,
  ProfileCallbackObject = 17,
  ApcObject = 18,
  DpcObject = 19,
  DeviceQueueObject = 20,
  PriQueueObject = 21,
  InterruptObject = 22,
  ProfileObject = 23,
  Timer2NotificationObject = 24,
  Timer2SynchronizationObject = 25,
  ThreadedDpcObject = 26,
  MaximumKernelObject = 27
} KOBJECTS;

typedef struct _DISPATCHER_HEADER {
  union {
    struct {
      UCHAR Type;  // KOBJECTS
      UCHAR Signalling;
      UCHAR Size;  // of the whole object in LONGs; zero until initialised
      UCHAR Reserved1;
    } DUMMYSTRUCTNAME;
    volatile LONG Lock;
  } DUMMYUNIONNAME;
  LONG SignalState;
  LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;
C_ASSERT(sizeof(DISPATCHER_HEADER) == 24);

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef struct _KEVENT {
  DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KSEMAPHORE {
  DISPATCHER_HEADER Header;
  LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef enum _WAIT_TYPE { WaitAll, WaitAny, WaitNotification, WaitDequeue, WaitDpc } WAIT_TYPE;

typedef enum _KWAIT_REASON {
  Executive,
  FreePage,
  PageIn,
  PoolAllocation,
  DelayExecution,
  Suspended,
  UserRequest,
  WrExecutive,
  WrFreePage,
  WrPageIn,
  WrPoolAllocation,
  WrDelayExecution,
  WrSuspended,
  WrUserRequest,
  WrEventPair,
  WrQueue,
  WrLpcReceive,
  WrLpcReply,
  WrVirtualMemory,
  WrPageOut,
  WrRendezvous,
  WrKeyedEvent,
  WrTerminated,
  WrProcessInSwap,
  WrCpuRateControl,
  WrCalloutStack,
  WrKernel,
  WrResource,
  WrPushLock,
  WrMutex,
  WrQuantumEnd,
  WrDispatchInt,
  WrPreempted,
  WrYieldExecution,
  WrFastMutex,
  WrGuardedMutex,
  WrRundown,
  WrAlertByThreadId,
  WrDeferredPreempt,
  WrPhysicalFault,
  MaximumWaitReason
} KWAIT_REASON;

// One per object a thread waits on. A wait for up to THREAD_WAIT_OBJECTS objects uses the
// thread's own blocks; a longer one must pass an array of Count blocks.
typedef struct _KWAIT_BLOCK {
  LIST_ENTRY WaitListEntry;
  UCHAR WaitType;  // WAIT_TYPE
  volatile UCHAR BlockState;
  USHORT WaitKey;  // index of Object in the wait's array
  LONG SpareLong;
  PKTHREAD Thread;
  PVOID Object;
  PVOID SparePtr;
} KWAIT_BLOCK, *PKWAIT_BLOCK, *PRKWAIT_BLOCK;

#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64

EXTERN_C NTKERNELAPI VOID KeInitializeEvent(_Out_ PRKEVENT Event, _In_ EVENT_TYPE Type, _In_ BOOLEAN State);
// Returns the previous signal state. Wait is accepted (a wait must follow at once).
EXTERN_C NTKERNELAPI LONG KeSetEvent(_Inout_ PRKEVENT Event, _In_ KPRIORITY Increment, _In_ BOOLEAN Wait);
EXTERN_C NTKERNELAPI VOID KeClearEvent(_Inout_ PRKEVENT Event);
EXTERN_C NTKERNELAPI LONG KeResetEvent(_Inout_ PRKEVENT Event);
EXTERN_C NTKERNELAPI LONG KeReadStateEvent(_In_ PRKEVENT Event);

EXTERN_C NTKERNELAPI VOID KeInitializeSemaphore(_Out_ PRKSEMAPHORE Semaphore, _In_ LONG Count, _In_ LONG Limit);
// Returns the previous count. Raising the count above the limit is a bug check
// (STATUS_SEMAPHORE_LIMIT_EXCEEDED raised in kernel mode).
EXTERN_C NTKERNELAPI LONG KeReleaseSemaphore(_Inout_ PRKSEMAPHORE Semaphore, _In_ KPRIORITY Increment,
                                             _In_ LONG Adjustment, _In_ BOOLEAN Wait);
EXTERN_C NTKERNELAPI LONG KeReadStateSemaphore(_In_ PRKSEMAPHORE Semaphore);

// Timeout: NULL waits forever; negative is relative, in 100 ns units; positive is an
// absolute system time; zero tests the state without waiting. Returns STATUS_WAIT_0 (+
// index for WaitAny) or STATUS_TIMEOUT. A non-zero timeout requires IRQL <= APC_LEVEL.
EXTERN_C NTKERNELAPI NTSTATUS KeWaitForSingleObject(_In_ PVOID Object, _In_ KWAIT_REASON WaitReason,
                                                    _In_ KPROCESSOR_MODE WaitMode, _In_ BOOLEAN Alertable,
                                                    _In_opt_ PLARGE_INTEGER Timeout);
EXTERN_C NTKERNELAPI NTSTATUS KeWaitForMultipleObjects(_In_ ULONG Count, _In_reads_(Count) PVOID Object[],
                                                       _In_ WAIT_TYPE WaitType, _In_ KWAIT_REASON WaitReason,
                                                       _In_ KPROCESSOR_MODE WaitMode, _In_ BOOLEAN Alertable,
                                                       _In_opt_ PLARGE_INTEGER Timeout,
                                                       _Out_opt_ PKWAIT_BLOCK WaitBlockArray);
// Interval as a wait's Timeout; returns STATUS_SUCCESS when it has passed.
EXTERN_C NTKERNELAPI NTSTATUS KeDelayExecutionThread(_In_ KPROCESSOR_MODE WaitMode, _In_ BOOLEAN Alertable,
                                                     _In_ PLARGE_INTEGER Interval);

// ---------------------------------------------------------------------------------------
// Bug checks.
EXTERN_C NTKERNELAPI DECLSPEC_NORETURN VOID KeBugCheckEx(_In_ ULONG BugCheckCode, _In_ ULONG_PTR BugCheckParameter1,
                                                         _In_ ULONG_PTR BugCheckParameter2,
                                                         _In_ ULONG_PTR BugCheckParameter3,
                                                         _In_ ULONG_PTR BugCheckParameter4);
EXTERN_C NTKERNELAPI DECLSPEC_NORETURN VOID KeBugCheck(_In_ ULONG BugCheckCode);

// ---------------------------------------------------------------------------------------
// Time. System time counts 100 ns units since 1601-01-01 UTC; interrupt time counts
// 100 ns units since the machine started and never goes back.
typedef struct _KSYSTEM_TIME {
  ULONG LowPart;
  LONG High1Time;
  LONG High2Time;
} KSYSTEM_TIME, *PKSYSTEM_TIME;

// The page the kernel shares with everyone, updated at every clock tick. Only the fields a
// driver reads are present; each 64-bit time starts on an 8-byte boundary, so the whole
// value can be read in one load (write High2Time, then the low 8 bytes).
typedef struct _KUSER_SHARED_DATA {
  ULONG TickCountLowDeprecated;
  ULONG TickCountMultiplier;
  volatile KSYSTEM_TIME InterruptTime;
  ULONG Reserved0;
  volatile KSYSTEM_TIME SystemTime;
  ULONG Reserved1;
  volatile KSYSTEM_TIME TimeZoneBias;
  ULONG Reserved2;
  union {
    volatile KSYSTEM_TIME TickCount;
    volatile ULONG64 TickCountQuad;
  } DUMMYUNIONNAME;
} KUSER_SHARED_DATA, *PKUSER_SHARED_DATA;
C_ASSERT(__builtin_offsetof(KUSER_SHARED_DATA, SystemTime) % 8 == 0);
C_ASSERT(__builtin_offsetof(KUSER_SHARED_DATA, InterruptTime) % 8 == 0);

// Drivers read SharedUserData->SystemTime as they would the fixed shared page.
EXTERN_C KUSER_SHARED_DATA KvUserSharedData;
#define SharedUserData (&KvUserSharedData)

// At clock-tick granularity (KeQueryTimeIncrement), as the shared page has it.
EXTERN_C NTKERNELAPI VOID KeQuerySystemTime(_Out_ PLARGE_INTEGER CurrentTime);
EXTERN_C NTKERNELAPI VOID KeQuerySystemTimePrecise(_Out_ PLARGE_INTEGER CurrentTime);
EXTERN_C NTKERNELAPI ULONGLONG KeQueryInterruptTime(VOID);
EXTERN_C NTKERNELAPI ULONGLONG KeQueryInterruptTimePrecise(_Out_ PULONG64 QpcTimeStamp);
EXTERN_C NTKERNELAPI ULONGLONG KeQueryUnbiasedInterruptTime(VOID);
// Clock ticks since the machine started.
EXTERN_C NTKERNELAPI VOID KeQueryTickCount(_Out_ PLARGE_INTEGER CurrentCount);
// 100 ns units per clock tick.
EXTERN_C NTKERNELAPI ULONG KeQueryTimeIncrement(VOID);
EXTERN_C NTKERNELAPI LARGE_INTEGER KeQueryPerformanceCounter(_Out_opt_ PLARGE_INTEGER PerformanceFrequency);
// Busy-waits for the given time (real time, whatever the machine's clock does).
EXTERN_C NTKERNELAPI VOID KeStallExecutionProcessor(_In_ ULONG MicroSeconds);

// ---------------------------------------------------------------------------------------
// Threads and processors.
typedef struct _CLIENT_ID {
  HANDLE UniqueProcess;
  HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef VOID KSTART_ROUTINE(_In_ PVOID StartContext);
typedef KSTART_ROUTINE* PKSTART_ROUTINE;

#define LOW_PRIORITY 0
#define LOW_REALTIME_PRIORITY 16
#define HIGH_PRIORITY 31
#define MAXIMUM_PRIORITY 32

#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)

EXTERN_C NTKERNELAPI PKTHREAD KeGetCurrentThread(VOID);
#define PsGetCurrentThread() ((PETHREAD)KeGetCurrentThread())
EXTERN_C NTKERNELAPI HANDLE PsGetCurrentThreadId(VOID);
EXTERN_C NTKERNELAPI HANDLE PsGetCurrentProcessId(VOID);
EXTERN_C NTKERNELAPI HANDLE PsGetThreadId(_In_ PETHREAD Thread);
EXTERN_C NTKERNELAPI BOOLEAN PsIsSystemThread(_In_ PETHREAD Thread);

// Starts a thread of the system process at PASSIVE_LEVEL running StartRoutine(StartContext)
// and returns a kernel handle to its thread object (close it with ZwClose). The thread
// object is signalled when the thread ends.
EXTERN_C NTKERNELAPI NTSTATUS PsCreateSystemThread(_Out_ PHANDLE ThreadHandle, _In_ ULONG DesiredAccess,
                                                   _In_opt_ POBJECT_ATTRIBUTES ObjectAttributes,
                                                   _In_opt_ HANDLE ProcessHandle, _Out_opt_ PCLIENT_ID ClientId,
                                                   _In_ PKSTART_ROUTINE StartRoutine, _In_opt_ PVOID StartContext);
// Ends the calling system thread; does not return.
EXTERN_C NTKERNELAPI NTSTATUS PsTerminateSystemThread(_In_ NTSTATUS ExitStatus);

// Returns the previous priority.
EXTERN_C NTKERNELAPI KPRIORITY KeSetPriorityThread(_Inout_ PKTHREAD Thread, _In_ KPRIORITY Priority);
EXTERN_C NTKERNELAPI KPRIORITY KeQueryPriorityThread(_In_ PKTHREAD Thread);

typedef struct _PROCESSOR_NUMBER {
  USHORT Group;
  UCHAR Number;
  UCHAR Reserved;
} PROCESSOR_NUMBER, *PPROCESSOR_NUMBER;

#define ALL_PROCESSOR_GROUPS 0xffff

EXTERN_C NTKERNELAPI ULONG KeGetCurrentProcessorNumberEx(_Out_opt_ PPROCESSOR_NUMBER ProcNumber);
#define KeGetCurrentProcessorNumber() KeGetCurrentProcessorNumberEx(NULL)
EXTERN_C NTKERNELAPI ULONG KeQueryActiveProcessorCount(_Out_opt_ KAFFINITY* ActiveProcessors);
EXTERN_C NTKERNELAPI ULONG KeQueryActiveProcessorCountEx(_In_ USHORT GroupNumber);
