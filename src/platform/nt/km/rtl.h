// Run-time library: bitmaps, counted strings, GUID strings, memory compare, version,
// registry query tables.
#pragma once
#include "basetypes.h"
