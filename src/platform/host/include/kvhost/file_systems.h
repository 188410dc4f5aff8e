// The I/O manager's file-system registrations and mounts, as the machine drives them.
//
// File systems register with IoRegisterFileSystem; a volume (a device of a disk, CD-ROM,
// tape or virtual-disk type, which has a VPB) is mounted at the first open that needs its
// file system (ZwCreateFile of a path on it, or of the volume itself for more than
// attributes) or when the machine asks. At the end of a test a file system still registered
// is reported.
#pragma once

#include <ntifs.h>

#include <cstddef>

namespace kvhost {

// Mounts the volume of `device` now, as its first open would: STATUS_SUCCESS when mounted
// (or already), STATUS_UNRECOGNIZED_VOLUME when no registered file system takes it, or the
// failure of the file system that tried (for example STATUS_FVE_LOCKED_VOLUME).
NTSTATUS IoMountVolume(PDEVICE_OBJECT device);

size_t IoCountRegisteredFileSystems();

// Power loss: the registrations are forgotten without calling anyone.
void IoForgetFileSystems();

}  // namespace kvhost
