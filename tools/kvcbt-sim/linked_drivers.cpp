// The tracking driver is linked in when the build has it (KVSIM_WITH_KVCBT, see
// tools/CMakeLists.txt); the testbed's own test filter is always there.
#include "linked_drivers.h"

#include <wdm.h>

#include "kvtestbed/driver_images.h"

#ifdef KVSIM_WITH_KVCBT
EXTERN_C DRIVER_INITIALIZE DriverEntry;
#endif

namespace kvsim {

void RegisterLinkedDrivers() {
#ifdef KVSIM_WITH_KVCBT
  kvtestbed::RegisterDriverImage(u"kvcbt", DriverEntry);
#endif
}

}  // namespace kvsim
