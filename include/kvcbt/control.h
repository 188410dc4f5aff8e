/*
 * kvcbt control interface: the device-control codes a backup application sends to a volume
 * (the request travels down the volume's stack to the kvcbt filter) and the records the
 * driver answers with.
 *
 * Plain C, fixed-width and packed, little-endian: the driver, the tools and an application
 * compile against these same definitions. Every record carries static size and offset
 * checks, so a change of layout does not build.
 *
 *   Code                                            Method      Input  Output
 *   IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION     OUT_DIRECT  0      >= 56 (MDL)
 *   IOCTL_KVCBT_GET_VOLUME_BITMAP                     OUT_DIRECT  0      >= bitmap bytes (MDL)
 *   IOCTL_KVCBT_CHECK_VOLUME_BITMAP                   BUFFERED    0      0
 *   IOCTL_KVCBT_SET_RESET_TIME                        BUFFERED    0      0
 *   IOCTL_KVCBT_RESERVED_34, IOCTL_KVCBT_RESERVED_35  BUFFERED    any    any (no effect)
 *   IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX  OUT_DIRECT  0      >= 112, 120 for all
 *   IOCTL_KVCBT_DISABLE_TRACKING                      BUFFERED    0      0
 *   IOCTL_KVCBT_ENABLE_TRACKING                       BUFFERED    any    any
 *   IOCTL_KVCBT_QUERY_DRIVER_VERSION                  BUFFERED    any    >= 12
 *   IOCTL_KVCBT_VERIFY_SNAPSHOT                       BUFFERED    any    any
 *   IOCTL_KVCBT_LOG_MARKER                            BUFFERED    any    any
 *   IOCTL_KVCBT_CHECK_EXCLUDED                        BUFFERED    any    any
 *   IOCTL_KVCBT_QUERY_TRACKING_ENABLED                BUFFERED    any    exactly 8
 *
 * IOCTL_KVCBT_CHECK_EXCLUDED succeeds on a volume the driver does not track and fails with
 * STATUS_NOT_IMPLEMENTED on a tracked one. Any other code of FILE_DEVICE_KVCBT is not the
 * driver's: it travels on down the volume's stack.
 */
#ifndef KVCBT_CONTROL_H
#define KVCBT_CONTROL_H

#include "kvcbt/fixed_width.h"

/* ----------------------------------------------------------------------------------------
 * Control codes. The layout is Windows': device type in bits 31-16, required access in
 * 15-14, function in 13-2, transfer method in 1-0.
 */
#define FILE_DEVICE_KVCBT 0x8CB7u

#define KVCBT_CONTROL_CODE(function, method, access) \
  ((CBT_U32)((FILE_DEVICE_KVCBT << 16) | ((access) << 14) | ((function) << 2) | (method)))

#define KVCBT_METHOD_BUFFERED 0u
#define KVCBT_METHOD_OUT_DIRECT 2u
#define KVCBT_ANY_ACCESS 0u
#define KVCBT_READ_ACCESS 1u
#define KVCBT_READ_WRITE_ACCESS 3u

