// Fundamental types, annotations and inline helpers of the Windows kernel API, laid out
// as on a 64-bit Windows target (LLP64: LONG and ULONG are 32 bits, pointers and
// ULONG_PTR 64 bits, WCHAR 16 bits).
//
// This header is included by driver sources (through wdm.h and friends, compiled without
// any system header) and by the host implementation (compiled with the C++ standard
// library). It therefore defines nothing that would clash with the C library: size_t,
// va_list and NULL are defined exactly as the compiler's own headers define them.
#pragma once

#if !defined(__SIZEOF_WCHAR_T__) || __SIZEOF_WCHAR_T__ != 2
#error "kvcbt builds with a 16-bit wchar_t (-fshort-wchar), as Windows has it"
#endif

// ---------------------------------------------------------------------------------------
// Compiler-provided basics.
typedef __SIZE_TYPE__ size_t;
typedef __PTRDIFF_TYPE__ ptrdiff_t;
typedef __builtin_va_list va_list;
#ifndef NULL
#define NULL __null
#endif
#ifndef va_start
#define va_start(ap, last) __builtin_va_start(ap, last)
#define va_end(ap) __builtin_va_end(ap)
#define va_arg(ap, type) __builtin_va_arg(ap, type)
#define va_copy(dst, src) __builtin_va_copy(dst, src)
#endif

// ---------------------------------------------------------------------------------------
// Calling conventions, linkage and declaration modifiers (meaningless on this target).
#define NTAPI
#define NTSYSAPI
#define NTSYSCALLAPI
#define NTKERNELAPI
#define NTHALAPI
#define WINAPI
#define __stdcall
#define __cdecl
#define FASTCALL
#define FORCEINLINE inline __attribute__((always_inline))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))
#define DECLSPEC_NOINLINE __attribute__((noinline))
#define DECLSPEC_CACHEALIGN DECLSPEC_ALIGN(64)
#define EXTERN_C extern "C"
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#define CONST const
#define VOID void
#define IN
#define OUT
#define OPTIONAL
#define UNALIGNED
#define RESTRICTED_POINTER
#define ANYSIZE_ARRAY 1

// The subset of SAL annotations the driver's declarations use; they carry no meaning here.
#define _In_
#define _In_opt_
#define _In_z_
#define _In_reads_(x)
#define _In_reads_bytes_(x)
#define _In_reads_bytes_opt_(x)
#define _Out_
#define _Out_opt_
#define _Out_writes_(x)
#define _Out_writes_bytes_(x)
#define _Out_writes_bytes_opt_(x)
#define _Out_writes_bytes_to_(x, y)
#define _Inout_
#define _Inout_opt_
#define _Inout_updates_bytes_(x)
#define _Outptr_
#define _Outptr_result_maybenull_
#define _Printf_format_string_
#define _Must_inspect_result_
#define _Success_(x)
#define _Check_return_
#define _Use_decl_annotations_
#define _Function_class_(x)
#define _Dispatch_type_(x)
#define _IRQL_requires_(x)
#define _IRQL_requires_max_(x)
#define _IRQL_requires_min_(x)
#define _IRQL_raises_(x)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_requires_same_
#define _IRQL_saves_global_(a, b)
#define _IRQL_restores_global_(a, b)
#define _Requires_lock_held_(x)
#define _Requires_lock_not_held_(x)
#define _Acquires_lock_(x)
#define _Releases_lock_(x)
#define _When_(a, b)
#define _Post_satisfies_(x)
#define _Frees_ptr_(x)
#define _Frees_ptr_opt_
#define _Post_writable_byte_size_(x)
#define _Ret_maybenull_
#define _Analysis_assume_(x)
#define __drv_allocatesMem(x)
#define __drv_freesMem(x)
#define __drv_aliasesMem

