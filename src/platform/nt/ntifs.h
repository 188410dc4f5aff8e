// The kernel API available to file-system and file-system-filter drivers: everything of
// ntddk.h plus file-system control codes, file information classes and the FsRtl routines.
#pragma once
#include "ntddk.h"
#include "km/fs.h"
