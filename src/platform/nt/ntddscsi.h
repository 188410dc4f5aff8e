// SCSI pass-through requests: the control codes and the structures an application puts at
// the start of the request's buffer, in the native and the 32-bit (WoW64) forms, with the
// layouts of a 64-bit Windows target.
#pragma once
#include "km/basetypes.h"
#include "km/io.h"

#define IOCTL_SCSI_BASE FILE_DEVICE_CONTROLLER

#define IOCTL_SCSI_PASS_THROUGH CTL_CODE(IOCTL_SCSI_BASE, 0x0401, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#define IOCTL_SCSI_MINIPORT CTL_CODE(IOCTL_SCSI_BASE, 0x0402, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#define IOCTL_SCSI_GET_INQUIRY_DATA CTL_CODE(IOCTL_SCSI_BASE, 0x0403, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_SCSI_GET_CAPABILITIES CTL_CODE(IOCTL_SCSI_BASE, 0x0404, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_SCSI_PASS_THROUGH_DIRECT \
  CTL_CODE(IOCTL_SCSI_BASE, 0x0405, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#define IOCTL_SCSI_GET_ADDRESS CTL_CODE(IOCTL_SCSI_BASE, 0x0406, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_SCSI_RESCAN_BUS CTL_CODE(IOCTL_SCSI_BASE, 0x0407, METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_SCSI_PASS_THROUGH_EX \
  CTL_CODE(IOCTL_SCSI_BASE, 0x0411, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#define IOCTL_SCSI_PASS_THROUGH_DIRECT_EX \
  CTL_CODE(IOCTL_SCSI_BASE, 0x0412, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)

C_ASSERT(IOCTL_SCSI_PASS_THROUGH == 0x0004D004);
C_ASSERT(IOCTL_SCSI_PASS_THROUGH_DIRECT == 0x0004D014);
C_ASSERT(IOCTL_SCSI_PASS_THROUGH_EX == 0x0004D044);
C_ASSERT(IOCTL_SCSI_PASS_THROUGH_DIRECT_EX == 0x0004D048);

// DataIn of SCSI_PASS_THROUGH and DataDirection of the EX forms.
#define SCSI_IOCTL_DATA_OUT 0
#define SCSI_IOCTL_DATA_IN 1
#define SCSI_IOCTL_DATA_UNSPECIFIED 2
#define SCSI_IOCTL_DATA_BIDIRECTIONAL 3

typedef struct _SCSI_PASS_THROUGH {
  USHORT Length;
  UCHAR ScsiStatus;
  UCHAR PathId;
  UCHAR TargetId;
  UCHAR Lun;
  UCHAR CdbLength;
  UCHAR SenseInfoLength;
  UCHAR DataIn;
  ULONG DataTransferLength;
  ULONG TimeOutValue;
  ULONG_PTR DataBufferOffset;
  ULONG SenseInfoOffset;
  UCHAR Cdb[16];
} SCSI_PASS_THROUGH, *PSCSI_PASS_THROUGH;

typedef struct _SCSI_PASS_THROUGH_DIRECT {
  USHORT Length;
  UCHAR ScsiStatus;
  UCHAR PathId;
  UCHAR TargetId;
  UCHAR Lun;
  UCHAR CdbLength;
  UCHAR SenseInfoLength;
  UCHAR DataIn;
  ULONG DataTransferLength;
  ULONG TimeOutValue;
  PVOID DataBuffer;
  ULONG SenseInfoOffset;
  UCHAR Cdb[16];
} SCSI_PASS_THROUGH_DIRECT, *PSCSI_PASS_THROUGH_DIRECT;

// The forms a 32-bit process sends (IoIs32bitProcess). The WDK declares DataBuffer as a
// 32-bit pointer (VOID * POINTER_32); this target has no such pointer type, so the field is
// the 32-bit value it holds.
typedef struct _SCSI_PASS_THROUGH32 {
  USHORT Length;
  UCHAR ScsiStatus;
  UCHAR PathId;
  UCHAR TargetId;
  UCHAR Lun;
  UCHAR CdbLength;
  UCHAR SenseInfoLength;
  UCHAR DataIn;
  ULONG DataTransferLength;
  ULONG TimeOutValue;
  ULONG32 DataBufferOffset;
  ULONG SenseInfoOffset;
  UCHAR Cdb[16];
} SCSI_PASS_THROUGH32, *PSCSI_PASS_THROUGH32;

typedef struct _SCSI_PASS_THROUGH_DIRECT32 {
  USHORT Length;
  UCHAR ScsiStatus;
  UCHAR PathId;
  UCHAR TargetId;
  UCHAR Lun;
  UCHAR CdbLength;
  UCHAR SenseInfoLength;
  UCHAR DataIn;
  ULONG DataTransferLength;
  ULONG TimeOutValue;
  ULONG32 DataBuffer;
  ULONG SenseInfoOffset;
  UCHAR Cdb[16];
} SCSI_PASS_THROUGH_DIRECT32, *PSCSI_PASS_THROUGH_DIRECT32;

typedef struct _SCSI_PASS_THROUGH_EX {
  ULONG Version;
  ULONG Length;  // size of the structure
  ULONG CdbLength;
  ULONG StorAddressLength;
  UCHAR ScsiStatus;
  UCHAR SenseInfoLength;
  UCHAR DataDirection;
  UCHAR Reserved;
  ULONG TimeOutValue;
  ULONG StorAddressOffset;
  ULONG SenseInfoOffset;
  ULONG DataOutTransferLength;
  ULONG DataInTransferLength;
  ULONG_PTR DataOutBufferOffset;
  ULONG_PTR DataInBufferOffset;
  UCHAR Cdb[ANYSIZE_ARRAY];
} SCSI_PASS_THROUGH_EX, *PSCSI_PASS_THROUGH_EX;

typedef struct _SCSI_PASS_THROUGH_DIRECT_EX {
  ULONG Version;
  ULONG Length;
  ULONG CdbLength;
  ULONG StorAddressLength;
  UCHAR ScsiStatus;
  UCHAR SenseInfoLength;
  UCHAR DataDirection;
  UCHAR Reserved;
  ULONG TimeOutValue;
  ULONG StorAddressOffset;
  ULONG SenseInfoOffset;
  ULONG DataOutTransferLength;
  ULONG DataInTransferLength;
  PVOID DataOutBuffer;
  PVOID DataInBuffer;
  UCHAR Cdb[ANYSIZE_ARRAY];
} SCSI_PASS_THROUGH_DIRECT_EX, *PSCSI_PASS_THROUGH_DIRECT_EX;

typedef struct _SCSI_PASS_THROUGH32_EX {
  ULONG Version;
  ULONG Length;
  ULONG CdbLength;
  ULONG StorAddressLength;
  UCHAR ScsiStatus;
  UCHAR SenseInfoLength;
  UCHAR DataDirection;
  UCHAR Reserved;
  ULONG TimeOutValue;
  ULONG StorAddressOffset;
  ULONG SenseInfoOffset;
  ULONG DataOutTransferLength;
  ULONG DataInTransferLength;
  ULONG32 DataOutBufferOffset;
  ULONG32 DataInBufferOffset;
  UCHAR Cdb[ANYSIZE_ARRAY];
} SCSI_PASS_THROUGH32_EX, *PSCSI_PASS_THROUGH32_EX;

typedef struct _SCSI_PASS_THROUGH_DIRECT32_EX {
  ULONG Version;
  ULONG Length;
  ULONG CdbLength;
  ULONG StorAddressLength;
  UCHAR ScsiStatus;
  UCHAR SenseInfoLength;
  UCHAR DataDirection;
  UCHAR Reserved;
  ULONG TimeOutValue;
  ULONG StorAddressOffset;
  ULONG SenseInfoOffset;
  ULONG DataOutTransferLength;
  ULONG DataInTransferLength;
  ULONG32 DataOutBuffer;  // VOID * POINTER_32 in the WDK
  ULONG32 DataInBuffer;   // VOID * POINTER_32 in the WDK
  UCHAR Cdb[ANYSIZE_ARRAY];
} SCSI_PASS_THROUGH_DIRECT32_EX, *PSCSI_PASS_THROUGH_DIRECT32_EX;

C_ASSERT(sizeof(SCSI_PASS_THROUGH) == 56);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH, CdbLength) == 6);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH, DataBufferOffset) == 24);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH, Cdb) == 36);
C_ASSERT(sizeof(SCSI_PASS_THROUGH_DIRECT) == 56);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT, DataBuffer) == 24);
C_ASSERT(sizeof(SCSI_PASS_THROUGH32) == 44);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH32, CdbLength) == 6);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH32, Cdb) == 28);
C_ASSERT(sizeof(SCSI_PASS_THROUGH_DIRECT32) == 44);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT32, DataBuffer) == 20);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_EX, Length) == 4);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_EX, CdbLength) == 8);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_EX, DataOutBufferOffset) == 40);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_EX, Cdb) == 56);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT_EX, DataInBuffer) == 48);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT_EX, Cdb) == 56);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH32_EX, Length) == 4);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH32_EX, CdbLength) == 8);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH32_EX, Cdb) == 48);
C_ASSERT(FIELD_OFFSET(SCSI_PASS_THROUGH_DIRECT32_EX, Cdb) == 48);
