// Running a scenario on a fresh machine, and what came of it.
#pragma once

#include <string>
#include <vector>

#include "kvtestbed/machine.h"
#include "scenario.h"

namespace kvsim {

struct StepReport {
  int Line = 0;
  std::string Source;
  NTSTATUS Status = STATUS_SUCCESS;
  bool HasStatus = true;  // a note has none
  std::string Detail;     // what came back, in words
  std::vector<std::string> Lines;  // more of it, a line each (changed ranges, a map)
  bool AsExpected = true;
  std::string Problem;  // why it is not as expected
  std::vector<kvtestbed::MachineEvent> Events;
  std::vector<std::string> DebugOutput;  // the drivers' DbgPrintEx lines
  std::vector<std::string> Records;      // the tracking driver's debug-log records, in words
};

struct VolumeReport {
  std::string Name;
  std::string Device;
  std::string Description;  // size, sector size and the like
  kvtestbed::DiskCounters Counters;
  uint64_t BytesHeld = 0;
};

struct Report {
  std::string Scenario;  // where it came from
  std::string Windows;
  std::vector<std::string> VolumeFilters;
  std::vector<std::string> SnapshotFilters;
  std::vector<StepReport> Steps;
  StepReport TakeDown;  // the machine taken down at the end
  std::vector<VolumeReport> Volumes;
  unsigned Boots = 0;
  unsigned Shutdowns = 0;
  unsigned PowerLosses = 0;
  std::vector<std::string> LeftBehind;  // what the end-of-run checks found

  size_t Unexpected() const;
  bool Ok() const { return Unexpected() == 0 && LeftBehind.empty(); }
};

// Runs the scenario on a fresh user-mode kernel and machine; the kernel's end-of-run checks
// close the run.
Report RunScenario(const Scenario& scenario, std::string origin);

}  // namespace kvsim
