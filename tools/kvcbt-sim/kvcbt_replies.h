// The driver's own control codes in a control step: the output size each is sent with when
// the scenario gives none, and its reply in words (the records of kvcbt/control.h).
#pragma once

#include <wdm.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kvsim {

// The size of the code's reply record; nullopt for a code that is not the driver's or whose
// reply has no fixed size.
std::optional<ULONG> KvcbtReplyLength(ULONG code);

// "driver version 10.0.1000", "tracking off", "512-byte sectors, ...". nullopt for a code
// that is not the driver's, or when the reply is too short to hold its record.
std::optional<std::string> DescribeKvcbtReply(ULONG code, const std::vector<uint8_t>& reply);

}  // namespace kvsim
