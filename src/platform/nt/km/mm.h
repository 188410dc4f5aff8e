// Memory manager, as far as I/O needs it: memory descriptor lists (MDLs), pages, system
// address mappings.
//
// An MDL describes a buffer as a run of pages: StartVa is the page-aligned start, ByteOffset
// the offset of the data in the first page, ByteCount the length; the page frame numbers
// follow the MDL header. The data is reached through a system-space mapping
// (MappedSystemVa, MDL_MAPPED_TO_SYSTEM_VA), which a buffer from non-paged pool already has
// (MDL_SOURCE_IS_NONPAGED_POOL) and any other locked buffer gets from
// MmMapLockedPagesSpecifyCache, a call that can fail when system address space is short.
#pragma once
#include "ke.h"

#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12L

#define BYTE_OFFSET(Va) ((ULONG)((LONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~(PAGE_SIZE - 1)))
#define ROUND_TO_PAGES(Size) (((ULONG_PTR)(Size) + PAGE_SIZE - 1) & ~(PAGE_SIZE - 1))
#define BYTES_TO_PAGES(Size) (((Size) >> PAGE_SHIFT) + (((Size) & (PAGE_SIZE - 1)) != 0))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size) \
  ((BYTE_OFFSET(Va) + ((SIZE_T)(Size)) + (PAGE_SIZE - 1)) >> PAGE_SHIFT)

typedef ULONG_PTR PFN_NUMBER, *PPFN_NUMBER;

typedef struct _MDL {
  struct _MDL* Next;
  CSHORT Size;  // bytes of the MDL header and its page frame array
  CSHORT MdlFlags;
  struct _EPROCESS* Process;
  PVOID MappedSystemVa;
  PVOID StartVa;  // page-aligned
  ULONG ByteCount;
  ULONG ByteOffset;
} MDL, *PMDL;
typedef MDL* PMDLX;

#define MDL_MAPPED_TO_SYSTEM_VA 0x0001
#define MDL_PAGES_LOCKED 0x0002
#define MDL_SOURCE_IS_NONPAGED_POOL 0x0004
#define MDL_ALLOCATED_FIXED_SIZE 0x0008
#define MDL_PARTIAL 0x0010
#define MDL_PARTIAL_HAS_BEEN_MAPPED 0x0020
#define MDL_IO_PAGE_READ 0x0040
#define MDL_WRITE_OPERATION 0x0080
#define MDL_LOCKED_PAGE_TABLES 0x0100
#define MDL_PARENT_MAPPED_SYSTEM_VA MDL_LOCKED_PAGE_TABLES
#define MDL_FREE_EXTRA_PTES 0x0200
#define MDL_DESCRIBES_AWE 0x0400
#define MDL_IO_SPACE 0x0800
#define MDL_NETWORK_HEADER 0x1000
#define MDL_MAPPING_CAN_FAIL 0x2000
#define MDL_PAGE_CONTENTS_INVARIANT 0x4000
#define MDL_ALLOCATED_MUST_SUCCEED MDL_PAGE_CONTENTS_INVARIANT
#define MDL_INTERNAL 0x8000
#define MDL_MAPPING_FLAGS                                                                                     \
  (MDL_MAPPED_TO_SYSTEM_VA | MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL_HAS_BEEN_MAPPED | \
   MDL_PARENT_MAPPED_SYSTEM_VA | MDL_IO_SPACE)

typedef enum _MEMORY_CACHING_TYPE {
  MmNonCached = FALSE,
  MmCached = TRUE,
  MmWriteCombined = 2,
  MmFrameBufferCached = 2,
  MmHardwareCoherentCached,
  MmNonCachedUnordered,
  MmUSWCCached,
  MmMaximumCacheType,
  MmNotMapped = -1
} MEMORY_CACHING_TYPE;

typedef enum _MM_PAGE_PRIORITY { LowPagePriority, NormalPagePriority = 16, HighPagePriority = 32 } MM_PAGE_PRIORITY;

