// Names of what passes between the machine and its drivers, for messages and reports:
// "STATUS_MEDIA_WRITE_PROTECTED", "IOCTL_VOLUME_ONLINE", "IRP_MN_START_DEVICE",
// "GUID_IO_VOLUME_MOUNT". An unknown value is given in hexadecimal.
#pragma once

#include <wdm.h>

#include <optional>
#include <string>
#include <string_view>

namespace kvtestbed {

std::string StatusName(NTSTATUS status);
// The status named (as StatusName gives it), or a hexadecimal value ("0xC0000022").
std::optional<NTSTATUS> ParseStatus(std::string_view text);

std::string ControlCodeName(ULONG code);
std::optional<ULONG> ParseControlCode(std::string_view text);

std::string PnpMinorName(UCHAR minor);
std::string PowerMinorName(UCHAR minor);
std::string SystemPowerStateName(SYSTEM_POWER_STATE state);

// Target-device and device-interface events.
std::string EventName(const GUID& event);

// "{71A27CDD-812A-11D0-BEC7-08002BE2092F}", upper case with braces, as Windows writes it.
std::string GuidText(const GUID& guid);
std::u16string GuidText16(const GUID& guid);

}  // namespace kvtestbed
