// The host object manager: object headers, references, the kernel handle table and the
// object namespace.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <unordered_map>
#include <unordered_set>

#include "kvhost/object.h"
#include "kvhost/strings.h"
#include "kvhost/verifier.h"

namespace {

constexpr unsigned long long kHeaderMagic = 0x4A424F5654534F48ULL;  // "HOSTVOBJ"
constexpr unsigned long long kDeadMagic = 0x4441454454534F48ULL;    // "HOSTDEAD"

struct alignas(16) ObjectHeader {
  unsigned long long Magic;
  POBJECT_TYPE Type;
  std::atomic<long long> References;
  std::atomic<unsigned> Handles;
  unsigned Flags;
  kvhost::WString Name;  // full name, empty when unnamed
};
static_assert(sizeof(ObjectHeader) % 16 == 0, "bodies stay 16-byte aligned");

ObjectHeader* HeaderOf(PVOID body) { return reinterpret_cast<ObjectHeader*>(body) - 1; }
PVOID BodyOf(ObjectHeader* header) { return header + 1; }

// Object directories compare names without regard to case, with the kernel's case table.
kvhost::WString FoldCase(std::u16string_view s) { return kvhost::UpcaseText(s); }

struct HandleEntry {
  PVOID Body;
  ACCESS_MASK Access;
};

struct ObjectManager {
  std::mutex Lock;
  std::unordered_set<ObjectHeader*> Live;
  std::map<kvhost::WString, ObjectHeader*> Namespace;  // folded name -> object
  std::unordered_map<ULONG_PTR, HandleEntry> Handles;
  ULONG_PTR NextHandle = 4;
};

// The name query a test made fail: how many calls are still to pass before it, and what it
// returns.
std::atomic<unsigned> g_nameQueryCountdown{0};
std::atomic<NTSTATUS> g_nameQueryStatus{STATUS_SUCCESS};

// TRUE, with the status to return, when this call is the one a test made fail.
bool TakeNameQueryFault(NTSTATUS* status) {
  unsigned left = g_nameQueryCountdown.load();
  while (left != 0)
    if (g_nameQueryCountdown.compare_exchange_weak(left, left - 1)) {
      if (left != 1) return false;
      *status = g_nameQueryStatus.load();
      return true;
    }
  return false;
}

ObjectManager& Om() {
  static ObjectManager* om = new ObjectManager;  // outlives late worker threads
  return *om;
}

// Kernel handles have the top bit set, as in Windows (OBJ_KERNEL_HANDLE handles are
// negative when read as pointers).
constexpr ULONG_PTR kKernelHandleBit = 0xFFFFFFFF80000000ULL;

HANDLE MakeHandle(ULONG_PTR index) { return reinterpret_cast<HANDLE>(kKernelHandleBit | index); }

bool HandleIndex(HANDLE handle, ULONG_PTR* index) {
  ULONG_PTR value = reinterpret_cast<ULONG_PTR>(handle);
  if ((value & kKernelHandleBit) != kKernelHandleBit) return false;
  *index = value & ~kKernelHandleBit;
  return true;
}

bool CheckHeader(PVOID body, const char* routine) {
  if (body == nullptr) {
    kvhost::ReportViolationF("ObjectNullPointer", "%s called with a NULL object", routine);
    return false;
  }
  ObjectHeader* h = HeaderOf(body);
  if (h->Magic == kDeadMagic) {
    kvhost::ReportViolationF("ObjectUseAfterDelete", "%s on object %p that was already deleted", routine, body);
    return false;
  }
  if (h->Magic != kHeaderMagic) {
    kvhost::ReportViolationF("ObjectNotAnObject", "%s on %p, which is not a kernel object", routine, body);
    return false;
  }
  return true;
}

void DestroyObject(ObjectHeader* h) {
  {
    ObjectManager& om = Om();
    std::lock_guard<std::mutex> guard(om.Lock);
    if (!h->Name.empty()) {
      auto it = om.Namespace.find(FoldCase(h->Name));
      if (it != om.Namespace.end() && it->second == h) om.Namespace.erase(it);
    }
    om.Live.erase(h);
  }
  if (h->Type != nullptr && h->Type->DeleteProcedure != nullptr) h->Type->DeleteProcedure(BodyOf(h));
  h->Magic = kDeadMagic;
  h->~ObjectHeader();
  std::free(h);
}

_OBJECT_TYPE ThreadTypeRecord{"Thread", nullptr, nullptr};
_OBJECT_TYPE EventTypeRecord{"Event", nullptr, nullptr};
_OBJECT_TYPE SemaphoreTypeRecord{"Semaphore", nullptr, nullptr};
_OBJECT_TYPE FileTypeRecord{"File", nullptr, nullptr};
_OBJECT_TYPE DeviceTypeRecord{"Device", nullptr, nullptr};
_OBJECT_TYPE DriverTypeRecord{"Driver", nullptr, nullptr};
_OBJECT_TYPE KeyTypeRecord{"Key", nullptr, nullptr};

POBJECT_TYPE ThreadType = &ThreadTypeRecord;
POBJECT_TYPE EventType = &EventTypeRecord;
POBJECT_TYPE SemaphoreType = &SemaphoreTypeRecord;
POBJECT_TYPE FileType = &FileTypeRecord;
POBJECT_TYPE DeviceType = &DeviceTypeRecord;
POBJECT_TYPE DriverType = &DriverTypeRecord;
POBJECT_TYPE KeyType = &KeyTypeRecord;

}  // namespace

