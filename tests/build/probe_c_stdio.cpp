// Must not compile as driver code: the C library is not part of a kernel image.
#include <stdio.h>
int ProbeStdio() { return puts("x"); }
