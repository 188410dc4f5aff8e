// The mount manager's links: the volume's drive letter and its volume GUID name.
//
// The mount manager tells a volume each name it gives it (IOCTL_MOUNTDEV_LINK_CREATED) or
// takes away (IOCTL_MOUNTDEV_LINK_DELETED). The driver keeps the drive letter, which names
// the volume in records and marks the system volume, and the volume GUID name, from which
// the tracking file's path is built. Both are recorded before the lower driver sees the
// request, whatever it answers; the requests themselves are never refused here.
#include <mountdev.h>

#include "control/cbt_control_handlers.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_removal_protection.h"
#include "log/cbt_event_log.h"

namespace {

// "\DosDevices\X:": 14 code units.
constexpr WCHAR kDosDevicesPrefix[] = L"\\DosDevices\\";
constexpr ULONG kDosDevicesPrefixChars = (sizeof(kDosDevicesPrefix) / sizeof(WCHAR)) - 1;
constexpr USHORT kDriveLetterLinkBytes = (kDosDevicesPrefixChars + 2) * sizeof(WCHAR);

// "\??\Volume{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}": 48 code units, and one more for the
// form with a trailing backslash.
constexpr USHORT kGuidLinkBytes = 48 * sizeof(WCHAR);
constexpr USHORT kGuidLinkWithSeparatorBytes = 49 * sizeof(WCHAR);
constexpr WCHAR kVolumePrefix[] = L"Volume{";
constexpr ULONG kVolumePrefixChars = (sizeof(kVolumePrefix) / sizeof(WCHAR)) - 1;
constexpr ULONG kVolumePrefixAt = 4;
constexpr ULONG kGuidHyphensAt[] = {19, 24, 29, 34};
constexpr ULONG kGuidCloseAt = 47;

// The link name a request carries, cut to what its input holds: the mount manager's
// NameLength is believed only as far as the system buffer really reaches, so a short input
// can never be read past its end.
struct LinkName {
  PCWCH Chars;      // NULL when the request carries no name
  USHORT Length;    // bytes, as the name says
  ULONG Available;  // code units actually present in the input
};

LinkName ReadLinkName(PIRP Irp) {
  LinkName name = {NULL, 0, 0};
  const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  const ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
  const auto* mountName = static_cast<const MOUNTDEV_NAME*>(Irp->AssociatedIrp.SystemBuffer);
  if (mountName == NULL || inputLength < sizeof(USHORT)) return name;
  name.Chars = mountName->Name;
  name.Length = mountName->NameLength;
  const ULONG present = (inputLength - FIELD_OFFSET(MOUNTDEV_NAME, Name)) / sizeof(WCHAR);
  const ULONG stated = name.Length / sizeof(WCHAR);
  name.Available = present < stated ? present : stated;
  return name;
}

// The code unit at Index, or 0 when the input does not hold it.
WCHAR CharAt(const LinkName& Name, ULONG Index) { return Index < Name.Available ? Name.Chars[Index] : 0; }

bool HasTextAt(const LinkName& Name, ULONG Index, PCWCH Text, ULONG Chars) {
  for (ULONG i = 0; i < Chars; ++i)
    if (CharAt(Name, Index + i) != Text[i]) return false;
  return true;
}

// The letter of a drive-letter link ('A' to 'Z', upper case only), or 0.
WCHAR DriveLetterOf(const LinkName& Name) {
  if (Name.Length != kDriveLetterLinkBytes) return 0;
  if (!HasTextAt(Name, 0, kDosDevicesPrefix, kDosDevicesPrefixChars)) return 0;
  const WCHAR letter = CharAt(Name, kDosDevicesPrefixChars);
  if (letter < L'A' || letter > L'Z' || CharAt(Name, kDosDevicesPrefixChars + 1) != L':') return 0;
  return letter;
}

// A volume GUID link, "\??\Volume{...}" or "\\?\Volume{...}", with or without a trailing
// backslash; its whole name must be in the input.
bool IsVolumeGuidLink(const LinkName& Name) {
  if (Name.Length != kGuidLinkBytes &&
      !(Name.Length == kGuidLinkWithSeparatorBytes && CharAt(Name, 48) == L'\\'))
    return false;
  if (Name.Available * sizeof(WCHAR) < Name.Length) return false;
  if (CharAt(Name, 0) != L'\\' || (CharAt(Name, 1) != L'?' && CharAt(Name, 1) != L'\\') || CharAt(Name, 2) != L'?' ||
      CharAt(Name, 3) != L'\\')
    return false;
  if (!HasTextAt(Name, kVolumePrefixAt, kVolumePrefix, kVolumePrefixChars)) return false;
  for (ULONG at : kGuidHyphensAt)
    if (CharAt(Name, at) != L'-') return false;
  return CharAt(Name, kGuidCloseAt) == L'}';
}

// Hands the request to the volume below and waits for it, then completes it with the
// lower driver's status. Nothing here touched the disk: no priority boost.
NTSTATUS ForwardAndComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG FlagOnSuccess) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  IoForwardIrpSynchronously(extension->LowerDeviceObject, Irp);
  const NTSTATUS status = Irp->IoStatus.Status;
  if (NT_SUCCESS(status) && FlagOnSuccess != 0) CbtSetFlags(extension, FlagOnSuccess);
  CbtReleaseRemovalProtection(DeviceObject);
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return status;
}

}  // namespace

NTSTATUS CbtMountDevLinkCreated(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  const LinkName name = ReadLinkName(Irp);
  const WCHAR letter = DriveLetterOf(name);
  if (letter != 0) {
    extension->DriveLetter = letter;
    CBT_LOG_VOLUME(extension, "CbtMountDevLinkCreated", STATUS_SUCCESS);
    // The system volume carries the debug log; its writer starts once the volume has its
    // letter, and runs whether or not it could start (its own records say why not).
    if (letter == L'C' && CbtEventLog.Enabled != 0) CbtStartLogWriter(&CbtEventLog, extension->LowerDeviceObject);
  } else if (IsVolumeGuidLink(name)) {
    RtlCopyMemory(extension->VolumeGuidNameBuffer, name.Chars, name.Length);
    // The trailing backslash of the longer form is kept in the buffer but is not part of
    // the name: the tracking file's path is built on the bare volume name.
    extension->VolumeGuidName.Length = kGuidLinkBytes;
    extension->VolumeGuidName.MaximumLength = kGuidLinkBytes;
    CBT_LOG_VOLUME(extension, "CbtMountDevLinkCreated", STATUS_SUCCESS);
  }
  return ForwardAndComplete(DeviceObject, Irp, CBT_FLAG_MOUNT_LINK);
}

NTSTATUS CbtMountDevLinkDeleted(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  const WCHAR letter = DriveLetterOf(ReadLinkName(Irp));
  if (letter != 0 && letter == extension->DriveLetter) {
    extension->DriveLetter = static_cast<WCHAR>(CBT_LOG_NO_DRIVE_LETTER);
    CBT_LOG_VOLUME(extension, "CbtMountDevLinkDeleted", STATUS_SUCCESS);
  }
  return ForwardAndComplete(DeviceObject, Irp, 0);
}