// ---------------------------------------------------------------------------------------
// Integer and character types (LLP64).
typedef void* PVOID;
typedef const void* PCVOID;
typedef void** PPVOID;
typedef char CHAR;
typedef signed char SCHAR;
typedef unsigned char UCHAR;
typedef short SHORT;
typedef unsigned short USHORT;
typedef int LONG;
typedef unsigned int ULONG;
typedef int INT;
typedef unsigned int UINT;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef long long LONG64;
typedef unsigned long long ULONG64;
typedef long long INT64;
typedef unsigned long long UINT64;
typedef unsigned long long DWORD64;
typedef signed char INT8;
typedef unsigned char UINT8;
typedef short INT16;
typedef unsigned short UINT16;
typedef int INT32;
typedef unsigned int UINT32;
typedef int LONG32;
typedef unsigned int ULONG32;
typedef unsigned int DWORD32;
typedef unsigned int DWORD;
typedef unsigned short WORD;
typedef unsigned char BYTE;
typedef long long LONG_PTR;
typedef unsigned long long ULONG_PTR;
typedef long long INT_PTR;
typedef unsigned long long UINT_PTR;
typedef ULONG_PTR SIZE_T;
typedef LONG_PTR SSIZE_T;
typedef ULONG_PTR KAFFINITY;
typedef UCHAR BOOLEAN;
typedef int BOOL;
typedef wchar_t WCHAR;
typedef char CCHAR;
typedef short CSHORT;
typedef ULONG LOGICAL;
typedef LONG NTSTATUS;
typedef UCHAR KIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef ULONG ACCESS_MASK;
typedef PVOID HANDLE;
typedef ULONG DEVICE_TYPE;
typedef LONG KPRIORITY;
typedef ULONG SECURITY_INFORMATION;
typedef ULONG CLONG;
typedef ULONGLONG ULONG64_T;

typedef CHAR* PCHAR;
typedef CHAR* PSTR;
typedef CHAR* PSZ;
typedef const CHAR* PCSTR;
typedef const CHAR* PCSZ;
typedef UCHAR* PUCHAR;
typedef SHORT* PSHORT;
typedef USHORT* PUSHORT;
typedef LONG* PLONG;
typedef ULONG* PULONG;
typedef LONGLONG* PLONGLONG;
typedef ULONGLONG* PULONGLONG;
typedef LONG64* PLONG64;
typedef ULONG64* PULONG64;
typedef ULONG_PTR* PULONG_PTR;
typedef SIZE_T* PSIZE_T;
typedef BOOLEAN* PBOOLEAN;
typedef WCHAR* PWCHAR;
typedef WCHAR* PWCH;
typedef WCHAR* PWSTR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* PCWCH;
typedef const WCHAR* PCWSTR;
typedef const WCHAR* LPCWSTR;
typedef HANDLE* PHANDLE;
typedef KIRQL* PKIRQL;
typedef NTSTATUS* PNTSTATUS;
typedef ACCESS_MASK* PACCESS_MASK;
typedef DWORD* PDWORD;
typedef BYTE* PBYTE;

static_assert(sizeof(CHAR) == 1 && sizeof(SHORT) == 2 && sizeof(LONG) == 4 && sizeof(ULONG) == 4,
              "LLP64: LONG and ULONG are 32 bits");
static_assert(sizeof(LONGLONG) == 8 && sizeof(ULONG_PTR) == 8 && sizeof(PVOID) == 8,
              "64-bit target: pointers and ULONG_PTR are 64 bits");
static_assert(sizeof(WCHAR) == 2 && sizeof(L'x') == 2 && sizeof(L"ab") == 6,
              "WCHAR and wide literals are UTF-16 code units");
static_assert(sizeof(BOOLEAN) == 1 && sizeof(NTSTATUS) == 4 && sizeof(KIRQL) == 1, "core types");

#define TRUE 1
#define FALSE 0

#define MAXUCHAR 0xff
#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffffU
#define MAXLONG 0x7fffffff
#define MINLONG (-MAXLONG - 1)
#define MAXLONGLONG 0x7fffffffffffffffLL
#define MAXULONGLONG 0xffffffffffffffffULL
#define MAXULONG_PTR MAXULONGLONG
#define MAXSIZE_T MAXULONG_PTR

// ---------------------------------------------------------------------------------------
// Status values.
#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

// ---------------------------------------------------------------------------------------
// Structure helpers.
#define FIELD_OFFSET(type, field) ((LONG)__builtin_offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define RTL_SIZEOF_THROUGH_FIELD(type, field) (FIELD_OFFSET(type, field) + RTL_FIELD_SIZE(type, field))
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)
#define CONTAINING_RECORD(address, type, field) \
  ((type*)((PCHAR)(address) - (ULONG_PTR)(&((type*)0)->field)))