extern "C" {
POBJECT_TYPE* PsThreadType = &ThreadType;
POBJECT_TYPE* ExEventObjectType = &EventType;
POBJECT_TYPE* ExSemaphoreObjectType = &SemaphoreType;
POBJECT_TYPE* IoFileObjectType = &FileType;
POBJECT_TYPE* IoDeviceObjectType = &DeviceType;
POBJECT_TYPE* IoDriverObjectType = &DriverType;
POBJECT_TYPE* CmKeyObjectType = &KeyType;
}

namespace kvhost {

WString ToWString(const UNICODE_STRING* s) {
  if (s == nullptr || s->Buffer == nullptr) return {};
  return WString(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR));
}

WString ToWString(std::string_view ascii) {
  WString out;
  out.reserve(ascii.size());
  for (unsigned char c : ascii) out.push_back(static_cast<char16_t>(c));
  return out;
}

std::string ToUtf8(std::u16string_view s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    unsigned cp = s[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 && s[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
      ++i;
    }
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
      out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
  }
  return out;
}

std::string ToUtf8(const UNICODE_STRING* s) { return ToUtf8(ToWString(s)); }

PVOID ObCreateObject(POBJECT_TYPE type, size_t bodySize, std::u16string_view fullName, unsigned flags) {
  void* memory = std::aligned_alloc(16, (sizeof(ObjectHeader) + bodySize + 15) / 16 * 16);
  if (memory == nullptr) return nullptr;
  auto* h = new (memory) ObjectHeader;
  h->Magic = kHeaderMagic;
  h->Type = type;
  h->References.store(1);
  h->Handles.store(0);
  h->Flags = flags;
  std::memset(BodyOf(h), 0, bodySize);
  ObjectManager& om = Om();
  std::lock_guard<std::mutex> guard(om.Lock);
  if (!fullName.empty()) {
    WString key = FoldCase(fullName);
    if (om.Namespace.count(key) != 0) {
      h->~ObjectHeader();
      std::free(memory);
      return nullptr;
    }
    h->Name = WString(fullName);
    om.Namespace.emplace(std::move(key), h);
  }
  om.Live.insert(h);
  return BodyOf(h);
}

bool ObSetObjectName(PVOID body, std::u16string_view fullName) {
  if (!CheckHeader(body, "ObSetObjectName")) return false;
  ObjectHeader* h = HeaderOf(body);
  ObjectManager& om = Om();
  std::lock_guard<std::mutex> guard(om.Lock);
  WString key = FoldCase(fullName);
  if (!fullName.empty()) {
    auto it = om.Namespace.find(key);
    if (it != om.Namespace.end() && it->second != h) return false;
  }
  if (!h->Name.empty()) om.Namespace.erase(FoldCase(h->Name));
  h->Name = WString(fullName);
  if (!fullName.empty()) om.Namespace[key] = h;
  return true;
}

WString ObGetObjectName(PVOID body) {
  if (!CheckHeader(body, "ObGetObjectName")) return {};
  std::lock_guard<std::mutex> guard(Om().Lock);
  return HeaderOf(body)->Name;
}

POBJECT_TYPE ObGetObjectType(PVOID body) { return CheckHeader(body, "ObGetObjectType") ? HeaderOf(body)->Type : nullptr; }

LONG_PTR ObGetReferenceCount(PVOID body) {
  return CheckHeader(body, "ObGetReferenceCount") ? HeaderOf(body)->References.load() : 0;
}

ULONG ObGetHandleCount(PVOID body) { return CheckHeader(body, "ObGetHandleCount") ? HeaderOf(body)->Handles.load() : 0; }

bool ObIsObject(PVOID body) {
  if (body == nullptr) return false;
  std::lock_guard<std::mutex> guard(Om().Lock);
  return Om().Live.count(HeaderOf(body)) != 0;
}

PVOID ObLookupObjectByName(std::u16string_view fullName, POBJECT_TYPE type) {
  ObjectManager& om = Om();
  std::lock_guard<std::mutex> guard(om.Lock);
  auto it = om.Namespace.find(FoldCase(fullName));
  if (it == om.Namespace.end()) return nullptr;
  if (type != nullptr && it->second->Type != type) return nullptr;
  it->second->References.fetch_add(1);
  return BodyOf(it->second);
}

