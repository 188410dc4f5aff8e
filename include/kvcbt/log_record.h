/* One record of the driver's debug log.
 *
 * Every notable step and every failure of the driver becomes one 94-byte record: when it
 * happened, on which thread, for which volume (its state word, number and drive letter),
 * where in the driver (the routine's name and the source line) and with which status.
 * Records are queued in memory and written one after another, without padding, into the
 * debug log file. Little-endian, byte-packed. */
#ifndef KVCBT_LOG_RECORD_H
#define KVCBT_LOG_RECORD_H

#include "kvcbt/fixed_width.h"

/* Longest text a record keeps; longer texts are cut. The field holds it and a NUL. */
#define CBT_LOG_TEXT_CHARS 62
#define CBT_LOG_TEXT_BYTES 64

/* Drive letter of a record that concerns no volume, or of a volume without a letter. */
#define CBT_LOG_NO_DRIVE_LETTER 0x003Fu

#pragma pack(push, 1)
typedef struct _CBT_LOG_RECORD_BODY {
  CBT_U64 SystemTime;  /* UTC, 100 ns units since 1601-01-01, when the record was queued */
  CBT_U32 ThreadId;    /* low 32 bits of the recording thread's id */
  CBT_U32 DeviceFlags; /* the volume's state word (device_flags.h), 0 when no volume */
  CBT_U32 VolumeNumber;
  CBT_U16 DriveLetter; /* UTF-16 'A'..'Z', or CBT_LOG_NO_DRIVE_LETTER */
  CBT_U32 Line;        /* source line of the recording call */
  CBT_U32 Status;      /* the status or value reported, 0 when none */
  char Text[CBT_LOG_TEXT_BYTES]; /* usually the recording routine's name; NUL-terminated, rest zero */
} CBT_LOG_RECORD_BODY;
#pragma pack(pop)

CBT_LAYOUT_CHECK(sizeof(CBT_LOG_RECORD_BODY) == 94, "a log record body is 94 bytes");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, SystemTime) == 0, "SystemTime at 0");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, ThreadId) == 8, "ThreadId at 8");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, DeviceFlags) == 12, "DeviceFlags at 12");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, VolumeNumber) == 16, "VolumeNumber at 16");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, DriveLetter) == 20, "DriveLetter at 20");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, Line) == 22, "Line at 22");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, Status) == 26, "Status at 26");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_LOG_RECORD_BODY, Text) == 30, "Text at 30");

#endif /* KVCBT_LOG_RECORD_H */
