// I/O manager: driver and device objects, IRPs and stack locations, completion, work items,
// power and Plug and Play request parameters, Plug and Play and shutdown registrations.
#pragma once
#include "ex.h"
#include "file.h"
#include "mm.h"
#include "ob.h"
#include "se.h"

struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _FILE_OBJECT;
struct _IRP;
struct _IO_STACK_LOCATION;
struct _IO_WORKITEM;
struct _DEVOBJ_EXTENSION;
struct _FAST_IO_DISPATCH;
struct _SECTION_OBJECT_POINTERS;
struct _IO_COMPLETION_CONTEXT;
struct _IOP_FILE_OBJECT_EXTENSION;
struct _IO_TIMER;
struct _INTERFACE;
struct _DEVICE_CAPABILITIES;
struct _CM_RESOURCE_LIST;

typedef struct _DEVICE_OBJECT* PDEVICE_OBJECT;
typedef struct _DRIVER_OBJECT* PDRIVER_OBJECT;
typedef struct _FILE_OBJECT* PFILE_OBJECT;
typedef struct _IRP* PIRP;
typedef struct _IO_STACK_LOCATION* PIO_STACK_LOCATION;
typedef struct _IO_WORKITEM IO_WORKITEM, *PIO_WORKITEM;

#define POINTER_ALIGNMENT DECLSPEC_ALIGN(8)

typedef ULONG LCID;
#define MEMORY_ALLOCATION_ALIGNMENT 16

// ---------------------------------------------------------------------------------------
// Object type codes (the Type field of I/O objects).
#define IO_TYPE_ADAPTER 1
#define IO_TYPE_CONTROLLER 2
#define IO_TYPE_DEVICE 3
#define IO_TYPE_DRIVER 4
#define IO_TYPE_FILE 5
#define IO_TYPE_IRP 6
#define IO_TYPE_MASTER_ADAPTER 7
#define IO_TYPE_OPEN_PACKET 8
#define IO_TYPE_TIMER 9
#define IO_TYPE_VPB 10
#define IO_TYPE_ERROR_LOG 11
#define IO_TYPE_ERROR_MESSAGE 12
#define IO_TYPE_DEVICE_OBJECT_EXTENSION 13

