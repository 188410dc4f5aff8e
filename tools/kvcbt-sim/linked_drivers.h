// The drivers linked into this build of kvcbt-sim, registered as driver images so that a
// scenario can name them as filters (filter kvcbt).
#pragma once

namespace kvsim {

void RegisterLinkedDrivers();

}  // namespace kvsim
