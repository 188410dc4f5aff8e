// The driver's record stream: every routine reports its notable steps and its failures
// through CbtLogEvent. While the DebugLog setting is on, each call becomes a record queued
// in memory; the log writer thread places queued records into the log image and writes it
// to the log file.
#pragma once
#include <ntddk.h>

#include "kvcbt/log_record.h"

// A queued record: list links, then the body that reaches the file. The entries of the
// record lookaside list are exactly this long (no padding after the body).
typedef struct _CBT_LOG_RECORD {
  LIST_ENTRY ListEntry;
  CBT_LOG_RECORD_BODY Body;
} CBT_LOG_RECORD, *PCBT_LOG_RECORD;

#define CBT_LOG_RECORD_SIZE 110u
C_ASSERT(FIELD_OFFSET(CBT_LOG_RECORD, Body) + sizeof(CBT_LOG_RECORD_BODY) == CBT_LOG_RECORD_SIZE);

// At most this many records are outstanding (queued or being written); later ones are
// dropped.
#define CBT_LOG_QUEUE_LIMIT 4096
// Bytes of the log image, and of the log file.
#define CBT_LOG_BUFFER_SIZE 0x80000u

// The driver-wide log context. The fields from LogVolumeDevice to FileEndOffset and the
// three events belong to the writer thread.
typedef struct _CBT_EVENT_LOG {
  PDEVICE_OBJECT LogVolumeDevice;  // next-lower device of the C: volume: target of raw image writes
  volatile UCHAR Enabled;          // records are accepted while 1
  PETHREAD WriterThread;           // referenced thread object of the writer
  PUNICODE_STRING LogFilePath;     // the DebugLogPath setting
  HANDLE FileHandle;               // the open log file, or NULL
  PVOID Buffer;                    // the log image
  ULONG BufferSize;
  ULONGLONG FileStartOffset;       // volume byte offset of the file's first byte
  ULONGLONG FileEndOffset;         // volume byte offset of the file's last byte
  NPAGED_LOOKASIDE_LIST RecordLookaside;
  KSPIN_LOCK QueueLock;
  LIST_ENTRY Queue;                // oldest first
  volatile LONG QueuedCount;       // records taken from the lookaside list and not yet returned
  KEVENT FlushEvent;               // shutdown has begun: write faster
  KEVENT StopEvent;                // write what is queued, then end
  KEVENT ReopenEvent;              // the C: volume is usable again: reopen the file
} CBT_EVENT_LOG, *PCBT_EVENT_LOG;

extern CBT_EVENT_LOG CbtEventLog;

// Queues one record. Any thread, IRQL up to DISPATCH_LEVEL; never waits. STATUS_SUCCESS
// when queued or when the log is off; STATUS_INSUFFICIENT_RESOURCES when dropped (the
// queue is full or no record is to be had). Callers do not act on the result.
NTSTATUS CbtLogEvent(_In_ ULONG DeviceFlags, _In_ ULONG VolumeNumber, _In_ WCHAR DriveLetter, _In_opt_ PCSTR Text,
                     _In_ ULONG Line, _In_ ULONG Status);

// Driver entry, once the settings are read: zeroes the context, prepares the record
// lookaside list and the queue, and allocates the log image. Only when the image could be
// had does the log follow the DebugLog setting; without it the log stays off.
VOID CbtInitializeEventLog(VOID);

// Unload: stops accepting records, frees every queued record, the lookaside list and the
// image.
VOID CbtReleaseEventLog(VOID);

// Starts the writer thread for the log on the C: volume, whose next-lower device is
// Device. Called when the C: link appears while the log is enabled; the result is
// ignored.
NTSTATUS CbtStartLogWriter(_Inout_ PCBT_EVENT_LOG Log, _In_ PDEVICE_OBJECT Device);

// A record that concerns no volume: flags 0, volume number 0, drive letter '?'.
#define CBT_LOG_DRIVER(Text, Status) \
  CbtLogEvent(0, 0, static_cast<WCHAR>(CBT_LOG_NO_DRIVE_LETTER), (Text), __LINE__, static_cast<ULONG>(Status))