// ---------------------------------------------------------------------------------------
// Status blocks and callbacks.
typedef struct _IO_STATUS_BLOCK {
  union {
    NTSTATUS Status;
    PVOID Pointer;
  };
  ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

typedef VOID(NTAPI* PIO_APC_ROUTINE)(_In_ PVOID ApcContext, _In_ PIO_STATUS_BLOCK IoStatusBlock, _In_ ULONG Reserved);

typedef NTSTATUS DRIVER_INITIALIZE(_In_ struct _DRIVER_OBJECT* DriverObject, _In_ PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;
typedef NTSTATUS DRIVER_ADD_DEVICE(_In_ struct _DRIVER_OBJECT* DriverObject,
                                   _In_ struct _DEVICE_OBJECT* PhysicalDeviceObject);
typedef DRIVER_ADD_DEVICE* PDRIVER_ADD_DEVICE;
typedef VOID DRIVER_UNLOAD(_In_ struct _DRIVER_OBJECT* DriverObject);
typedef DRIVER_UNLOAD* PDRIVER_UNLOAD;
typedef NTSTATUS DRIVER_DISPATCH(_In_ struct _DEVICE_OBJECT* DeviceObject, _Inout_ struct _IRP* Irp);
typedef DRIVER_DISPATCH* PDRIVER_DISPATCH;
typedef VOID DRIVER_STARTIO(_Inout_ struct _DEVICE_OBJECT* DeviceObject, _Inout_ struct _IRP* Irp);
typedef DRIVER_STARTIO* PDRIVER_STARTIO;
typedef VOID DRIVER_CANCEL(_Inout_ struct _DEVICE_OBJECT* DeviceObject, _Inout_ struct _IRP* Irp);
typedef DRIVER_CANCEL* PDRIVER_CANCEL;
typedef VOID DRIVER_REINITIALIZE(_In_ struct _DRIVER_OBJECT* DriverObject, _In_opt_ PVOID Context, _In_ ULONG Count);
typedef DRIVER_REINITIALIZE* PDRIVER_REINITIALIZE;
typedef NTSTATUS IO_COMPLETION_ROUTINE(_In_ PDEVICE_OBJECT DeviceObject, _In_ PIRP Irp, _In_opt_ PVOID Context);
typedef IO_COMPLETION_ROUTINE* PIO_COMPLETION_ROUTINE;
typedef VOID IO_WORKITEM_ROUTINE(_In_ PDEVICE_OBJECT DeviceObject, _In_opt_ PVOID Context);
typedef IO_WORKITEM_ROUTINE* PIO_WORKITEM_ROUTINE;
typedef VOID IO_WORKITEM_ROUTINE_EX(_In_ PVOID IoObject, _In_opt_ PVOID Context, _In_ PIO_WORKITEM IoWorkItem);
typedef IO_WORKITEM_ROUTINE_EX* PIO_WORKITEM_ROUTINE_EX;
typedef NTSTATUS DRIVER_NOTIFICATION_CALLBACK_ROUTINE(_In_ PVOID NotificationStructure, _Inout_opt_ PVOID Context);
typedef DRIVER_NOTIFICATION_CALLBACK_ROUTINE* PDRIVER_NOTIFICATION_CALLBACK_ROUTINE;

// ---------------------------------------------------------------------------------------
// Major and minor function codes.
#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CREATE_NAMED_PIPE 0x01
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_QUERY_INFORMATION 0x05
#define IRP_MJ_SET_INFORMATION 0x06
#define IRP_MJ_QUERY_EA 0x07
#define IRP_MJ_SET_EA 0x08
#define IRP_MJ_FLUSH_BUFFERS 0x09
#define IRP_MJ_QUERY_VOLUME_INFORMATION 0x0a
#define IRP_MJ_SET_VOLUME_INFORMATION 0x0b
#define IRP_MJ_DIRECTORY_CONTROL 0x0c
#define IRP_MJ_FILE_SYSTEM_CONTROL 0x0d
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_SCSI IRP_MJ_INTERNAL_DEVICE_CONTROL
#define IRP_MJ_SHUTDOWN 0x10
#define IRP_MJ_LOCK_CONTROL 0x11
#define IRP_MJ_CLEANUP 0x12
#define IRP_MJ_CREATE_MAILSLOT 0x13
#define IRP_MJ_QUERY_SECURITY 0x14
#define IRP_MJ_SET_SECURITY 0x15
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_DEVICE_CHANGE 0x18
#define IRP_MJ_QUERY_QUOTA 0x19
#define IRP_MJ_SET_QUOTA 0x1a
#define IRP_MJ_PNP 0x1b
#define IRP_MJ_PNP_POWER IRP_MJ_PNP
#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

// Reads and writes.
#define IRP_MN_NORMAL 0x00
#define IRP_MN_DPC 0x01
#define IRP_MN_MDL 0x02
#define IRP_MN_COMPLETE 0x04
#define IRP_MN_COMPRESSED 0x08
#define IRP_MN_MDL_DPC (IRP_MN_MDL | IRP_MN_DPC)
#define IRP_MN_COMPLETE_MDL (IRP_MN_COMPLETE | IRP_MN_MDL)
#define IRP_MN_COMPLETE_MDL_DPC (IRP_MN_COMPLETE_MDL | IRP_MN_DPC)

// Directory control.
#define IRP_MN_QUERY_DIRECTORY 0x01
#define IRP_MN_NOTIFY_CHANGE_DIRECTORY 0x02

// File-system control.
#define IRP_MN_USER_FS_REQUEST 0x00
#define IRP_MN_MOUNT_VOLUME 0x01
#define IRP_MN_VERIFY_VOLUME 0x02
#define IRP_MN_LOAD_FILE_SYSTEM 0x03
#define IRP_MN_TRACK_LINK 0x04
#define IRP_MN_KERNEL_CALL 0x04

// Lock control.
#define IRP_MN_LOCK 0x01
#define IRP_MN_UNLOCK_SINGLE 0x02
#define IRP_MN_UNLOCK_ALL 0x03
#define IRP_MN_UNLOCK_ALL_BY_KEY 0x04

// Flush.
#define IRP_MN_FLUSH_AND_PURGE 0x01
#define IRP_MN_FLUSH_DATA_ONLY 0x02
#define IRP_MN_FLUSH_NO_SYNC 0x03
#define IRP_MN_FLUSH_DATA_SYNC_ONLY 0x04

// Internal device control.
#define IRP_MN_SCSI_CLASS 0x01

// Plug and Play.
#define IRP_MN_START_DEVICE 0x00
#define IRP_MN_QUERY_REMOVE_DEVICE 0x01
#define IRP_MN_REMOVE_DEVICE 0x02
#define IRP_MN_CANCEL_REMOVE_DEVICE 0x03
#define IRP_MN_STOP_DEVICE 0x04
#define IRP_MN_QUERY_STOP_DEVICE 0x05
#define IRP_MN_CANCEL_STOP_DEVICE 0x06
#define IRP_MN_QUERY_DEVICE_RELATIONS 0x07
#define IRP_MN_QUERY_INTERFACE 0x08
#define IRP_MN_QUERY_CAPABILITIES 0x09
#define IRP_MN_QUERY_RESOURCES 0x0A
#define IRP_MN_QUERY_RESOURCE_REQUIREMENTS 0x0B
#define IRP_MN_QUERY_DEVICE_TEXT 0x0C
#define IRP_MN_FILTER_RESOURCE_REQUIREMENTS 0x0D
#define IRP_MN_READ_CONFIG 0x0F
#define IRP_MN_WRITE_CONFIG 0x10
#define IRP_MN_EJECT 0x11
#define IRP_MN_SET_LOCK 0x12
#define IRP_MN_QUERY_ID 0x13
#define IRP_MN_QUERY_PNP_DEVICE_STATE 0x14
#define IRP_MN_QUERY_BUS_INFORMATION 0x15
#define IRP_MN_DEVICE_USAGE_NOTIFICATION 0x16
#define IRP_MN_SURPRISE_REMOVAL 0x17
#define IRP_MN_DEVICE_ENUMERATED 0x19

// Power.
#define IRP_MN_WAIT_WAKE 0x00
#define IRP_MN_POWER_SEQUENCE 0x01
#define IRP_MN_SET_POWER 0x02
#define IRP_MN_QUERY_POWER 0x03

// ---------------------------------------------------------------------------------------
// IRP flags (Irp->Flags) and allocation flags (Irp->AllocationFlags).
#define IRP_NOCACHE 0x00000001
#define IRP_PAGING_IO 0x00000002
#define IRP_MOUNT_COMPLETION 0x00000002
#define IRP_SYNCHRONOUS_API 0x00000004
#define IRP_ASSOCIATED_IRP 0x00000008
#define IRP_BUFFERED_IO 0x00000010
#define IRP_DEALLOCATE_BUFFER 0x00000020
#define IRP_INPUT_OPERATION 0x00000040
#define IRP_SYNCHRONOUS_PAGING_IO 0x00000040
#define IRP_CREATE_OPERATION 0x00000080
#define IRP_READ_OPERATION 0x00000100
#define IRP_WRITE_OPERATION 0x00000200
#define IRP_CLOSE_OPERATION 0x00000400
#define IRP_DEFER_IO_COMPLETION 0x00000800
#define IRP_OB_QUERY_NAME 0x00001000
#define IRP_HOLD_DEVICE_QUEUE 0x00002000
#define IRP_UM_DRIVER_INITIATED_IO 0x00400000

#define IRP_QUOTA_CHARGED 0x01
#define IRP_ALLOCATED_MUST_SUCCEED 0x02
#define IRP_ALLOCATED_FIXED_SIZE 0x04
#define IRP_LOOKASIDE_ALLOCATION 0x08

// Stack location control bits (IrpSp->Control).
#define SL_PENDING_RETURNED 0x01
#define SL_ERROR_RETURNED 0x02
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

// Stack location flags (IrpSp->Flags), by request.
#define SL_FORCE_ACCESS_CHECK 0x01  // create
#define SL_OPEN_PAGING_FILE 0x02
#define SL_OPEN_TARGET_DIRECTORY 0x04
#define SL_STOP_ON_SYMLINK 0x08
#define SL_IGNORE_READONLY_ATTRIBUTE 0x40
#define SL_CASE_SENSITIVE 0x80
#define SL_KEY_SPECIFIED 0x01  // read and write
#define SL_OVERRIDE_VERIFY_VOLUME 0x02
#define SL_WRITE_THROUGH 0x04
#define SL_FT_SEQUENTIAL_WRITE 0x08
#define SL_FORCE_DIRECT_WRITE 0x10
#define SL_REALTIME_STREAM 0x20
#define SL_BYPASS_IO 0x40
#define SL_READ_ACCESS_GRANTED 0x01  // device control
#define SL_WRITE_ACCESS_GRANTED 0x04
#define SL_FAIL_IMMEDIATELY 0x01  // lock control
#define SL_EXCLUSIVE_LOCK 0x02
#define SL_RESTART_SCAN 0x01  // directory control
#define SL_RETURN_SINGLE_ENTRY 0x02
#define SL_INDEX_SPECIFIED 0x04
#define SL_WATCH_TREE 0x01
#define SL_ALLOW_RAW_MOUNT 0x01  // mount

// Priority boosts given to the thread that waits for a request.
#define IO_NO_INCREMENT 0
#define IO_CD_ROM_INCREMENT 1
#define IO_DISK_INCREMENT 1
#define IO_KEYBOARD_INCREMENT 6
#define IO_MAILSLOT_INCREMENT 2
#define IO_MOUSE_INCREMENT 6
#define IO_NAMED_PIPE_INCREMENT 2
#define IO_NETWORK_INCREMENT 2
#define IO_PARALLEL_INCREMENT 1
#define IO_SERIAL_INCREMENT 2
#define IO_SOUND_INCREMENT 8
#define IO_VIDEO_INCREMENT 1

// ---------------------------------------------------------------------------------------
// Device types, characteristics and object flags.
#define FILE_DEVICE_BEEP 0x00000001
#define FILE_DEVICE_CD_ROM 0x00000002
#define FILE_DEVICE_CD_ROM_FILE_SYSTEM 0x00000003
#define FILE_DEVICE_CONTROLLER 0x00000004
#define FILE_DEVICE_DATALINK 0x00000005
#define FILE_DEVICE_DFS 0x00000006
#define FILE_DEVICE_DISK 0x00000007
#define FILE_DEVICE_DISK_FILE_SYSTEM 0x00000008
#define FILE_DEVICE_FILE_SYSTEM 0x00000009
#define FILE_DEVICE_INPORT_PORT 0x0000000a
#define FILE_DEVICE_KEYBOARD 0x0000000b
#define FILE_DEVICE_MAILSLOT 0x0000000c
#define FILE_DEVICE_MIDI_IN 0x0000000d
#define FILE_DEVICE_MIDI_OUT 0x0000000e
#define FILE_DEVICE_MOUSE 0x0000000f
#define FILE_DEVICE_MULTI_UNC_PROVIDER 0x00000010
#define FILE_DEVICE_NAMED_PIPE 0x00000011
#define FILE_DEVICE_NETWORK 0x00000012
#define FILE_DEVICE_NETWORK_BROWSER 0x00000013
#define FILE_DEVICE_NETWORK_FILE_SYSTEM 0x00000014
#define FILE_DEVICE_NULL 0x00000015
#define FILE_DEVICE_PARALLEL_PORT 0x00000016
#define FILE_DEVICE_PHYSICAL_NETCARD 0x00000017
#define FILE_DEVICE_PRINTER 0x00000018
#define FILE_DEVICE_SCANNER 0x00000019
#define FILE_DEVICE_SERIAL_MOUSE_PORT 0x0000001a
#define FILE_DEVICE_SERIAL_PORT 0x0000001b
#define FILE_DEVICE_SCREEN 0x0000001c
#define FILE_DEVICE_SOUND 0x0000001d
#define FILE_DEVICE_STREAMS 0x0000001e
#define FILE_DEVICE_TAPE 0x0000001f
#define FILE_DEVICE_TAPE_FILE_SYSTEM 0x00000020
#define FILE_DEVICE_TRANSPORT 0x00000021
#define FILE_DEVICE_UNKNOWN 0x00000022
#define FILE_DEVICE_VIDEO 0x00000023
#define FILE_DEVICE_VIRTUAL_DISK 0x00000024
#define FILE_DEVICE_WAVE_IN 0x00000025
#define FILE_DEVICE_WAVE_OUT 0x00000026
#define FILE_DEVICE_8042_PORT 0x00000027
#define FILE_DEVICE_NETWORK_REDIRECTOR 0x00000028
#define FILE_DEVICE_BATTERY 0x00000029
#define FILE_DEVICE_BUS_EXTENDER 0x0000002a
#define FILE_DEVICE_MODEM 0x0000002b
#define FILE_DEVICE_VDM 0x0000002c
#define FILE_DEVICE_MASS_STORAGE 0x0000002d
#define FILE_DEVICE_SMB 0x0000002e
#define FILE_DEVICE_KS 0x0000002f
#define FILE_DEVICE_CHANGER 0x00000030
#define FILE_DEVICE_SMARTCARD 0x00000031
#define FILE_DEVICE_ACPI 0x00000032
#define FILE_DEVICE_DVD 0x00000033
#define FILE_DEVICE_FULLSCREEN_VIDEO 0x00000034
#define FILE_DEVICE_DFS_FILE_SYSTEM 0x00000035
#define FILE_DEVICE_DFS_VOLUME 0x00000036
#define FILE_DEVICE_SERENUM 0x00000037
#define FILE_DEVICE_TERMSRV 0x00000038
#define FILE_DEVICE_KSEC 0x00000039
#define FILE_DEVICE_FIPS 0x0000003A
#define FILE_DEVICE_INFINIBAND 0x0000003B
#define FILE_DEVICE_VMBUS 0x0000003E
#define FILE_DEVICE_CRYPT_PROVIDER 0x0000003F
#define FILE_DEVICE_WPD 0x00000040
#define FILE_DEVICE_BLUETOOTH 0x00000041
#define FILE_DEVICE_MT_COMPOSITE 0x00000042
#define FILE_DEVICE_MT_TRANSPORT 0x00000043
#define FILE_DEVICE_BIOMETRIC 0x00000044
#define FILE_DEVICE_PMI 0x00000045
#define FILE_DEVICE_EHSTOR 0x00000046
#define FILE_DEVICE_DEVAPI 0x00000047
#define FILE_DEVICE_GPIO 0x00000048
#define FILE_DEVICE_USBEX 0x00000049
#define FILE_DEVICE_CONSOLE 0x00000050
#define FILE_DEVICE_NFP 0x00000051
#define FILE_DEVICE_SYSENV 0x00000052
#define FILE_DEVICE_VIRTUAL_BLOCK 0x00000053
#define FILE_DEVICE_POINT_OF_SERVICE 0x00000054
#define FILE_DEVICE_STORAGE_REPLICATION 0x00000055
#define FILE_DEVICE_TRUST_ENV 0x00000056
#define FILE_DEVICE_UCM 0x00000057
#define FILE_DEVICE_UCMTCPCI 0x00000058
#define FILE_DEVICE_PERSISTENT_MEMORY 0x00000059
#define FILE_DEVICE_NVDIMM 0x0000005a
#define FILE_DEVICE_HOLOGRAPHIC 0x0000005b
#define FILE_DEVICE_SDFXHCI 0x0000005c
#define FILE_DEVICE_UCMUCSI 0x0000005d

#define FILE_REMOVABLE_MEDIA 0x00000001
#define FILE_READ_ONLY_DEVICE 0x00000002
#define FILE_FLOPPY_DISKETTE 0x00000004
#define FILE_WRITE_ONCE_MEDIA 0x00000008
#define FILE_REMOTE_DEVICE 0x00000010
#define FILE_DEVICE_IS_MOUNTED 0x00000020
#define FILE_VIRTUAL_VOLUME 0x00000040
#define FILE_AUTOGENERATED_DEVICE_NAME 0x00000080
#define FILE_DEVICE_SECURE_OPEN 0x00000100
#define FILE_CHARACTERISTIC_PNP_DEVICE 0x00000800
#define FILE_CHARACTERISTIC_TS_DEVICE 0x00001000
#define FILE_CHARACTERISTIC_WEBDAV_DEVICE 0x00002000
#define FILE_CHARACTERISTIC_CSV 0x00010000
#define FILE_DEVICE_ALLOW_APPCONTAINER_TRAVERSAL 0x00020000
#define FILE_PORTABLE_DEVICE 0x00040000

#define DO_VERIFY_VOLUME 0x00000002
#define DO_BUFFERED_IO 0x00000004
#define DO_EXCLUSIVE 0x00000008
#define DO_DIRECT_IO 0x00000010
#define DO_MAP_IO_BUFFER 0x00000020
#define DO_DEVICE_HAS_NAME 0x00000040
#define DO_DEVICE_INITIALIZING 0x00000080
#define DO_SYSTEM_BOOT_PARTITION 0x00000100
#define DO_LONG_TERM_REQUESTS 0x00000200
#define DO_NEVER_LAST_DEVICE 0x00000400
#define DO_SHUTDOWN_REGISTERED 0x00000800
#define DO_BUS_ENUMERATED_DEVICE 0x00001000
#define DO_POWER_PAGABLE 0x00002000
#define DO_POWER_INRUSH 0x00004000
#define DO_LOW_PRIORITY_FILESYSTEM 0x00010000
#define DO_SUPPORTS_PERSISTENT_ACLS 0x00020000
#define DO_SUPPORTS_TRANSACTIONS 0x00040000
#define DO_FORCE_NEITHER_IO 0x00080000
#define DO_VOLUME_DEVICE_OBJECT 0x00100000
#define DO_SYSTEM_SYSTEM_PARTITION 0x00200000
#define DO_SYSTEM_CRITICAL_PARTITION 0x00400000
#define DO_DISALLOW_EXECUTE 0x00800000
#define DO_DEVICE_TO_BE_RESET 0x04000000
#define DO_DAX_VOLUME 0x10000000

// ---------------------------------------------------------------------------------------
// Control codes.
#define CTL_CODE(DeviceType, Function, Method, Access) \
  (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define DEVICE_TYPE_FROM_CTL_CODE(ctrlCode) (((ULONG)(ctrlCode & 0xffff0000)) >> 16)
#define METHOD_FROM_CTL_CODE(ctrlCode) ((ULONG)(ctrlCode & 3))

#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define METHOD_DIRECT_TO_HARDWARE METHOD_IN_DIRECT
#define METHOD_DIRECT_FROM_HARDWARE METHOD_OUT_DIRECT

#define FILE_ANY_ACCESS 0
#define FILE_SPECIAL_ACCESS (FILE_ANY_ACCESS)
#define FILE_READ_ACCESS (0x0001)
#define FILE_WRITE_ACCESS (0x0002)

// Access rights to files and devices.
#define FILE_READ_DATA (0x0001)
#define FILE_LIST_DIRECTORY (0x0001)
#define FILE_WRITE_DATA (0x0002)
#define FILE_ADD_FILE (0x0002)
#define FILE_APPEND_DATA (0x0004)
#define FILE_ADD_SUBDIRECTORY (0x0004)
#define FILE_CREATE_PIPE_INSTANCE (0x0004)
#define FILE_READ_EA (0x0008)
#define FILE_WRITE_EA (0x0010)
#define FILE_EXECUTE (0x0020)
#define FILE_TRAVERSE (0x0020)
#define FILE_DELETE_CHILD (0x0040)
#define FILE_READ_ATTRIBUTES (0x0080)
#define FILE_WRITE_ATTRIBUTES (0x0100)
#define FILE_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1FF)
#define FILE_GENERIC_READ (STANDARD_RIGHTS_READ | FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE)
#define FILE_GENERIC_WRITE \
  (STANDARD_RIGHTS_WRITE | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA | SYNCHRONIZE)
#define FILE_GENERIC_EXECUTE (STANDARD_RIGHTS_EXECUTE | FILE_READ_ATTRIBUTES | FILE_EXECUTE | SYNCHRONIZE)

typedef enum _IO_PRIORITY_HINT {
  IoPriorityVeryLow = 0,
  IoPriorityLow,
  IoPriorityNormal,
  IoPriorityHigh,
  IoPriorityCritical,
  MaxIoPriorityTypes
} IO_PRIORITY_HINT;

// ---------------------------------------------------------------------------------------
// Power.
typedef enum _SYSTEM_POWER_STATE {
  PowerSystemUnspecified = 0,
  PowerSystemWorking = 1,
  PowerSystemSleeping1 = 2,
  PowerSystemSleeping2 = 3,
  PowerSystemSleeping3 = 4,
  PowerSystemHibernate = 5,
  PowerSystemShutdown = 6,
  PowerSystemMaximum = 7
} SYSTEM_POWER_STATE, *PSYSTEM_POWER_STATE;

typedef enum _DEVICE_POWER_STATE {
  PowerDeviceUnspecified = 0,
  PowerDeviceD0,
  PowerDeviceD1,
  PowerDeviceD2,
  PowerDeviceD3,
  PowerDeviceMaximum
} DEVICE_POWER_STATE, *PDEVICE_POWER_STATE;

typedef union _POWER_STATE {
  SYSTEM_POWER_STATE SystemState;
  DEVICE_POWER_STATE DeviceState;
} POWER_STATE, *PPOWER_STATE;

typedef enum _POWER_STATE_TYPE { SystemPowerState = 0, DevicePowerState } POWER_STATE_TYPE, *PPOWER_STATE_TYPE;

typedef enum _POWER_ACTION {
  PowerActionNone = 0,
  PowerActionReserved,
  PowerActionSleep,
  PowerActionHibernate,
  PowerActionShutdown,
  PowerActionShutdownReset,
  PowerActionShutdownOff,
  PowerActionWarmEject,
  PowerActionDisplayOff
} POWER_ACTION, *PPOWER_ACTION;

// The system power-state context of a set-power request: the state being entered is
// EffectiveSystemState, bits 12 to 15 of the word.
typedef struct _SYSTEM_POWER_STATE_CONTEXT {
  union {
    struct {
      ULONG Reserved1 : 8;
      ULONG TargetSystemState : 4;
      ULONG EffectiveSystemState : 4;
      ULONG CurrentSystemState : 4;
      ULONG IgnoreHibernationPath : 1;
      ULONG PseudoTransition : 1;
      ULONG KernelSoftReboot : 1;
      ULONG DirectedDripsTransition : 1;
      ULONG Reserved2 : 8;
    } DUMMYSTRUCTNAME;
    ULONG ContextAsUlong;
  } DUMMYUNIONNAME;
} SYSTEM_POWER_STATE_CONTEXT, *PSYSTEM_POWER_STATE_CONTEXT;
C_ASSERT(sizeof(SYSTEM_POWER_STATE_CONTEXT) == 4);

// ---------------------------------------------------------------------------------------
// Plug and Play request parameters.
typedef enum _DEVICE_RELATION_TYPE {
  BusRelations,
  EjectionRelations,
  PowerRelations,
  RemovalRelations,
  TargetDeviceRelation,
  SingleBusRelations,
  TransportRelations
} DEVICE_RELATION_TYPE, *PDEVICE_RELATION_TYPE;

typedef struct _DEVICE_RELATIONS {
  ULONG Count;
  PDEVICE_OBJECT Objects[1];
} DEVICE_RELATIONS, *PDEVICE_RELATIONS;

typedef enum _DEVICE_USAGE_NOTIFICATION_TYPE {
  DeviceUsageTypeUndefined,
  DeviceUsageTypePaging,
  DeviceUsageTypeHibernation,
  DeviceUsageTypeDumpFile,
  DeviceUsageTypeBoot,
  DeviceUsageTypePostDisplay,
  DeviceUsageTypeGuestAssigned
} DEVICE_USAGE_NOTIFICATION_TYPE;

typedef enum _BUS_QUERY_ID_TYPE {
  BusQueryDeviceID = 0,
  BusQueryHardwareIDs = 1,
  BusQueryCompatibleIDs = 2,
  BusQueryInstanceID = 3,
  BusQueryDeviceSerialNumber = 4,
  BusQueryContainerID = 5
} BUS_QUERY_ID_TYPE, *PBUS_QUERY_ID_TYPE;

typedef enum _DEVICE_TEXT_TYPE { DeviceTextDescription = 0, DeviceTextLocationInformation = 1 } DEVICE_TEXT_TYPE;

typedef enum _DEVICE_REGISTRY_PROPERTY {
  DevicePropertyDeviceDescription = 0x0,
  DevicePropertyHardwareID = 0x1,
  DevicePropertyCompatibleIDs = 0x2,
  DevicePropertyBootConfiguration = 0x3,
  DevicePropertyBootConfigurationTranslated = 0x4,
  DevicePropertyClassName = 0x5,
  DevicePropertyClassGuid = 0x6,
  DevicePropertyDriverKeyName = 0x7,
  DevicePropertyManufacturer = 0x8,
  DevicePropertyFriendlyName = 0x9,
  DevicePropertyLocationInformation = 0xa,
  DevicePropertyPhysicalDeviceObjectName = 0xb,
  DevicePropertyBusTypeGuid = 0xc,
  DevicePropertyLegacyBusType = 0xd,
  DevicePropertyBusNumber = 0xe,
  DevicePropertyEnumeratorName = 0xf,
  DevicePropertyAddress = 0x10,
  DevicePropertyUINumber = 0x11,
  DevicePropertyInstallState = 0x12,
  DevicePropertyRemovalPolicy = 0x13,
  DevicePropertyResourceRequirements = 0x14,
  DevicePropertyAllocatedResources = 0x15,
  DevicePropertyContainerID = 0x16
} DEVICE_REGISTRY_PROPERTY;

// ---------------------------------------------------------------------------------------
// Volume parameter block: the link between a storage device and the file system that
// mounted it.
#define MAXIMUM_VOLUME_LABEL_LENGTH (32 * sizeof(WCHAR))

typedef struct _VPB {
  CSHORT Type;
  CSHORT Size;
  USHORT Flags;
  USHORT VolumeLabelLength;  // bytes
  struct _DEVICE_OBJECT* DeviceObject;
  struct _DEVICE_OBJECT* RealDevice;
  ULONG SerialNumber;
  ULONG ReferenceCount;
  WCHAR VolumeLabel[MAXIMUM_VOLUME_LABEL_LENGTH / sizeof(WCHAR)];
} VPB, *PVPB;

#define VPB_MOUNTED 0x00000001
#define VPB_LOCKED 0x00000002
#define VPB_PERSISTENT 0x00000004
#define VPB_REMOVE_PENDING 0x00000008
#define VPB_RAW_MOUNT 0x00000010
#define VPB_DIRECT_WRITES_ALLOWED 0x00000020

// ---------------------------------------------------------------------------------------
// Driver and device objects.
typedef struct _KDEVICE_QUEUE_ENTRY {
  LIST_ENTRY DeviceListEntry;
  ULONG SortKey;
  BOOLEAN Inserted;
} KDEVICE_QUEUE_ENTRY, *PKDEVICE_QUEUE_ENTRY;

typedef struct _KDEVICE_QUEUE {
  CSHORT Type;
  CSHORT Size;
  LIST_ENTRY DeviceListHead;
  KSPIN_LOCK Lock;
  BOOLEAN Busy;
} KDEVICE_QUEUE, *PKDEVICE_QUEUE;

typedef struct DECLSPEC_ALIGN(MEMORY_ALLOCATION_ALIGNMENT) _DEVICE_OBJECT {
  CSHORT Type;  // IO_TYPE_DEVICE
  USHORT Size;
  LONG ReferenceCount;
  struct _DRIVER_OBJECT* DriverObject;
  struct _DEVICE_OBJECT* NextDevice;      // the driver's next device
  struct _DEVICE_OBJECT* AttachedDevice;  // the device attached above this one
  struct _IRP* CurrentIrp;
  struct _IO_TIMER* Timer;
  ULONG Flags;            // DO_*
  ULONG Characteristics;  // FILE_* characteristics
  volatile PVPB Vpb;
  PVOID DeviceExtension;
  DEVICE_TYPE DeviceType;
  CCHAR StackSize;  // stack locations a request sent to this device needs
  union {
    LIST_ENTRY ListEntry;
  } Queue;
  ULONG AlignmentRequirement;
  KDEVICE_QUEUE DeviceQueue;
  ULONG_PTR DpcSpace[8];  // room of the device's DPC, not used here
  ULONG ActiveThreadCount;
  PVOID SecurityDescriptor;
  KEVENT DeviceLock;
  USHORT SectorSize;
  USHORT Spare1;
  struct _DEVOBJ_EXTENSION* DeviceObjectExtension;
  PVOID Reserved;
} DEVICE_OBJECT;

typedef struct _DRIVER_EXTENSION {
  struct _DRIVER_OBJECT* DriverObject;
  PDRIVER_ADD_DEVICE AddDevice;
  ULONG Count;
  UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

#define DRVO_UNLOAD_INVOKED 0x00000001
#define DRVO_LEGACY_DRIVER 0x00000002
#define DRVO_BUILTIN_DRIVER 0x00000004

typedef struct _DRIVER_OBJECT {
  CSHORT Type;  // IO_TYPE_DRIVER
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;  // the driver's devices, newest first, linked by NextDevice
  ULONG Flags;
  PVOID DriverStart;
  ULONG DriverSize;
  PVOID DriverSection;
  PDRIVER_EXTENSION DriverExtension;
  UNICODE_STRING DriverName;  // "\Driver\<service>"
  PUNICODE_STRING HardwareDatabase;
  struct _FAST_IO_DISPATCH* FastIoDispatch;
  PDRIVER_INITIALIZE DriverInit;
  PDRIVER_STARTIO DriverStartIo;
  PDRIVER_UNLOAD DriverUnload;
  PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT;

// ---------------------------------------------------------------------------------------
// File objects.
typedef struct _FILE_OBJECT {
  CSHORT Type;  // IO_TYPE_FILE
  CSHORT Size;
  PDEVICE_OBJECT DeviceObject;  // the device opened (the named device, not the top of its stack)
  PVPB Vpb;
  PVOID FsContext;
  PVOID FsContext2;
  struct _SECTION_OBJECT_POINTERS* SectionObjectPointer;
  PVOID PrivateCacheMap;
  NTSTATUS FinalStatus;
  struct _FILE_OBJECT* RelatedFileObject;
  BOOLEAN LockOperation;
  BOOLEAN DeletePending;
  BOOLEAN ReadAccess;
  BOOLEAN WriteAccess;
  BOOLEAN DeleteAccess;
  BOOLEAN SharedRead;
  BOOLEAN SharedWrite;
  BOOLEAN SharedDelete;
  ULONG Flags;
  UNICODE_STRING FileName;
  LARGE_INTEGER CurrentByteOffset;
  volatile ULONG Waiters;
  volatile ULONG Busy;
  PVOID LastLock;
  KEVENT Lock;
  KEVENT Event;
  struct _IO_COMPLETION_CONTEXT* volatile CompletionContext;
  KSPIN_LOCK IrpListLock;
  LIST_ENTRY IrpList;
  struct _IOP_FILE_OBJECT_EXTENSION* volatile FileObjectExtension;
} FILE_OBJECT;

#define FO_FILE_OPEN 0x00000001
#define FO_SYNCHRONOUS_IO 0x00000002
#define FO_ALERTABLE_IO 0x00000004
#define FO_NO_INTERMEDIATE_BUFFERING 0x00000008
#define FO_WRITE_THROUGH 0x00000010
#define FO_SEQUENTIAL_ONLY 0x00000020
#define FO_CACHE_SUPPORTED 0x00000040
#define FO_NAMED_PIPE 0x00000080
#define FO_STREAM_FILE 0x00000100
#define FO_MAILSLOT 0x00000200
#define FO_DIRECT_DEVICE_OPEN 0x00000800
#define FO_FILE_MODIFIED 0x00001000
#define FO_CLEANUP_COMPLETE 0x00004000
#define FO_TEMPORARY_FILE 0x00008000
#define FO_DELETE_ON_CLOSE 0x00010000
#define FO_VOLUME_OPEN 0x00400000

typedef struct _IO_SECURITY_CONTEXT {
  PVOID SecurityQos;
  PACCESS_STATE AccessState;
  ACCESS_MASK DesiredAccess;
  ULONG FullCreateOptions;
} IO_SECURITY_CONTEXT, *PIO_SECURITY_CONTEXT;

// ---------------------------------------------------------------------------------------
// I/O request packets.
//
// An IRP is followed, in the same allocation, by StackCount stack locations. A request
// starts with CurrentLocation = StackCount + 1 (no current location); each IoCallDriver
// moves one location down, each completion step one location up.
typedef struct DECLSPEC_ALIGN(MEMORY_ALLOCATION_ALIGNMENT) _IRP {
  CSHORT Type;  // IO_TYPE_IRP
  USHORT Size;
  PMDL MdlAddress;
  ULONG Flags;  // IRP_*
  union {
    struct _IRP* MasterIrp;
    volatile LONG IrpCount;
    PVOID SystemBuffer;
  } AssociatedIrp;
  LIST_ENTRY ThreadListEntry;
  IO_STATUS_BLOCK IoStatus;
  KPROCESSOR_MODE RequestorMode;
  BOOLEAN PendingReturned;
  CHAR StackCount;
  CHAR CurrentLocation;
  BOOLEAN Cancel;
  KIRQL CancelIrql;
  CCHAR ApcEnvironment;
  UCHAR AllocationFlags;
  PIO_STATUS_BLOCK UserIosb;
  PKEVENT UserEvent;
  union {
    struct {
      PIO_APC_ROUTINE UserApcRoutine;
      PVOID UserApcContext;
    } AsynchronousParameters;
    LARGE_INTEGER AllocationSize;
  } Overlay;
  PDRIVER_CANCEL volatile CancelRoutine;
  PVOID UserBuffer;
  union {
    struct {
      union {
        KDEVICE_QUEUE_ENTRY DeviceQueueEntry;
        struct {
          PVOID DriverContext[4];
        } DUMMYSTRUCTNAME;
      } DUMMYUNIONNAME;
      PETHREAD Thread;
      PCHAR AuxiliaryBuffer;
      struct {
        LIST_ENTRY ListEntry;
        union {
          struct _IO_STACK_LOCATION* CurrentStackLocation;
          ULONG PacketType;
        } DUMMYUNIONNAME;
      } DUMMYSTRUCTNAME;
      struct _FILE_OBJECT* OriginalFileObject;
    } Overlay;
    UCHAR ApcSpace[0x58];  // room of the completion APC, not used here
    PVOID CompletionKey;
  } Tail;
} IRP;

typedef struct _IO_STACK_LOCATION {
  UCHAR MajorFunction;
  UCHAR MinorFunction;
  UCHAR Flags;    // SL_* flags of the request
  UCHAR Control;  // SL_PENDING_RETURNED, SL_INVOKE_ON_*
  union {
    struct {
      PIO_SECURITY_CONTEXT SecurityContext;
      ULONG Options;
      USHORT POINTER_ALIGNMENT FileAttributes;
      USHORT ShareAccess;
      ULONG POINTER_ALIGNMENT EaLength;
    } Create;
    struct {
      ULONG Length;
      ULONG POINTER_ALIGNMENT Key;
      ULONG Flags;
      LARGE_INTEGER ByteOffset;
    } Read;
    struct {
      ULONG Length;
      ULONG POINTER_ALIGNMENT Key;
      ULONG Flags;
      LARGE_INTEGER ByteOffset;
    } Write;
    struct {
      ULONG Length;
      FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
    } QueryFile;
    struct {
      ULONG Length;
      FILE_INFORMATION_CLASS POINTER_ALIGNMENT FileInformationClass;
      PFILE_OBJECT FileObject;
      union {
        struct {
          BOOLEAN ReplaceIfExists;
          BOOLEAN AdvanceOnly;
        };
        ULONG ClusterCount;
        HANDLE DeleteHandle;
      };
    } SetFile;
    struct {
      ULONG Length;
      FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
    } QueryVolume;
    struct {
      ULONG Length;
      FS_INFORMATION_CLASS POINTER_ALIGNMENT FsInformationClass;
    } SetVolume;
    struct {
      ULONG OutputBufferLength;
      ULONG POINTER_ALIGNMENT InputBufferLength;
      ULONG POINTER_ALIGNMENT FsControlCode;
      PVOID Type3InputBuffer;
    } FileSystemControl;
    struct {
      SECURITY_INFORMATION SecurityInformation;
      ULONG POINTER_ALIGNMENT Length;
    } QuerySecurity;
    struct {
      SECURITY_INFORMATION SecurityInformation;
      PSECURITY_DESCRIPTOR SecurityDescriptor;
    } SetSecurity;
    struct {
      ULONG OutputBufferLength;
      ULONG POINTER_ALIGNMENT InputBufferLength;
      ULONG POINTER_ALIGNMENT IoControlCode;
      PVOID Type3InputBuffer;
    } DeviceIoControl;
    struct {
      PVPB Vpb;
      PDEVICE_OBJECT DeviceObject;
    } MountVolume;
    struct {
      PVPB Vpb;
      PDEVICE_OBJECT DeviceObject;
    } VerifyVolume;
    struct {
      DEVICE_RELATION_TYPE Type;
    } QueryDeviceRelations;
    struct {
      CONST GUID* InterfaceType;
      USHORT Size;
      USHORT Version;
      struct _INTERFACE* Interface;
      PVOID InterfaceSpecificData;
    } QueryInterface;
    struct {
      struct _DEVICE_CAPABILITIES* Capabilities;
    } DeviceCapabilities;
    struct {
      BUS_QUERY_ID_TYPE IdType;
    } QueryId;
    struct {
      DEVICE_TEXT_TYPE DeviceTextType;
      LCID POINTER_ALIGNMENT LocaleId;
    } QueryDeviceText;
    struct {
      BOOLEAN InPath;
      BOOLEAN Reserved[3];
      DEVICE_USAGE_NOTIFICATION_TYPE POINTER_ALIGNMENT Type;
    } UsageNotification;
    struct {
      SYSTEM_POWER_STATE PowerState;
    } WaitWake;
    struct {
      union {
        ULONG SystemContext;
        SYSTEM_POWER_STATE_CONTEXT SystemPowerStateContext;
      } DUMMYUNIONNAME;
      POWER_STATE_TYPE POINTER_ALIGNMENT Type;
      POWER_STATE POINTER_ALIGNMENT State;
      POWER_ACTION POINTER_ALIGNMENT ShutdownType;
    } Power;
    struct {
      struct _CM_RESOURCE_LIST* AllocatedResources;
      struct _CM_RESOURCE_LIST* AllocatedResourcesTranslated;
    } StartDevice;
    struct {
      PVOID Argument1;
      PVOID Argument2;
      PVOID Argument3;
      PVOID Argument4;
    } Others;
  } Parameters;
  PDEVICE_OBJECT DeviceObject;  // the device this location belongs to (set by IoCallDriver)
  PFILE_OBJECT FileObject;
  PIO_COMPLETION_ROUTINE CompletionRoutine;  // set by the driver above, run on the way back up
  PVOID Context;
} IO_STACK_LOCATION;

C_ASSERT(sizeof(IO_STACK_LOCATION) == 0x48);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.Read.ByteOffset) == 0x18);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.Power.State) == 0x18);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.UsageNotification.Type) == 0x10);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.SetFile.FileObject) == 0x18);
C_ASSERT(FIELD_OFFSET(IO_STACK_LOCATION, Parameters.SetSecurity.SecurityDescriptor) == 0x10);
C_ASSERT(sizeof(IRP) == 0xD0);
C_ASSERT(FIELD_OFFSET(IRP, Tail.Overlay.CurrentStackLocation) == 0xB8);

