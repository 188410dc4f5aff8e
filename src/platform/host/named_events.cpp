// Event objects by name and handle, and waits on object handles.
#include "kvhost/named_events.h"

#include "kvhost/object.h"
#include "kvhost/strings.h"
#include "passive_level.h"

namespace {

// The object a name in object attributes leads to, referenced. Without OBJ_CASE_INSENSITIVE
// the name must match exactly.
NTSTATUS LookupByName(POBJECT_ATTRIBUTES attributes, PVOID* object) {
  if (attributes == nullptr || attributes->Length != sizeof(OBJECT_ATTRIBUTES)) return STATUS_INVALID_PARAMETER;
  if (attributes->RootDirectory != nullptr) return STATUS_OBJECT_PATH_SYNTAX_BAD;  // no object directories here
  std::u16string_view name = kvhost::View(attributes->ObjectName);
  if (name.empty() || name.front() != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
  PVOID found = kvhost::ObLookupObjectByName(name);
  if (found != nullptr && !(attributes->Attributes & OBJ_CASE_INSENSITIVE) && kvhost::ObGetObjectName(found) != name) {
    ObDereferenceObject(found);
    found = nullptr;
  }
  if (found == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  if (kvhost::ObGetObjectType(found) != *ExEventObjectType) {
    ObDereferenceObject(found);
    return STATUS_OBJECT_TYPE_MISMATCH;
  }
  *object = found;
  return STATUS_SUCCESS;
}

bool IsWaitable(PVOID object) {
  POBJECT_TYPE type = kvhost::ObGetObjectType(object);
  return type == *ExEventObjectType || type == *ExSemaphoreObjectType || type == *PsThreadType;
}

// Runs `body` on the event behind a handle. Kernel-mode callers' handles are not checked
// for their granted access.
template <typename Body>
NTSTATUS WithEvent(HANDLE handle, Body body) {
  PVOID object = nullptr;
  NTSTATUS status = ObReferenceObjectByHandle(handle, 0, *ExEventObjectType, KernelMode, &object, nullptr);
  if (!NT_SUCCESS(status)) return status;
  body(static_cast<PKEVENT>(object));
  ObDereferenceObject(object);
  return STATUS_SUCCESS;
}

}  // namespace

namespace kvhost {

PKEVENT CreateNamedEvent(std::u16string_view fullName, EVENT_TYPE type, BOOLEAN initialState) {
  auto* event = static_cast<PKEVENT>(ObCreateObject(*ExEventObjectType, sizeof(KEVENT), fullName, ObjectPermanent));
  if (event != nullptr) KeInitializeEvent(event, type, initialState);
  return event;
}

}  // namespace kvhost

extern "C" {

NTSTATUS ZwOpenEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwOpenEvent");
  if (EventHandle == nullptr) return STATUS_INVALID_PARAMETER;
  *EventHandle = nullptr;
  PVOID event = nullptr;
  NTSTATUS status = LookupByName(ObjectAttributes, &event);
  if (!NT_SUCCESS(status)) return status;
  *EventHandle = kvhost::ObCreateHandle(event, DesiredAccess);
  ObDereferenceObject(event);
  return STATUS_SUCCESS;
}

NTSTATUS ZwCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                       EVENT_TYPE EventType, BOOLEAN InitialState) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwCreateEvent");
  if (EventHandle == nullptr || (EventType != NotificationEvent && EventType != SynchronizationEvent))
    return STATUS_INVALID_PARAMETER;
  *EventHandle = nullptr;
  std::u16string_view name;
  ULONG attributes = 0;
  if (ObjectAttributes != nullptr) {
    if (ObjectAttributes->Length != sizeof(OBJECT_ATTRIBUTES)) return STATUS_INVALID_PARAMETER;
    name = kvhost::View(ObjectAttributes->ObjectName);
    attributes = ObjectAttributes->Attributes;
    if (!name.empty() && (ObjectAttributes->RootDirectory != nullptr || name.front() != u'\\'))
      return STATUS_OBJECT_PATH_SYNTAX_BAD;
  }
  unsigned flags = (attributes & OBJ_PERMANENT) ? kvhost::ObjectPermanent : kvhost::ObjectNone;
  auto* event = static_cast<PKEVENT>(kvhost::ObCreateObject(*ExEventObjectType, sizeof(KEVENT), name, flags));
  if (event == nullptr) {
    if (name.empty()) return STATUS_INSUFFICIENT_RESOURCES;
    if (!(attributes & OBJ_OPENIF)) return STATUS_OBJECT_NAME_COLLISION;
    NTSTATUS status = ZwOpenEvent(EventHandle, DesiredAccess, ObjectAttributes);
    return NT_SUCCESS(status) ? STATUS_OBJECT_NAME_EXISTS : status;
  }
  KeInitializeEvent(event, EventType, InitialState);
  *EventHandle = kvhost::ObCreateHandle(event, DesiredAccess);
  if (!(flags & kvhost::ObjectPermanent)) ObDereferenceObject(event);  // the handle keeps it
  return STATUS_SUCCESS;
}

NTSTATUS ZwSetEvent(HANDLE EventHandle, PLONG PreviousState) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwSetEvent");
  return WithEvent(EventHandle, [&](PKEVENT event) {
    LONG previous = KeSetEvent(event, 0, FALSE);
    if (PreviousState != nullptr) *PreviousState = previous;
  });
}

NTSTATUS ZwClearEvent(HANDLE EventHandle) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwClearEvent");
  return WithEvent(EventHandle, [](PKEVENT event) { KeClearEvent(event); });
}

NTSTATUS ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwWaitForSingleObject");
  PVOID object = nullptr;
  NTSTATUS status = ObReferenceObjectByHandle(Handle, SYNCHRONIZE, nullptr, KernelMode, &object, nullptr);
  if (!NT_SUCCESS(status)) return status;
  status = IsWaitable(object) ? KeWaitForSingleObject(object, Executive, KernelMode, Alertable, Timeout)
                              : STATUS_OBJECT_TYPE_MISMATCH;
  ObDereferenceObject(object);
  return status;
}

}  // extern "C"
