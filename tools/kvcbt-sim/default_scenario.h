// The scenario kvcbt-sim runs when it is given none: scenarios/default.kvs, built into the
// program.
#pragma once

#define KVSIM_DEFAULT_SCENARIO_NAME "scenarios/default.kvs"

namespace kvsim {

extern const char* const kDefaultScenario;

}  // namespace kvsim
