// The kernel's export table as MmGetSystemRoutineAddress sees it. The run-time library,
// registry and debug-output routines are exported from the start; other areas of the host
// kernel add theirs with ExportSystemRoutine. A test or the machine can hide a routine to
// play an older Windows release that lacks it; hidden routines come back at the start of
// each test.
#pragma once

#include <string_view>

namespace kvhost {

void ExportSystemRoutine(std::string_view name, void* address);

// MmGetSystemRoutineAddress returns NULL for the routine until ShowSystemRoutine or the
// next test.
void HideSystemRoutine(std::string_view name);
void ShowSystemRoutine(std::string_view name);

}  // namespace kvhost