#define ARGUMENT_PRESENT(p) ((p) != NULL)
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define C_ASSERT(e) static_assert(e, #e)
#define ALIGN_DOWN_BY(length, alignment) ((ULONG_PTR)(length) & ~((ULONG_PTR)(alignment) - 1))
#define ALIGN_UP_BY(length, alignment) (ALIGN_DOWN_BY(((ULONG_PTR)(length) + (alignment) - 1), alignment))
#define BooleanFlagOn(F, SF) ((BOOLEAN)(((F) & (SF)) != 0))
#define FlagOn(_F, _SF) ((_F) & (_SF))
#define SetFlag(_F, _SF) ((_F) |= (_SF))
#define ClearFlag(_F, _SF) ((_F) &= ~(_SF))

// Memory helpers. They expand to compiler builtins so a driver source needs no C library
// header; the compiler emits the same memcpy/memset calls a WDK build would.
#define RtlCopyMemory(Destination, Source, Length) __builtin_memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) __builtin_memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) __builtin_memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) __builtin_memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (!__builtin_memcmp((Destination), (Source), (Length)))
#define RtlSecureZeroMemory(Destination, Length) __builtin_memset((Destination), 0, (Length))

// ---------------------------------------------------------------------------------------
// LARGE_INTEGER and friends.
#define DUMMYSTRUCTNAME
#define DUMMYUNIONNAME
typedef union _LARGE_INTEGER {
  struct {
    ULONG LowPart;
    LONG HighPart;
  } DUMMYSTRUCTNAME;
  struct {
    ULONG LowPart;
    LONG HighPart;
  } u;
  LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
  struct {
    ULONG LowPart;
    ULONG HighPart;
  } DUMMYSTRUCTNAME;
  struct {
    ULONG LowPart;
    ULONG HighPart;
  } u;
  ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;

typedef struct _LUID {
  ULONG LowPart;
  LONG HighPart;
} LUID, *PLUID;

typedef struct _GUID {
  ULONG Data1;
  USHORT Data2;
  USHORT Data3;
  UCHAR Data4[8];
} GUID, *PGUID, *LPGUID;
typedef const GUID* LPCGUID;
typedef const GUID& REFGUID;
C_ASSERT(sizeof(GUID) == 16);

inline bool IsEqualGUID(const GUID& a, const GUID& b) { return __builtin_memcmp(&a, &b, sizeof(GUID)) == 0; }
inline bool operator==(const GUID& a, const GUID& b) { return IsEqualGUID(a, b); }
inline bool operator!=(const GUID& a, const GUID& b) { return !IsEqualGUID(a, b); }

// DEFINE_GUID gives a constant GUID. The WDK makes it a declaration unless initguid.h came
// first; here every use is an inline constant, so any number of translation units may carry
// it without a global constructor and initguid.h has nothing left to do.
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) \
  inline constexpr GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}

// ---------------------------------------------------------------------------------------
// Counted strings.
typedef struct _UNICODE_STRING {
  USHORT Length;         // bytes, not counting a terminator
  USHORT MaximumLength;  // bytes
  PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
  USHORT Length;
  USHORT MaximumLength;
  PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING* PCANSI_STRING;

#define UNICODE_NULL ((WCHAR)0)
#define ANSI_NULL ((CHAR)0)
#define UNICODE_STRING_MAX_BYTES ((USHORT)65534)
// A counted string over a literal; Buffer is not const in the structure, as in the WDK.
template <typename T>
constexpr T* KvLiteralBuffer(const T* literal) { return const_cast<T*>(literal); }
#define RTL_CONSTANT_STRING(s) {sizeof(s) - sizeof((s)[0]), sizeof(s), KvLiteralBuffer(s)}
#define DECLARE_CONST_UNICODE_STRING(_var, _string) \
  const WCHAR _var##_buffer[] = _string;            \
  const UNICODE_STRING _var = {sizeof(_string) - sizeof(WCHAR), sizeof(_string), (PWCH)_var##_buffer}
#define DECLARE_UNICODE_STRING_SIZE(_var, _size) \
  WCHAR _var##_buffer[_size];                    \
  UNICODE_STRING _var = {0, (_size) * sizeof(WCHAR), _var##_buffer}

// ---------------------------------------------------------------------------------------
// Doubly and singly linked lists, with the integrity checks of the WDK's list helpers: a
// corrupted neighbour link is a fast-fail in Windows; here it is reported by the host
// kernel's verifier (see KvFatalListEntryError).
typedef struct _LIST_ENTRY {
  struct _LIST_ENTRY* Flink;
  struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY, *RESTRICTED_POINTER PRLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
  struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

EXTERN_C DECLSPEC_NORETURN void KvFatalListEntryError(PVOID P1, PVOID P2, PVOID P3);

FORCEINLINE void InitializeListHead(PLIST_ENTRY ListHead) { ListHead->Flink = ListHead->Blink = ListHead; }

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead) { return (BOOLEAN)(ListHead->Flink == ListHead); }

FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
  PLIST_ENTRY Flink = Entry->Flink;
  PLIST_ENTRY Blink = Entry->Blink;
  if (Flink->Blink != Entry || Blink->Flink != Entry) KvFatalListEntryError(Blink, Entry, Flink);
  Blink->Flink = Flink;
  Flink->Blink = Blink;
  return (BOOLEAN)(Flink == Blink);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
  PLIST_ENTRY Entry = ListHead->Flink;
  PLIST_ENTRY Flink = Entry->Flink;
  if (Entry->Blink != ListHead || Flink->Blink != Entry) KvFatalListEntryError(ListHead, Entry, Flink);
  ListHead->Flink = Flink;
  Flink->Blink = ListHead;
  return Entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead) {
  PLIST_ENTRY Entry = ListHead->Blink;
  PLIST_ENTRY Blink = Entry->Blink;
  if (Entry->Flink != ListHead || Blink->Flink != Entry) KvFatalListEntryError(Blink, Entry, ListHead);
  ListHead->Blink = Blink;
  Blink->Flink = ListHead;
  return Entry;
}

FORCEINLINE void InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
  PLIST_ENTRY Blink = ListHead->Blink;
  if (Blink->Flink != ListHead) KvFatalListEntryError(Blink, ListHead, Blink->Flink);
  Entry->Flink = ListHead;
  Entry->Blink = Blink;
  Blink->Flink = Entry;
  ListHead->Blink = Entry;
}

FORCEINLINE void InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
  PLIST_ENTRY Flink = ListHead->Flink;
  if (Flink->Blink != ListHead) KvFatalListEntryError(ListHead, Flink, Flink->Blink);
  Entry->Flink = Flink;
  Entry->Blink = ListHead;
  Flink->Blink = Entry;
  ListHead->Flink = Entry;
}