#define IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION KVCBT_CONTROL_CODE(0x2Fu, KVCBT_METHOD_OUT_DIRECT, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_GET_VOLUME_BITMAP KVCBT_CONTROL_CODE(0x30u, KVCBT_METHOD_OUT_DIRECT, KVCBT_READ_ACCESS)
#define IOCTL_KVCBT_CHECK_VOLUME_BITMAP KVCBT_CONTROL_CODE(0x31u, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_SET_RESET_TIME KVCBT_CONTROL_CODE(0x32u, KVCBT_METHOD_BUFFERED, KVCBT_READ_WRITE_ACCESS)
#define IOCTL_KVCBT_RESERVED_34 KVCBT_CONTROL_CODE(0x34u, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_RESERVED_35 KVCBT_CONTROL_CODE(0x35u, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX \
  KVCBT_CONTROL_CODE(0x37u, KVCBT_METHOD_OUT_DIRECT, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_DISABLE_TRACKING KVCBT_CONTROL_CODE(0x3Cu, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_ENABLE_TRACKING KVCBT_CONTROL_CODE(0x3Du, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_QUERY_DRIVER_VERSION KVCBT_CONTROL_CODE(0x3Eu, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_VERIFY_SNAPSHOT KVCBT_CONTROL_CODE(0x3Fu, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_LOG_MARKER KVCBT_CONTROL_CODE(0x40u, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_CHECK_EXCLUDED KVCBT_CONTROL_CODE(0x42u, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)
#define IOCTL_KVCBT_QUERY_TRACKING_ENABLED KVCBT_CONTROL_CODE(0x43u, KVCBT_METHOD_BUFFERED, KVCBT_ANY_ACCESS)

CBT_LAYOUT_CHECK(IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION == 0x8CB700BEu, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_GET_VOLUME_BITMAP == 0x8CB740C2u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_CHECK_VOLUME_BITMAP == 0x8CB700C4u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_SET_RESET_TIME == 0x8CB7C0C8u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_RESERVED_34 == 0x8CB700D0u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_RESERVED_35 == 0x8CB700D4u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX == 0x8CB700DEu, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_DISABLE_TRACKING == 0x8CB700F0u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_ENABLE_TRACKING == 0x8CB700F4u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_QUERY_DRIVER_VERSION == 0x8CB700F8u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_VERIFY_SNAPSHOT == 0x8CB700FCu, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_LOG_MARKER == 0x8CB70100u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_CHECK_EXCLUDED == 0x8CB70108u, "code");
CBT_LAYOUT_CHECK(IOCTL_KVCBT_QUERY_TRACKING_ENABLED == 0x8CB7010Cu, "code");

#pragma pack(push, 1)

/* ----------------------------------------------------------------------------------------
 * IOCTL_KVCBT_QUERY_DRIVER_VERSION: the driver's own version numbers (10.0.1000), the same as
 * its version resource. Needs an output buffer of at least 12 bytes.
 */
typedef struct _CBT_DRIVER_VERSION {
  CBT_U32 Major;
  CBT_U32 Minor;
  CBT_U32 Build;
} CBT_DRIVER_VERSION;

CBT_LAYOUT_CHECK(sizeof(CBT_DRIVER_VERSION) == 12, "CBT_DRIVER_VERSION is 12 bytes");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_DRIVER_VERSION, Minor) == 4, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_DRIVER_VERSION, Build) == 8, "layout");

/* ----------------------------------------------------------------------------------------
 * IOCTL_KVCBT_QUERY_TRACKING_ENABLED: one u64, 1 while tracking is switched on for the
 * volume, else 0. The output buffer must be exactly this size.
 */
typedef CBT_U64 CBT_TRACKING_ENABLED_REPLY;

CBT_LAYOUT_CHECK(sizeof(CBT_TRACKING_ENABLED_REPLY) == 8, "the tracking-enabled reply is 8 bytes");

/* ----------------------------------------------------------------------------------------
 * IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION: the volume's tracking geometry, written at
 * the start of the caller's output buffer (the rest of the buffer is zeroed). Times are
 * system times: 100 ns units since 1601-01-01 UTC.
 */
typedef struct _CBT_VOLUME_TRACKING_INFORMATION {
  CBT_U32 BytesPerSector;
  CBT_U32 SectorsPerCluster;
  CBT_U32 BitCount;          /* blocks covered by the bitmap */
  CBT_U32 BytesPerBit;       /* bytes of volume per block */
  CBT_U32 FirstLcn;          /* low 32 bits of the tracking file's first cluster */
  CBT_U32 EndLcn;            /* low 32 bits of the first cluster after the tracking file */
  CBT_U64 TrackedWriteCount; /* writes that set at least one new bit */
  CBT_U64 TotalWriteCount;   /* tracked plus untracked writes */
  CBT_U8 ResetOccurred;      /* the tracking history was broken at ResetTime */
  CBT_U8 Reserved[7];        /* zero */
  CBT_I64 ResetTime;
} CBT_VOLUME_TRACKING_INFORMATION;

CBT_LAYOUT_CHECK(sizeof(CBT_VOLUME_TRACKING_INFORMATION) == 56, "CBT_VOLUME_TRACKING_INFORMATION is 56 bytes");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, SectorsPerCluster) == 4, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, BitCount) == 8, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, BytesPerBit) == 12, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, FirstLcn) == 16, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, EndLcn) == 20, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, TrackedWriteCount) == 24, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, TotalWriteCount) == 32, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, ResetOccurred) == 40, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION, ResetTime) == 48, "layout");

