// Named events the machine provides, such as the one the system sets once volumes may be
// written ("\Device\VolumesSafeForWriteAccess"). They are permanent objects of the
// namespace: the driver opens them with ZwOpenEvent, they are not reported as left behind,
// and they go away at the start of the next test.
#pragma once

#include <string_view>

#include <wdm.h>

namespace kvhost {

// The new event, or nullptr when the name is taken. The machine sets and clears it with
// KeSetEvent / KeClearEvent.
PKEVENT CreateNamedEvent(std::u16string_view fullName, EVENT_TYPE type, BOOLEAN initialState);

}  // namespace kvhost