HANDLE ObCreateHandle(PVOID body, ACCESS_MASK access) {
  if (!CheckHeader(body, "ObCreateHandle")) return nullptr;
  ObjectHeader* h = HeaderOf(body);
  h->References.fetch_add(1);
  h->Handles.fetch_add(1);
  ObjectManager& om = Om();
  std::lock_guard<std::mutex> guard(om.Lock);
  ULONG_PTR index = om.NextHandle;
  om.NextHandle += 4;
  om.Handles.emplace(index, HandleEntry{body, access});
  return MakeHandle(index);
}

NTSTATUS ObCloseHandle(HANDLE handle) {
  ULONG_PTR index = 0;
  PVOID body = nullptr;
  {
    ObjectManager& om = Om();
    std::lock_guard<std::mutex> guard(om.Lock);
    auto it = HandleIndex(handle, &index) ? om.Handles.find(index) : om.Handles.end();
    if (it == om.Handles.end()) return STATUS_INVALID_HANDLE;
    body = it->second.Body;
    om.Handles.erase(it);
  }
  ObjectHeader* h = HeaderOf(body);
  ULONG left = h->Handles.fetch_sub(1) - 1;
  if (h->Type != nullptr && h->Type->CloseProcedure != nullptr) h->Type->CloseProcedure(body, left);
  ObfDereferenceObject(body);
  return STATUS_SUCCESS;
}

PVOID ObObjectFromHandle(HANDLE handle) {
  ULONG_PTR index = 0;
  if (!HandleIndex(handle, &index)) return nullptr;
  ObjectManager& om = Om();
  std::lock_guard<std::mutex> guard(om.Lock);
  auto it = om.Handles.find(index);
  return it == om.Handles.end() ? nullptr : it->second.Body;
}

void ObFailNameQuery(unsigned nth, NTSTATUS status) {
  g_nameQueryStatus.store(status);
  g_nameQueryCountdown.store(nth);
}

std::vector<std::string> ObDescribeLiveObjects() {
  std::vector<std::string> out;
  ObjectManager& om = Om();
  std::lock_guard<std::mutex> guard(om.Lock);
  for (ObjectHeader* h : om.Live) {
    if (h->Flags & ObjectPermanent) continue;
    char line[256];
    std::snprintf(line, sizeof line, "%s object %p \"%s\" still has %lld reference(s) and %u handle(s)",
                  h->Type ? h->Type->Name : "untyped", BodyOf(h), ToUtf8(h->Name).c_str(), h->References.load(),
                  h->Handles.load());
    out.push_back(line);
  }
  for (const auto& [index, entry] : om.Handles) {
    ObjectHeader* h = HeaderOf(entry.Body);
    if (h->Flags & ObjectPermanent) continue;
    char line[200];
    std::snprintf(line, sizeof line, "handle %p to %s object \"%s\" was never closed", MakeHandle(index),
                  h->Type ? h->Type->Name : "untyped", ToUtf8(h->Name).c_str());
    out.push_back(line);
  }
  return out;
}

void DeleteAllObjects() {
  std::vector<ObjectHeader*> victims;
  {
    ObjectManager& om = Om();
    std::lock_guard<std::mutex> guard(om.Lock);
    om.Handles.clear();
    om.Namespace.clear();
    victims.assign(om.Live.begin(), om.Live.end());
    om.Live.clear();
  }
  // Type delete procedures are not run: they may expect a consistent machine, which a
  // forced teardown no longer is. The memory is released.
  for (ObjectHeader* h : victims) {
    h->Magic = kDeadMagic;
    h->~ObjectHeader();
    std::free(h);
  }
}

}  // namespace kvhost

