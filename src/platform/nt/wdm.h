// The WDM kernel API as the driver sees it. Each area lives in its own header under km/;
// this file only gathers them, so that a driver source includes <wdm.h> as it would with
// the WDK.
#pragma once
#include "km/basetypes.h"
#include "ntstatus.h"
#include "km/ke.h"
#include "km/ex.h"
#include "km/rtl.h"
#include "km/system_routines.h"
#include "km/ob.h"
#include "km/mm.h"
#include "km/io.h"
#include "km/zw.h"
#include "km/dbg.h"
