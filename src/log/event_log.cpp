// The record queue: CbtLogEvent and the log context it fills.
#include <ntstrsafe.h>

#include "driver/cbt_driver.h"
#include "log/cbt_event_log.h"

CBT_EVENT_LOG CbtEventLog;

VOID CbtInitializeEventLog(VOID) {
  RtlZeroMemory(&CbtEventLog, sizeof(CbtEventLog));
  ExInitializeNPagedLookasideList(&CbtEventLog.RecordLookaside, NULL, NULL, POOL_NX_ALLOCATION, CBT_LOG_RECORD_SIZE,
                                  CBT_LOG_POOL_TAG, 0);
  KeInitializeSpinLock(&CbtEventLog.QueueLock);
  InitializeListHead(&CbtEventLog.Queue);
  CbtEventLog.BufferSize = CBT_LOG_BUFFER_SIZE;
  // The writer's events are ready before any writer: the shutdown and power paths of the
  // C: volume may set them whether or not a writer was ever started.
  KeInitializeEvent(&CbtEventLog.FlushEvent, SynchronizationEvent, FALSE);
  KeInitializeEvent(&CbtEventLog.StopEvent, SynchronizationEvent, FALSE);
  KeInitializeEvent(&CbtEventLog.ReopenEvent, SynchronizationEvent, FALSE);
  // The image is allocated whatever DebugLog says; without it the log stays off for good,
  // since the writer would have nowhere to place records.
  CbtEventLog.Buffer = ExAllocatePoolWithTag(NonPagedPoolNx, CBT_LOG_BUFFER_SIZE, CBT_LOG_POOL_TAG);
  if (CbtEventLog.Buffer == NULL) return;
  RtlZeroMemory(CbtEventLog.Buffer, CBT_LOG_BUFFER_SIZE);
  CbtEventLog.LogFilePath = &CbtSettings.DebugLogPath;
  CbtEventLog.Enabled = CbtSettings.DebugLog != 0 ? 1 : 0;
}

VOID CbtReleaseEventLog(VOID) {
  CbtEventLog.Enabled = 0;
  PLIST_ENTRY entry;
  while ((entry = ExInterlockedRemoveHeadList(&CbtEventLog.Queue, &CbtEventLog.QueueLock)) != NULL) {
    ExFreeToNPagedLookasideList(&CbtEventLog.RecordLookaside, CONTAINING_RECORD(entry, CBT_LOG_RECORD, ListEntry));
    InterlockedDecrement(&CbtEventLog.QueuedCount);
  }
  ExDeleteNPagedLookasideList(&CbtEventLog.RecordLookaside);
  if (CbtEventLog.Buffer != NULL) {
    ExFreePoolWithTag(CbtEventLog.Buffer, CBT_LOG_POOL_TAG);
    CbtEventLog.Buffer = NULL;
  }
}

NTSTATUS CbtLogEvent(ULONG DeviceFlags, ULONG VolumeNumber, WCHAR DriveLetter, PCSTR Text, ULONG Line,
                     ULONG Status) {
  if (CbtEventLog.Enabled == 0) return STATUS_SUCCESS;
  // Reserve a place first, so that the bound holds however many threads record at once.
  if (InterlockedIncrement(&CbtEventLog.QueuedCount) > CBT_LOG_QUEUE_LIMIT) {
    InterlockedDecrement(&CbtEventLog.QueuedCount);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  PCBT_LOG_RECORD record =
      static_cast<PCBT_LOG_RECORD>(ExAllocateFromNPagedLookasideList(&CbtEventLog.RecordLookaside));
  if (record == NULL) {
    InterlockedDecrement(&CbtEventLog.QueuedCount);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(record, CBT_LOG_RECORD_SIZE);
  CBT_LOG_RECORD_BODY* body = &record->Body;
  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  body->SystemTime = static_cast<CBT_U64>(now.QuadPart);
  body->ThreadId = static_cast<CBT_U32>(reinterpret_cast<ULONG_PTR>(PsGetCurrentThreadId()));
  body->DeviceFlags = DeviceFlags;
  body->VolumeNumber = VolumeNumber;
  body->DriveLetter = static_cast<CBT_U16>(DriveLetter);
  body->Line = Line;
  body->Status = Status;
  // A bounded copy of 63 bytes with its terminator: at most 62 characters are kept.
  if (Text != NULL) RtlStringCbCopyA(body->Text, CBT_LOG_TEXT_CHARS + 1, Text);
  ExInterlockedInsertTailList(&CbtEventLog.Queue, &record->ListEntry, &CbtEventLog.QueueLock);
  return STATUS_SUCCESS;
}
