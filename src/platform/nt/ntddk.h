// The kernel API available to non-file-system kernel drivers.
#pragma once
#include "wdm.h"