/* ----------------------------------------------------------------------------------------
 * IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX: geometry and statistics. An output
 * buffer of 112 to 119 bytes receives the short form (everything before
 * TrackingFileBytesWritten); 120 bytes or more receive the whole record. The counters are
 * read one by one without a lock: the record may mix values from before and after a write
 * that runs at the same time.
 */
typedef struct _CBT_VOLUME_TRACKING_INFORMATION_EX {
  CBT_U32 BytesPerSector;
  CBT_U32 SectorsPerCluster;
  CBT_U32 BitCount;
  CBT_U32 BytesPerBit;
  CBT_U32 FirstLcn;
  CBT_U32 EndLcn;
  CBT_U64 TrackedWriteCount;
  CBT_U64 PagingWriteCount;         /* tracked writes that were paging I/O */
  CBT_U64 WriteCountDifference;     /* TrackedWriteCount - UntrackedWriteCount, wrapping */
  CBT_U64 UntrackedWriteCount;      /* writes without a file-system context, failed file writes */
  CBT_U64 Reserved;                 /* zero */
  CBT_U64 TrackedWriteBits;         /* sum of the bit counts of tracked writes */
  CBT_U64 TrackedWriteBytes;        /* sum of their lengths */
  CBT_I64 LoadTime;                  /* the tracking file's last load */
  CBT_U64 TrackingTimeMicroseconds; /* time spent marking bits */
  CBT_U32 RestartCountA;            /* last file-system restart or checkpoint count seen */
  CBT_U32 RestartCountB;            /* the same value again */
  CBT_U64 TrimClearedBytes;         /* bytes whose bits trims cleared */
  CBT_U64 TrackingFileBytesWritten; /* only in the 120-byte form */
} CBT_VOLUME_TRACKING_INFORMATION_EX;

#define CBT_VOLUME_TRACKING_INFORMATION_EX_SHORT_SIZE 112u

CBT_LAYOUT_CHECK(sizeof(CBT_VOLUME_TRACKING_INFORMATION_EX) == 120, "CBT_VOLUME_TRACKING_INFORMATION_EX is 120 bytes");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, EndLcn) == 20, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, TrackedWriteCount) == 24, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, PagingWriteCount) == 32, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, WriteCountDifference) == 40, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, UntrackedWriteCount) == 48, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, Reserved) == 56, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, TrackedWriteBits) == 64, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, TrackedWriteBytes) == 72, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, LoadTime) == 80, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, TrackingTimeMicroseconds) == 88, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, RestartCountA) == 96, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, RestartCountB) == 100, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, TrimClearedBytes) == 104, "layout");
CBT_LAYOUT_CHECK(CBT_OFFSET_OF(CBT_VOLUME_TRACKING_INFORMATION_EX, TrackingFileBytesWritten) ==
                        CBT_VOLUME_TRACKING_INFORMATION_EX_SHORT_SIZE,
                    "the short form ends where TrackingFileBytesWritten begins");

/* ----------------------------------------------------------------------------------------
 * IOCTL_KVCBT_GET_VOLUME_BITMAP answers with the raw bitmap, no header: (BitCount + 7) / 8
 * bytes, bit i of the volume in bit (i % 8), least significant first, of byte i / 8. Block i
 * covers volume bytes [i * BytesPerBit, (i + 1) * BytesPerBit). Learn BitCount and
 * BytesPerBit from the tracking-information queries first.
 */
#define CBT_VOLUME_BITMAP_BYTES(bitCount) ((CBT_U32)(((CBT_U32)(bitCount) + 7u) / 8u))

#pragma pack(pop)

#endif /* KVCBT_CONTROL_H */
