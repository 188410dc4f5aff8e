/* An application written in C compiles against the control interface as it stands: the
 * header is plain C and its layout checks hold under a C compiler too. */
#include "kvcbt/control.h"

CBT_LAYOUT_CHECK(sizeof(CBT_VOLUME_TRACKING_INFORMATION) == 56, "the 56-byte reply, seen from C");
CBT_LAYOUT_CHECK(CBT_VOLUME_BITMAP_BYTES(1001) == 126, "bitmap bytes round up");

unsigned KvcbtControlHeaderCompilesAsC(void) { return IOCTL_KVCBT_QUERY_DRIVER_VERSION; }
