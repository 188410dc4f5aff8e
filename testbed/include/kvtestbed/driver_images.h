// The driver images a machine can load, by service name.
//
// A service names its image; the machine looks the entry point up here when it loads the
// service. The testbed's own test filter is registered as "passthrough". A program that links
// the real driver registers it once, before building machines:
//
//   kvtestbed::RegisterDriverImage(u"kvcbt", DriverEntry);
#pragma once

#include <wdm.h>

#include <string>
#include <string_view>
#include <vector>

namespace kvtestbed {

// Registers (or replaces) the image of `serviceName`.
void RegisterDriverImage(std::u16string_view serviceName, PDRIVER_INITIALIZE entry);
// The entry point of the image, or null when none is registered.
PDRIVER_INITIALIZE FindDriverImage(std::u16string_view serviceName);
// Registered service names, in order of their upper-case spelling.
std::vector<std::u16string> DriverImageNames();

}  // namespace kvtestbed
