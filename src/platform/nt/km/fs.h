// File-system interfaces of ntifs.h: file-system control codes, file information
// classes, retrieval pointers, FsRtl large MCBs.
#pragma once
#include "io.h"
