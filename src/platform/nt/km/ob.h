// Object manager: references and names.
#pragma once
#include "basetypes.h"
