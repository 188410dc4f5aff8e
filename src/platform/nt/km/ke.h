// Kernel core: IRQL, spin locks, dispatcher objects (events, semaphores), waits, time,
// threads.
#pragma once
#include "basetypes.h"
