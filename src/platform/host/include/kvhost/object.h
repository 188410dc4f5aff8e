// The host object manager, as the rest of the user-mode kernel and the testbed use it.
//
// An object is a body with a header in front of it. The body pointer is what the driver
// sees (a PDEVICE_OBJECT, a PKEVENT, a PETHREAD ...); the header holds the type, the
// reference count, the handle count and the full name. Named objects live in one namespace
// keyed by full path ("\Device\HarddiskVolume1", "\BaseNamedObjects\X"), compared without
// regard to case as Windows' object directories do.
//
// At the end of each test every object still alive and every handle still open is
// reported (objects the machine keeps on purpose are created Permanent and are not).
#pragma once

#include <wdm.h>

#include <string>
#include <string_view>
#include <vector>

// The object type record behind POBJECT_TYPE.
struct _OBJECT_TYPE {
  const char* Name;
  // Called once when the last reference goes, before the memory is released. May be null.
  void (*DeleteProcedure)(PVOID Body);
  // Called when a handle to the object is closed, with the handle count left. May be null.
  void (*CloseProcedure)(PVOID Body, ULONG HandleCountLeft);
};

namespace kvhost {

// Plain UTF-16 text, the host's view of a counted string.
using WString = std::u16string;
WString ToWString(const UNICODE_STRING* s);
WString ToWString(std::string_view ascii);
std::string ToUtf8(std::u16string_view s);
std::string ToUtf8(const UNICODE_STRING* s);

enum ObjectFlags : unsigned {
  ObjectNone = 0,
  // Kept by the machine on purpose (for example the boot events); not reported as left
  // behind at the end of a test, deleted only by DeleteAllObjects.
  ObjectPermanent = 1,
};

// Creates an object of `type` with a zeroed body of `bodySize` bytes (8-byte aligned) and
// one reference. A non-empty `fullName` inserts it into the namespace; a name that is
// already taken gives nullptr.
PVOID ObCreateObject(POBJECT_TYPE type, size_t bodySize, std::u16string_view fullName = {},
                     unsigned flags = ObjectNone);

// Gives the object a name (or a new one); an empty name takes it out of the namespace.
// Returns false when the name is taken by another object.
bool ObSetObjectName(PVOID body, std::u16string_view fullName);

// The object's full name, empty when unnamed.
WString ObGetObjectName(PVOID body);

POBJECT_TYPE ObGetObjectType(PVOID body);
LONG_PTR ObGetReferenceCount(PVOID body);
ULONG ObGetHandleCount(PVOID body);
bool ObIsObject(PVOID body);

// Looks a named object up and returns it referenced, or nullptr. `type` null matches any.
PVOID ObLookupObjectByName(std::u16string_view fullName, POBJECT_TYPE type = nullptr);

// Opens a kernel handle to the object (takes a reference held by the handle).
HANDLE ObCreateHandle(PVOID body, ACCESS_MASK access = 0);

// Closes a handle: STATUS_INVALID_HANDLE for a handle that is not open.
NTSTATUS ObCloseHandle(HANDLE handle);

// The object behind a handle, not referenced; nullptr when the handle is not open.
PVOID ObObjectFromHandle(HANDLE handle);

// Makes the `nth` call of ObQueryNameString from now (1 = the next) return `status` and
// write nothing: a query that fails for a reason other than the size of its buffer, or,
// with a success status, one that finds no name to give. A new call replaces the previous
// one; 0 cancels. Cleared at the start of every test.
void ObFailNameQuery(unsigned nth, NTSTATUS status);

// A line per object still alive (type, name, references, handles), permanent ones excluded.
std::vector<std::string> ObDescribeLiveObjects();

// Frees every object and handle, permanent ones included (used between tests and when a
// machine is torn down).
void DeleteAllObjects();

}  // namespace kvhost