extern "C" {

LONG_PTR ObfReferenceObject(PVOID Object) {
  if (!CheckHeader(Object, "ObReferenceObject")) return 0;
  ObjectHeader* h = HeaderOf(Object);
  long long before = h->References.fetch_add(1);
  if (before <= 0)
    kvhost::ReportViolationF("ObjectReferenceAfterZero", "ObReferenceObject on %s object %p whose count was %lld",
                             h->Type ? h->Type->Name : "untyped", Object, before);
  return before + 1;
}

LONG_PTR ObfDereferenceObject(PVOID Object) {
  if (!CheckHeader(Object, "ObDereferenceObject")) return 0;
  ObjectHeader* h = HeaderOf(Object);
  long long after = h->References.fetch_sub(1) - 1;
  if (after < 0) {
    // Windows: bug check 0x18, REFERENCE_BY_POINTER.
    kvhost::ReportViolationF("ObjectReferenceUnderflow", "ObDereferenceObject took %s object %p \"%s\" below zero",
                             h->Type ? h->Type->Name : "untyped", Object, kvhost::ToUtf8(h->Name).c_str());
    return after;
  }
  if (after == 0) DestroyObject(h);
  return after;
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation) {
  if (Object == nullptr) return STATUS_INVALID_PARAMETER;
  *Object = nullptr;
  ULONG_PTR index = 0;
  ObjectManager& om = Om();
  std::lock_guard<std::mutex> guard(om.Lock);
  auto it = HandleIndex(Handle, &index) ? om.Handles.find(index) : om.Handles.end();
  if (it == om.Handles.end()) return STATUS_INVALID_HANDLE;
  ObjectHeader* h = HeaderOf(it->second.Body);
  if (ObjectType != nullptr && h->Type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
  h->References.fetch_add(1);
  *Object = it->second.Body;
  if (HandleInformation != nullptr) {
    HandleInformation->HandleAttributes = OBJ_KERNEL_HANDLE;
    HandleInformation->GrantedAccess = it->second.Access;
  }
  return STATUS_SUCCESS;
}

NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                    KPROCESSOR_MODE AccessMode) {
  if (!CheckHeader(Object, "ObReferenceObjectByPointer")) return STATUS_INVALID_PARAMETER;
  if (ObjectType != nullptr && HeaderOf(Object)->Type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
  HeaderOf(Object)->References.fetch_add(1);
  return STATUS_SUCCESS;
}

NTSTATUS ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo, ULONG Length,
                           PULONG ReturnLength) {
  if (!CheckHeader(Object, "ObQueryNameString")) return STATUS_INVALID_PARAMETER;
  NTSTATUS injected;
  if (TakeNameQueryFault(&injected)) return injected;
  kvhost::WString name = kvhost::ObGetObjectName(Object);
  ULONG nameBytes = static_cast<ULONG>(name.size() * sizeof(WCHAR));
  ULONG needed = sizeof(OBJECT_NAME_INFORMATION) + (name.empty() ? 0 : nameBytes + sizeof(WCHAR));
  if (ReturnLength != nullptr) *ReturnLength = needed;
  if (Length < needed || ObjectNameInfo == nullptr) return STATUS_INFO_LENGTH_MISMATCH;
  if (name.empty()) {
    ObjectNameInfo->Name.Length = 0;
    ObjectNameInfo->Name.MaximumLength = 0;
    ObjectNameInfo->Name.Buffer = nullptr;
    return STATUS_SUCCESS;
  }
  auto* text = reinterpret_cast<PWCH>(ObjectNameInfo + 1);
  std::memcpy(text, name.data(), nameBytes);
  text[name.size()] = 0;
  ObjectNameInfo->Name.Buffer = text;
  ObjectNameInfo->Name.Length = static_cast<USHORT>(nameBytes);
  ObjectNameInfo->Name.MaximumLength = static_cast<USHORT>(nameBytes + sizeof(WCHAR));
  return STATUS_SUCCESS;
}

NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PVOID PassedAccessState,
                               ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                               PHANDLE Handle) {
  if (Handle == nullptr || !CheckHeader(Object, "ObOpenObjectByPointer")) return STATUS_INVALID_PARAMETER;
  if (ObjectType != nullptr && HeaderOf(Object)->Type != ObjectType) return STATUS_OBJECT_TYPE_MISMATCH;
  *Handle = kvhost::ObCreateHandle(Object, DesiredAccess);
  return STATUS_SUCCESS;
}

}  // extern "C"

namespace {

// At the start of a test the namespace is empty; at its end every object still alive and
// every handle still open is reported, then released so the next test starts clean.
const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "object manager",
      .Order = 100,  // after the subsystems whose teardown releases objects
      .Reset =
          [] {
            kvhost::DeleteAllObjects();
            kvhost::ObFailNameQuery(0, STATUS_SUCCESS);
          },
      .Quiesce = nullptr,
      .Check =
          [](std::vector<std::string>& problems) {
            for (std::string& line : kvhost::ObDescribeLiveObjects()) problems.push_back(std::move(line));
          },
  });
  return true;
}();

}  // namespace

extern "C" NTSTATUS ZwClose(HANDLE Handle) {
  if (KeGetCurrentIrql() != PASSIVE_LEVEL)
    kvhost::ReportViolationF("ZwCloseIrql", "ZwClose of handle %p at IRQL %u (PASSIVE_LEVEL required)", Handle,
                             KeGetCurrentIrql());
  NTSTATUS status = kvhost::ObCloseHandle(Handle);
  // Driver Verifier flags closing a kernel handle that is not open.
  if (status == STATUS_INVALID_HANDLE)
    kvhost::ReportViolationF("InvalidHandleClose", "ZwClose of handle %p, which is not open", Handle);
  return status;
}
