// kvcbt-sim: runs a scenario (docs/scenario-format.md) on a simulated machine and reports
// what happened. Without a scenario it runs its default one.
//
//   kvcbt-sim [--json] [--events] [--no-records] [scenario.kvs | -]
//
// Exit status: 0 when every step went as expected and nothing was left behind; 1 when a step
// did not or the end-of-run checks found something; 2 for a scenario or command-line mistake.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "default_scenario.h"
#include "linked_drivers.h"
#include "report.h"
#include "runner.h"
#include "scenario.h"

namespace {

constexpr const char* kUsage =
    "usage: kvcbt-sim [--json] [--events] [--no-records] [scenario.kvs | -]\n"
    "  Runs a scenario on a simulated Windows machine and reports what happened.\n"
    "  Without a scenario, runs the default one (" KVSIM_DEFAULT_SCENARIO_NAME ").\n"
    "  --json   the report as JSON, for programs\n"
    "  --events also what the machine did under each step (Plug and Play, mount manager, power)\n"
    "  --no-records  without the tracking driver's debug-log records under each step\n"
    "  -        read the scenario from standard input\n"
    "  The scenario format is described in docs/scenario-format.md.\n";

}  // namespace

int main(int argc, char** argv) {
  bool json = false;
  kvsim::TextOptions text;
  std::string path;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--json") {
      json = true;
    } else if (arg == "--events") {
      text.AllMachineEvents = true;
    } else if (arg == "--no-records") {
      text.Records = false;
    } else if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if ((arg.size() > 1 && arg[0] == '-') || !path.empty()) {
      std::fprintf(stderr, "kvcbt-sim: unexpected argument '%s'\n%s", arg.c_str(), kUsage);
      return 2;
    } else {
      path = arg;
    }
  }

  std::string origin = "default scenario (" KVSIM_DEFAULT_SCENARIO_NAME ")";
  std::string source = kvsim::kDefaultScenario;
  if (path == "-") {
    origin = "standard input";
    std::ostringstream in;
    in << std::cin.rdbuf();
    source = in.str();
  } else if (!path.empty()) {
    origin = path;
    std::ifstream file(path, std::ios::binary);
    std::ostringstream in;
    if (!file || !(in << file.rdbuf())) {
      const std::vector<kvsim::ScenarioError> errors{{0, "cannot read the scenario file"}};
      std::fputs((json ? kvsim::FormatErrorsJson(origin, errors) : kvsim::FormatErrors(origin, errors)).c_str(),
                 json ? stdout : stderr);
      return 2;
    }
    source = in.str();
  }

  kvsim::RegisterLinkedDrivers();
  kvsim::Scenario scenario;
  std::vector<kvsim::ScenarioError> errors;
  if (!kvsim::ParseScenario(source, &scenario, &errors)) {
    std::fputs((json ? kvsim::FormatErrorsJson(origin, errors) : kvsim::FormatErrors(origin, errors)).c_str(),
               json ? stdout : stderr);
    return 2;
  }
  const kvsim::Report report = kvsim::RunScenario(scenario, origin);
  std::fputs((json ? kvsim::FormatJson(report) : kvsim::FormatText(report, text)).c_str(), stdout);
  return report.Ok() ? 0 : 1;
}