FORCEINLINE void AppendTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListToAppend) {
  PLIST_ENTRY ListEnd = ListHead->Blink;
  ListHead->Blink->Flink = ListToAppend;
  ListHead->Blink = ListToAppend->Blink;
  ListToAppend->Blink->Flink = ListHead;
  ListToAppend->Blink = ListEnd;
}

FORCEINLINE PSINGLE_LIST_ENTRY PopEntryList(PSINGLE_LIST_ENTRY ListHead) {
  PSINGLE_LIST_ENTRY FirstEntry = ListHead->Next;
  if (FirstEntry != NULL) ListHead->Next = FirstEntry->Next;
  return FirstEntry;
}

FORCEINLINE void PushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY Entry) {
  Entry->Next = ListHead->Next;
  ListHead->Next = Entry;
}

// ---------------------------------------------------------------------------------------
// Object attributes (used by the Zw routines).
typedef struct _OBJECT_ATTRIBUTES {
  ULONG Length;
  HANDLE RootDirectory;
  PUNICODE_STRING ObjectName;
  ULONG Attributes;
  PVOID SecurityDescriptor;
  PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L

#define InitializeObjectAttributes(p, n, a, r, s) \
  do {                                            \
    (p)->Length = sizeof(OBJECT_ATTRIBUTES);      \
    (p)->RootDirectory = (r);                     \
    (p)->Attributes = (a);                        \
    (p)->ObjectName = (n);                        \
    (p)->SecurityDescriptor = (s);                \
    (p)->SecurityQualityOfService = NULL;         \
  } while (0)

// ---------------------------------------------------------------------------------------
// Processor modes and IRQL levels.
typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define CMCI_LEVEL 5
#define CLOCK_LEVEL 13
#define IPI_LEVEL 14
#define POWER_LEVEL 14
#define PROFILE_LEVEL 15
#define HIGH_LEVEL 15

// Access rights.
#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define WRITE_DAC 0x00040000L
#define WRITE_OWNER 0x00080000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define SPECIFIC_RIGHTS_ALL 0x0000FFFFL
#define ACCESS_SYSTEM_SECURITY 0x01000000L
#define MAXIMUM_ALLOWED 0x02000000L
#define GENERIC_READ 0x80000000L
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L

// Pool tags are four characters stored little-endian: 'Cbt0' reads "Cbt0" in a dump.
#define KV_POOL_TAG(a, b, c, d) ((ULONG)(UCHAR)(a) | ((ULONG)(UCHAR)(b) << 8) | ((ULONG)(UCHAR)(c) << 16) | ((ULONG)(UCHAR)(d) << 24))
