// Executive: pool, lookaside lists, interlocked operations and lists, rundown protection,
// system worker queues.
#pragma once
#include "ke.h"
