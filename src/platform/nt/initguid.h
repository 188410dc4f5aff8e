// Every DEFINE_GUID is already an inline definition (see km/basetypes.h); including this
// header first, as WDK drivers do, changes nothing.
#pragma once
#include "km/basetypes.h"
#ifndef INITGUID
#define INITGUID
#endif