#define IoSizeOfIrp(StackSize) ((USHORT)(sizeof(IRP) + ((StackSize) * (sizeof(IO_STACK_LOCATION)))))

// ---------------------------------------------------------------------------------------
// Stack location helpers.
FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(_In_ PIRP Irp) {
  return Irp->Tail.Overlay.CurrentStackLocation;
}

FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(_In_ PIRP Irp) {
  return Irp->Tail.Overlay.CurrentStackLocation - 1;
}

FORCEINLINE VOID IoSkipCurrentIrpStackLocation(_Inout_ PIRP Irp) {
  Irp->CurrentLocation++;
  Irp->Tail.Overlay.CurrentStackLocation++;
}

FORCEINLINE VOID IoSetNextIrpStackLocation(_Inout_ PIRP Irp) {
  Irp->CurrentLocation--;
  Irp->Tail.Overlay.CurrentStackLocation--;
}

FORCEINLINE VOID IoCopyCurrentIrpStackLocationToNext(_Inout_ PIRP Irp) {
  PIO_STACK_LOCATION irpSp = IoGetCurrentIrpStackLocation(Irp);
  PIO_STACK_LOCATION nextIrpSp = IoGetNextIrpStackLocation(Irp);
  RtlCopyMemory(nextIrpSp, irpSp, FIELD_OFFSET(IO_STACK_LOCATION, CompletionRoutine));
  nextIrpSp->Control = 0;
}

