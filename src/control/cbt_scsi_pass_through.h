// The check that keeps malformed SCSI pass-through requests from reaching a volume's stack.
#pragma once
#include <wdm.h>

// TRUE when the request's buffer holds a pass-through structure of the form the control
// code names (SCSI_PASS_THROUGH and its DIRECT form, or the EX forms) whose stated length
// fits in the request's input and whose command block is at least six bytes, the shortest
// SCSI command. The command itself is not interpreted.
BOOLEAN CbtIsScsiPassThroughWellFormed(_In_ ULONG ControlCode, _In_opt_ const VOID* SystemBuffer,
                                       _In_ ULONG InputLength);
