// Names code addresses for violation messages: "CbtFlushTrackingFile (flush.cpp:212)".
//
// Routines of the user-mode kernel record their caller's return address cheaply and turn
// it into a name only when a violation is reported, because naming runs addr2line on the
// module (slow). Results are cached.
#pragma once

#include <string>

namespace kvhost {

// "function (file:line)" for a return address or a routine address in this process;
// "module+0xoffset" when there is no debug information; "(null)" for nullptr.
std::string DescribeCodeAddress(const void* address);

// The same for a routine's own address (a work item's routine, a thread's start routine):
// unlike a return address it is not adjusted back into the calling instruction.
std::string DescribeRoutine(const void* routine);

}  // namespace kvhost