FORCEINLINE VOID IoSetCompletionRoutine(_In_ PIRP Irp, _In_opt_ PIO_COMPLETION_ROUTINE CompletionRoutine,
                                        _In_opt_ PVOID Context, _In_ BOOLEAN InvokeOnSuccess,
                                        _In_ BOOLEAN InvokeOnError, _In_ BOOLEAN InvokeOnCancel) {
  PIO_STACK_LOCATION irpSp = IoGetNextIrpStackLocation(Irp);
  irpSp->CompletionRoutine = CompletionRoutine;
  irpSp->Context = Context;
  irpSp->Control = 0;
  if (InvokeOnSuccess) irpSp->Control = SL_INVOKE_ON_SUCCESS;
  if (InvokeOnError) irpSp->Control |= SL_INVOKE_ON_ERROR;
  if (InvokeOnCancel) irpSp->Control |= SL_INVOKE_ON_CANCEL;
}

// Interlocked: a completion routine may mark its location in the completing thread while
// the I/O manager, in the thread that dispatched the request, looks at the same location.
FORCEINLINE VOID IoMarkIrpPending(_Inout_ PIRP Irp) {
  InterlockedOr8((CHAR volatile*)&IoGetCurrentIrpStackLocation(Irp)->Control, (CHAR)SL_PENDING_RETURNED);
}

FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(_Inout_ PIRP Irp, _In_opt_ PDRIVER_CANCEL CancelRoutine) {
  return (PDRIVER_CANCEL)InterlockedExchangePointer((PVOID volatile*)&Irp->CancelRoutine, (PVOID)CancelRoutine);
}

// ---------------------------------------------------------------------------------------
// Device objects and stacks.
EXTERN_C NTKERNELAPI NTSTATUS IoCreateDevice(_In_ PDRIVER_OBJECT DriverObject, _In_ ULONG DeviceExtensionSize,
                                             _In_opt_ PUNICODE_STRING DeviceName, _In_ DEVICE_TYPE DeviceType,
                                             _In_ ULONG DeviceCharacteristics, _In_ BOOLEAN Exclusive,
                                             _Out_ PDEVICE_OBJECT* DeviceObject);
EXTERN_C NTKERNELAPI VOID IoDeleteDevice(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI NTSTATUS IoAttachDeviceToDeviceStackSafe(_In_ PDEVICE_OBJECT SourceDevice,
                                                              _In_ PDEVICE_OBJECT TargetDevice,
                                                              _Out_ PDEVICE_OBJECT* AttachedToDeviceObject);
EXTERN_C NTKERNELAPI PDEVICE_OBJECT IoAttachDeviceToDeviceStack(_In_ PDEVICE_OBJECT SourceDevice,
                                                                _In_ PDEVICE_OBJECT TargetDevice);
EXTERN_C NTKERNELAPI VOID IoDetachDevice(_Inout_ PDEVICE_OBJECT TargetDevice);
EXTERN_C NTKERNELAPI PDEVICE_OBJECT IoGetAttachedDevice(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI PDEVICE_OBJECT IoGetAttachedDeviceReference(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI PDEVICE_OBJECT IoGetLowerDeviceObject(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI PDEVICE_OBJECT IoGetRelatedDeviceObject(_In_ PFILE_OBJECT FileObject);
EXTERN_C NTKERNELAPI NTSTATUS IoGetDeviceObjectPointer(_In_ PUNICODE_STRING ObjectName,
                                                       _In_ ACCESS_MASK DesiredAccess,
                                                       _Out_ PFILE_OBJECT* FileObject,
                                                       _Out_ PDEVICE_OBJECT* DeviceObject);
EXTERN_C NTKERNELAPI NTSTATUS IoGetDeviceProperty(_In_ PDEVICE_OBJECT DeviceObject,
                                                  _In_ DEVICE_REGISTRY_PROPERTY DeviceProperty,
                                                  _In_ ULONG BufferLength, _Out_opt_ PVOID PropertyBuffer,
                                                  _Out_ PULONG ResultLength);
EXTERN_C NTKERNELAPI NTSTATUS IoCreateSymbolicLink(_In_ PUNICODE_STRING SymbolicLinkName,
                                                   _In_ PUNICODE_STRING DeviceName);
EXTERN_C NTKERNELAPI NTSTATUS IoDeleteSymbolicLink(_In_ PUNICODE_STRING SymbolicLinkName);

EXTERN_C NTKERNELAPI NTSTATUS IoAllocateDriverObjectExtension(_In_ PDRIVER_OBJECT DriverObject,
                                                              _In_ PVOID ClientIdentificationAddress,
                                                              _In_ ULONG DriverObjectExtensionSize,
                                                              _Outptr_result_maybenull_ PVOID* DriverObjectExtension);
EXTERN_C NTKERNELAPI PVOID IoGetDriverObjectExtension(_In_ PDRIVER_OBJECT DriverObject,
                                                      _In_ PVOID ClientIdentificationAddress);

// ---------------------------------------------------------------------------------------
// Requests.
EXTERN_C NTKERNELAPI PIRP IoAllocateIrp(_In_ CCHAR StackSize, _In_ BOOLEAN ChargeQuota);
EXTERN_C NTKERNELAPI VOID IoFreeIrp(_In_ PIRP Irp);
EXTERN_C NTKERNELAPI VOID IoReuseIrp(_Inout_ PIRP Irp, _In_ NTSTATUS Iostatus);

EXTERN_C NTKERNELAPI NTSTATUS FASTCALL IofCallDriver(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
#define IoCallDriver(a, b) IofCallDriver(a, b)
EXTERN_C NTKERNELAPI VOID FASTCALL IofCompleteRequest(_In_ PIRP Irp, _In_ CCHAR PriorityBoost);
#define IoCompleteRequest(a, b) IofCompleteRequest(a, b)

// Power requests go down a stack like any other since Windows Vista.
EXTERN_C NTKERNELAPI NTSTATUS PoCallDriver(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
EXTERN_C NTKERNELAPI VOID PoStartNextPowerIrp(_Inout_ PIRP Irp);

EXTERN_C NTKERNELAPI NTSTATUS IoSetCompletionRoutineEx(_In_ PDEVICE_OBJECT DeviceObject, _In_ PIRP Irp,
                                                       _In_ PIO_COMPLETION_ROUTINE CompletionRoutine,
                                                       _In_opt_ PVOID Context, _In_ BOOLEAN InvokeOnSuccess,
                                                       _In_ BOOLEAN InvokeOnError, _In_ BOOLEAN InvokeOnCancel);

EXTERN_C NTKERNELAPI BOOLEAN IoCancelIrp(_In_ PIRP Irp);
EXTERN_C NTKERNELAPI VOID IoAcquireCancelSpinLock(_Out_ PKIRQL Irql);
EXTERN_C NTKERNELAPI VOID IoReleaseCancelSpinLock(_In_ KIRQL Irql);

EXTERN_C NTKERNELAPI PIRP IoBuildDeviceIoControlRequest(_In_ ULONG IoControlCode, _In_ PDEVICE_OBJECT DeviceObject,
                                                        _In_opt_ PVOID InputBuffer, _In_ ULONG InputBufferLength,
                                                        _Out_opt_ PVOID OutputBuffer, _In_ ULONG OutputBufferLength,
                                                        _In_ BOOLEAN InternalDeviceIoControl,
                                                        _In_opt_ PKEVENT Event, _Out_ PIO_STATUS_BLOCK IoStatusBlock);
EXTERN_C NTKERNELAPI PIRP IoBuildSynchronousFsdRequest(_In_ ULONG MajorFunction, _In_ PDEVICE_OBJECT DeviceObject,
                                                       _Inout_opt_ PVOID Buffer, _In_opt_ ULONG Length,
                                                       _In_opt_ PLARGE_INTEGER StartingOffset, _In_ PKEVENT Event,
                                                       _Out_ PIO_STATUS_BLOCK IoStatusBlock);
EXTERN_C NTKERNELAPI PIRP IoBuildAsynchronousFsdRequest(_In_ ULONG MajorFunction, _In_ PDEVICE_OBJECT DeviceObject,
                                                        _Inout_opt_ PVOID Buffer, _In_opt_ ULONG Length,
                                                        _In_opt_ PLARGE_INTEGER StartingOffset,
                                                        _In_opt_ PIO_STATUS_BLOCK IoStatusBlock);
EXTERN_C NTKERNELAPI BOOLEAN IoForwardIrpSynchronously(_In_ PDEVICE_OBJECT DeviceObject, _In_ PIRP Irp);
#define IoForwardAndCatchIrp IoForwardIrpSynchronously

EXTERN_C NTKERNELAPI NTSTATUS IoSetIoPriorityHint(_In_ PIRP Irp, _In_ IO_PRIORITY_HINT PriorityHint);
EXTERN_C NTKERNELAPI IO_PRIORITY_HINT IoGetIoPriorityHint(_In_ PIRP Irp);
EXTERN_C NTKERNELAPI BOOLEAN IoIs32bitProcess(_In_opt_ PIRP Irp);

// ---------------------------------------------------------------------------------------
// MDLs owned by the I/O manager.
EXTERN_C NTKERNELAPI PMDL IoAllocateMdl(_In_opt_ PVOID VirtualAddress, _In_ ULONG Length,
                                        _In_ BOOLEAN SecondaryBuffer, _In_ BOOLEAN ChargeQuota,
                                        _Inout_opt_ PIRP Irp);
EXTERN_C NTKERNELAPI VOID IoFreeMdl(PMDL Mdl);
EXTERN_C NTKERNELAPI VOID IoBuildPartialMdl(_In_ PMDL SourceMdl, _Inout_ PMDL TargetMdl,
                                            _In_ PVOID VirtualAddress, _In_ ULONG Length);

// ---------------------------------------------------------------------------------------
// Work items: a system worker queue item tied to a device (or driver) object, which stays
// referenced while the item is queued.
EXTERN_C NTKERNELAPI ULONG IoSizeofWorkItem(VOID);
EXTERN_C NTKERNELAPI VOID IoInitializeWorkItem(_In_ PVOID IoObject, _Out_ PIO_WORKITEM IoWorkItem);
EXTERN_C NTKERNELAPI VOID IoUninitializeWorkItem(_Inout_ PIO_WORKITEM IoWorkItem);
EXTERN_C NTKERNELAPI PIO_WORKITEM IoAllocateWorkItem(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI VOID IoFreeWorkItem(_In_ PIO_WORKITEM IoWorkItem);
EXTERN_C NTKERNELAPI VOID IoQueueWorkItem(_Inout_ PIO_WORKITEM IoWorkItem, _In_ PIO_WORKITEM_ROUTINE WorkerRoutine,
                                          _In_ WORK_QUEUE_TYPE QueueType, _In_opt_ PVOID Context);
EXTERN_C NTKERNELAPI VOID IoQueueWorkItemEx(_Inout_ PIO_WORKITEM IoWorkItem,
                                            _In_ PIO_WORKITEM_ROUTINE_EX WorkerRoutine,
                                            _In_ WORK_QUEUE_TYPE QueueType, _In_opt_ PVOID Context);

// ---------------------------------------------------------------------------------------
// The current thread's stack.
EXTERN_C NTKERNELAPI VOID IoGetStackLimits(_Out_ PULONG_PTR LowLimit, _Out_ PULONG_PTR HighLimit);

FORCEINLINE ULONG_PTR IoGetRemainingStackSize(VOID) {
  ULONG_PTR Top;
  ULONG_PTR Bottom;
  IoGetStackLimits(&Bottom, &Top);
  return (ULONG_PTR)(&Top) - Bottom;
}

// Hard-error pop-ups for the current thread; returns the previous setting.
EXTERN_C NTKERNELAPI BOOLEAN IoSetThreadHardErrorMode(_In_ BOOLEAN EnableHardErrors);

// ---------------------------------------------------------------------------------------
// Shutdown and reinitialization registrations.
EXTERN_C NTKERNELAPI NTSTATUS IoRegisterShutdownNotification(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI NTSTATUS IoRegisterLastChanceShutdownNotification(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI VOID IoUnregisterShutdownNotification(_In_ PDEVICE_OBJECT DeviceObject);
EXTERN_C NTKERNELAPI VOID IoRegisterBootDriverReinitialization(_In_ PDRIVER_OBJECT DriverObject,
                                                               _In_ PDRIVER_REINITIALIZE DriverReinitializationRoutine,
                                                               _In_opt_ PVOID Context);
EXTERN_C NTKERNELAPI VOID IoRegisterDriverReinitialization(_In_ PDRIVER_OBJECT DriverObject,
                                                           _In_ PDRIVER_REINITIALIZE DriverReinitializationRoutine,
                                                           _In_opt_ PVOID Context);

// ---------------------------------------------------------------------------------------
// Plug and Play notifications.
typedef enum _IO_NOTIFICATION_EVENT_CATEGORY {
  EventCategoryReserved,
  EventCategoryHardwareProfileChange,
  EventCategoryDeviceInterfaceChange,
  EventCategoryTargetDeviceChange,
  EventCategoryKernelSoftRestart
} IO_NOTIFICATION_EVENT_CATEGORY;

// With EventCategoryDeviceInterfaceChange: report the interfaces that already exist, from
// within the registration call.
#define PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES 0x00000001

typedef struct _PLUGPLAY_NOTIFICATION_HEADER {
  USHORT Version;
  USHORT Size;
  GUID Event;
} PLUGPLAY_NOTIFICATION_HEADER, *PPLUGPLAY_NOTIFICATION_HEADER;

typedef struct _DEVICE_INTERFACE_CHANGE_NOTIFICATION {
  USHORT Version;
  USHORT Size;
  GUID Event;  // GUID_DEVICE_INTERFACE_ARRIVAL or GUID_DEVICE_INTERFACE_REMOVAL
  GUID InterfaceClassGuid;
  PUNICODE_STRING SymbolicLinkName;
} DEVICE_INTERFACE_CHANGE_NOTIFICATION, *PDEVICE_INTERFACE_CHANGE_NOTIFICATION;

typedef struct _HWPROFILE_CHANGE_NOTIFICATION {
  USHORT Version;
  USHORT Size;
  GUID Event;
} HWPROFILE_CHANGE_NOTIFICATION, *PHWPROFILE_CHANGE_NOTIFICATION;

typedef struct _TARGET_DEVICE_REMOVAL_NOTIFICATION {
  USHORT Version;
  USHORT Size;
  GUID Event;  // GUID_TARGET_DEVICE_QUERY_REMOVE, _REMOVE_CANCELLED or _REMOVE_COMPLETE
  struct _FILE_OBJECT* FileObject;
} TARGET_DEVICE_REMOVAL_NOTIFICATION, *PTARGET_DEVICE_REMOVAL_NOTIFICATION;

typedef struct _TARGET_DEVICE_CUSTOM_NOTIFICATION {
  USHORT Version;
  USHORT Size;
  GUID Event;  // a custom event, e.g. GUID_IO_VOLUME_LOCK
  struct _FILE_OBJECT* FileObject;
  LONG NameBufferOffset;  // -1 when there is no text in CustomDataBuffer
  UCHAR CustomDataBuffer[1];
} TARGET_DEVICE_CUSTOM_NOTIFICATION, *PTARGET_DEVICE_CUSTOM_NOTIFICATION;

EXTERN_C NTKERNELAPI NTSTATUS IoRegisterPlugPlayNotification(
    _In_ IO_NOTIFICATION_EVENT_CATEGORY EventCategory, _In_ ULONG EventCategoryFlags,
    _In_opt_ PVOID EventCategoryData, _In_ PDRIVER_OBJECT DriverObject,
    _In_ PDRIVER_NOTIFICATION_CALLBACK_ROUTINE CallbackRoutine, _Inout_opt_ PVOID Context,
    _Outptr_ PVOID* NotificationEntry);
EXTERN_C NTKERNELAPI NTSTATUS IoUnregisterPlugPlayNotification(_In_ PVOID NotificationEntry);
EXTERN_C NTKERNELAPI NTSTATUS IoUnregisterPlugPlayNotificationEx(_In_ PVOID NotificationEntry);
