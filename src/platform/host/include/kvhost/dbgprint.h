// The debugger's side of DbgPrintEx: every message is captured with its component and
// level (whatever the component filters would show), and echoed to stderr on request:
// SetDebugOutputEcho(true), or KV_DBGPRINT=1 in the environment. Captured lines are
// cleared at the start of each test.
#pragma once

#include <string>
#include <vector>

#include <wdm.h>

namespace kvhost {

struct DebugOutputLine {
  ULONG ComponentId;
  ULONG Level;
  std::string Text;  // as formatted, cut at the system's 512-byte limit
};

// The lines captured since the last call, oldest first; the capture is emptied.
std::vector<DebugOutputLine> TakeDebugOutput();

void SetDebugOutputEcho(bool echo);

}  // namespace kvhost
