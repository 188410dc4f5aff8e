// The user-mode kernel's verifier: where Windows would bug-check or Driver Verifier would
// complain, the host kernel reports a violation here. A violation fails the running test
// with a message that names the culprit (the pool tag, the request, the device, the IRQL).
//
// Violations are reported from any thread and collected; the test harness turns them into
// failures at the end of each test. A test that provokes a violation on purpose opens a
// ViolationCapture, which takes the findings instead and lets the test look at them.
//
// Subsystems of the host kernel and the testbed register TestHooks: at the start of every
// test they return to a fresh state; at the end they let background work finish and report
// what was left behind (pool by tag, requests never completed, objects still referenced).
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kvhost {

struct Violation {
  std::string Check;    // short name of the rule, e.g. "PoolDoubleFree", "IrpCompletedTwice"
  std::string Message;  // what happened, naming the culprit
};

// Records a violation of rule `check`. Safe from any thread and any IRQL.
void ReportViolation(std::string_view check, std::string message);
void ReportViolationF(const char* check, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Violations reported since the last call, oldest first; the list is emptied.
std::vector<Violation> TakeViolations();

// A Windows bug check: prints the code and the reason and ends the process. Used only where
// continuing would corrupt memory (a broken list link, a wait that can never be satisfied);
// tests observe it with EXPECT_DEATH.
[[noreturn]] void BugCheck(unsigned code, const std::string& reason);

// While alive, violations are captured here instead of failing the test. Nested captures
// are allowed; the innermost one takes the findings.
class ViolationCapture {
 public:
  ViolationCapture();
  ~ViolationCapture();
  ViolationCapture(const ViolationCapture&) = delete;
  ViolationCapture& operator=(const ViolationCapture&) = delete;

  // Number of captured violations of rule `check` (all rules when empty).
  size_t Count(std::string_view check = {}) const;
  bool Saw(std::string_view check) const { return Count(check) != 0; }
  // Captured violations, oldest first.
  std::vector<Violation> All() const;
  // All captured messages joined, for assertion messages.
  std::string Describe() const;

  void Add(Violation v);

 private:
  std::vector<Violation> found_;
};

// Per-test lifecycle hooks of a host subsystem.
struct TestHooks {
  std::string Name;
  int Order = 0;                                         // lower runs first
  std::function<void()> Reset;                           // start of a test: fresh state
  std::function<void()> Quiesce;                         // end of a test: let background work finish
  std::function<void(std::vector<std::string>&)> Check;  // end of a test: what was left behind
  // State kept on disk or outside the machine (the registry, the clock, the Windows release,
  // the debugger's capture) outlives a power loss; everything else is memory and does not.
  bool SurvivesPowerLoss = false;
};

void RegisterTestHooks(TestHooks hooks);

// A power loss of the simulated machine: every subsystem whose state lives in memory returns
// to its fresh state (its Reset), without calling into any driver and without reporting what
// was left behind; the subsystems that survive a power loss keep theirs. Violations already
// reported stay. The caller makes sure no driver code still runs (work items, threads).
void ResetAfterPowerLoss();

// Called by the test harness (and by programs that run several machines in one process).
void BeginTest();
// Runs every Quiesce, then every Check, then collects uncaptured violations; returns one
// line per problem found. An empty result means the test left nothing behind.
std::vector<std::string> EndTest();

}  // namespace kvhost
