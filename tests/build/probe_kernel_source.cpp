// Compiles in the kernel-clean mode: the WDK's header names and wide literals.
#include <ntifs.h>
#include <ntddk.h>
#include <wdm.h>
#include <ntstrsafe.h>
#include <initguid.h>
#include <wdmguid.h>
#include <ioevent.h>

static const WCHAR kName[] = L"\\Device\\HarddiskVolume1";
static_assert(sizeof(kName) == 24 * sizeof(WCHAR), "wide literals are UTF-16");

static UNICODE_STRING kConstant = RTL_CONSTANT_STRING(L"\\Device\\X");
static ANSI_STRING kAnsi = RTL_CONSTANT_STRING("x");

extern "C" NTSTATUS ProbeEntry(PUNICODE_STRING Name) {
  (void)kConstant;
  (void)kAnsi;
  LIST_ENTRY head;
  InitializeListHead(&head);
  return Name != NULL && IsListEmpty(&head) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}
