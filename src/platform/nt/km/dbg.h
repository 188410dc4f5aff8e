// Debug output: DbgPrintEx and its component and level identifiers.
#pragma once
#include "basetypes.h"