// Flags or-ed into the priority argument of the mapping routines.
#define MdlMappingNoWrite 0x80000000
#define MdlMappingNoExecute 0x40000000

typedef enum _LOCK_OPERATION { IoReadAccess, IoWriteAccess, IoModifyAccess } LOCK_OPERATION;

#define MmGetMdlPfnArray(Mdl) ((PPFN_NUMBER)((Mdl) + 1))
#define MmGetMdlVirtualAddress(Mdl) ((PVOID)((PCHAR)((Mdl)->StartVa) + (Mdl)->ByteOffset))
#define MmGetMdlByteCount(Mdl) ((Mdl)->ByteCount)
#define MmGetMdlByteOffset(Mdl) ((Mdl)->ByteOffset)
#define MmGetMdlBaseVa(Mdl) ((Mdl)->StartVa)

#define MmInitializeMdl(MemoryDescriptorList, BaseVa, Length)                                     \
  {                                                                                               \
    (MemoryDescriptorList)->Next = (PMDL)NULL;                                                    \
    (MemoryDescriptorList)->Size =                                                                \
        (CSHORT)(sizeof(MDL) + (sizeof(PFN_NUMBER) * ADDRESS_AND_SIZE_TO_SPAN_PAGES((BaseVa), (Length)))); \
    (MemoryDescriptorList)->MdlFlags = 0;                                                         \
    (MemoryDescriptorList)->StartVa = (PVOID)PAGE_ALIGN((BaseVa));                                \
    (MemoryDescriptorList)->ByteOffset = BYTE_OFFSET((BaseVa));                                   \
    (MemoryDescriptorList)->ByteCount = (ULONG)(Length);                                          \
  }

// Completes an MDL allocated for a buffer in non-paged pool: fills the page frame array, sets
// MDL_SOURCE_IS_NONPAGED_POOL and points MappedSystemVa at the data.
EXTERN_C NTKERNELAPI VOID MmBuildMdlForNonPagedPool(_Inout_ PMDL MemoryDescriptorList);

// Locks the pages of any buffer (MDL_PAGES_LOCKED); the buffer then still has to be mapped.
EXTERN_C NTKERNELAPI VOID MmProbeAndLockPages(_Inout_ PMDL MemoryDescriptorList, _In_ KPROCESSOR_MODE AccessMode,
                                              _In_ LOCK_OPERATION Operation);
EXTERN_C NTKERNELAPI VOID MmUnlockPages(_Inout_ PMDL MemoryDescriptorList);

// Maps locked pages into system space. Returns NULL when no system address space is left,
// unless BugCheckOnFailure is set (then that is a bug check).
EXTERN_C NTKERNELAPI PVOID MmMapLockedPagesSpecifyCache(_Inout_ PMDL MemoryDescriptorList,
                                                        _In_ KPROCESSOR_MODE AccessMode,
                                                        _In_ MEMORY_CACHING_TYPE CacheType,
                                                        _In_opt_ PVOID RequestedAddress,
                                                        _In_ ULONG BugCheckOnFailure, _In_ ULONG Priority);
EXTERN_C NTKERNELAPI VOID MmUnmapLockedPages(_In_ PVOID BaseAddress, _Inout_ PMDL MemoryDescriptorList);

EXTERN_C NTKERNELAPI SIZE_T MmSizeOfMdl(_In_opt_ PVOID Base, _In_ SIZE_T Length);

// The system address of the data an MDL describes: the existing mapping when there is one,
// otherwise a new one (NULL when mapping fails).
#define MmGetSystemAddressForMdlSafe(MDL, PRIORITY)                                           \
  (((MDL)->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL))                 \
       ? ((MDL)->MappedSystemVa)                                                              \
       : (MmMapLockedPagesSpecifyCache((MDL), KernelMode, MmCached, NULL, FALSE, (PRIORITY))))
