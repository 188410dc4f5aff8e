// I/O manager: driver and device objects, IRPs and stack locations, MDLs, work items,
// completion, Plug and Play and shutdown registrations.
#pragma once
#include "ex.h"
#include "ob.h"
