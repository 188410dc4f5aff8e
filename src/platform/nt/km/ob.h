// Object manager: references, handles and names.
//
// Every kernel object (driver, device and file objects, threads, events, registry keys) has
// an object header in front of its body; ObReferenceObject and ObDereferenceObject count on
// it, and the object is deleted by its type's delete procedure when the last reference
// goes. Handles are kernel handles (OBJ_KERNEL_HANDLE) in one table, closed by ZwClose.
#pragma once
#include "basetypes.h"

typedef struct _OBJECT_TYPE* POBJECT_TYPE;

typedef struct _OBJECT_NAME_INFORMATION {
  UNICODE_STRING Name;
} OBJECT_NAME_INFORMATION, *POBJECT_NAME_INFORMATION;

typedef struct _OBJECT_HANDLE_INFORMATION {
  ULONG HandleAttributes;
  ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

// Exported object types (data exports are pointers to the type, as in ntoskrnl).
EXTERN_C POBJECT_TYPE* PsThreadType;
EXTERN_C POBJECT_TYPE* ExEventObjectType;
EXTERN_C POBJECT_TYPE* ExSemaphoreObjectType;
EXTERN_C POBJECT_TYPE* IoFileObjectType;
EXTERN_C POBJECT_TYPE* IoDeviceObjectType;
EXTERN_C POBJECT_TYPE* IoDriverObjectType;
EXTERN_C POBJECT_TYPE* CmKeyObjectType;

EXTERN_C NTKERNELAPI LONG_PTR ObfReferenceObject(PVOID Object);
EXTERN_C NTKERNELAPI LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)
#define ObReferenceObjectWithTag(Object, Tag) ObfReferenceObject(Object)
#define ObDereferenceObjectWithTag(Object, Tag) ObfDereferenceObject(Object)

EXTERN_C NTKERNELAPI NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                                        POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                                        PVOID* Object,
                                                        POBJECT_HANDLE_INFORMATION HandleInformation);

EXTERN_C NTKERNELAPI NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess,
                                                         POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode);

// Fills ObjectNameInfo with the object's full name ("\Device\HarddiskVolume1"), the string
// following the header in the same buffer. A buffer too small for the whole name gives
// STATUS_INFO_LENGTH_MISMATCH with the needed size in ReturnLength. An unnamed object gives
// an empty name.
EXTERN_C NTKERNELAPI NTSTATUS ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo,
                                                ULONG Length, PULONG ReturnLength);

EXTERN_C NTKERNELAPI NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PVOID PassedAccessState,
                                                    ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                    KPROCESSOR_MODE AccessMode, PHANDLE Handle);
