// kvcbt-sim's output: the report for people, and the same as JSON for programs.
#pragma once

#include <string>
#include <vector>

#include "runner.h"
#include "scenario.h"

namespace kvsim {

struct TextOptions {
  // Everything the machine did under each step (--events); otherwise only what failed.
  bool AllMachineEvents = false;
  // The tracking driver's debug-log records under each step (not with --no-records).
  bool Records = true;
};

std::string FormatText(const Report& report, const TextOptions& options);
std::string FormatJson(const Report& report);

// Scenario mistakes, one per line ("default.kvs:12: unknown step 'wrte' ..."), or as JSON.
std::string FormatErrors(const std::string& origin, const std::vector<ScenarioError>& errors);
std::string FormatErrorsJson(const std::string& origin, const std::vector<ScenarioError>& errors);

}  // namespace kvsim
