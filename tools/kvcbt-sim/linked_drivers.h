// The drivers linked into this build of kvcbt-sim, registered as driver images so that a
// scenario can name them as filters (filter kvcbt), and what the simulator reads of the
// tracking driver from outside it.
#pragma once

#include <wdm.h>

#include <optional>
#include <string>
#include <vector>

#include "bitmap_view.h"
#include "kvtestbed/machine.h"

namespace kvsim {

void RegisterLinkedDrivers();

// The tracking driver's records queued since the last call, in words, oldest first; they are
// taken off the queue as its log writer would take them. Empty while the machine has the
// driver not loaded (its queue then does not exist).
std::vector<std::string> TakeDriverRecords(const kvtestbed::Machine& machine);

// Whether the tracking driver has a filter device in the stack whose bottom is `volume`.
bool DriverFiltersVolume(PDEVICE_OBJECT volume);

// The bitmap geometry the tracking driver gave the volume whose stack's bottom is `volume`,
// read from its volume record: what the tracking-information query answers once the
// volume's tracking file exists. None when the driver does not filter the volume or gave it
// no bitmap.
std::optional<kvtools::BitmapGeometry> DriverBitmapGeometry(PDEVICE_OBJECT volume);

}  // namespace kvsim
