// Zw system services: registry keys and values, named events, files.
#pragma once
#include "basetypes.h"
