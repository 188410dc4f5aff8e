// Compiles in the kernel-clean mode: the WDK's header names and wide literals.
#include <ntifs.h>
#include <ntddk.h>
#include <wdm.h>

static const WCHAR kName[] = L"\\Device\\HarddiskVolume1";
static_assert(sizeof(kName) == 24 * sizeof(WCHAR), "wide literals are UTF-16");

extern "C" NTSTATUS ProbeEntry(PUNICODE_STRING Name) {
  LIST_ENTRY head;
  InitializeListHead(&head);
  return Name != NULL && IsListEmpty(&head) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}
