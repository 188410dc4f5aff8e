// Compiles, but the image check must refuse it: a global object with a constructor, and
// (unless PROBE_NO_NEW) a heap allocation through operator new.
#include <wdm.h>
struct Counter {
  Counter() : Value(ProbeRead()) {}
  static int ProbeRead();
  int Value;
};
Counter GlobalCounter;
#ifndef PROBE_NO_NEW
int* ProbeAllocate() { return new int(3); }
#endif
