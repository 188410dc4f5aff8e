// Violation collection, bug checks and the per-test lifecycle of the host kernel.
#include "kvhost/verifier.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include <wdm.h>

namespace kvhost {
namespace {

struct VerifierState {
  std::mutex Lock;
  std::vector<Violation> Pending;
  std::vector<ViolationCapture*> Captures;  // innermost last
  std::vector<TestHooks> Hooks;
};

VerifierState& State() {
  static VerifierState* state = new VerifierState;  // never destroyed: threads may report late
  return *state;
}

bool EchoViolations() {
  static const bool echo = std::getenv("KV_QUIET_VIOLATIONS") == nullptr;
  return echo;
}

}  // namespace

void ReportViolation(std::string_view check, std::string message) {
  Violation v{std::string(check), std::move(message)};
  VerifierState& s = State();
  std::lock_guard<std::mutex> guard(s.Lock);
  if (!s.Captures.empty()) {
    s.Captures.back()->Add(std::move(v));
    return;
  }
  if (EchoViolations()) std::fprintf(stderr, "*** VERIFIER [%s] %s\n", v.Check.c_str(), v.Message.c_str());
  s.Pending.push_back(std::move(v));
}

void ReportViolationF(const char* check, const char* format, ...) {
  char buffer[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  ReportViolation(check, buffer);
}

std::vector<Violation> TakeViolations() {
  VerifierState& s = State();
  std::lock_guard<std::mutex> guard(s.Lock);
  std::vector<Violation> out;
  out.swap(s.Pending);
  return out;
}

[[noreturn]] void BugCheck(unsigned code, const std::string& reason) {
  std::fprintf(stderr, "*** BUGCHECK 0x%08X: %s\n", code, reason.c_str());
  std::fflush(stderr);
  std::abort();
}

ViolationCapture::ViolationCapture() {
  VerifierState& s = State();
  std::lock_guard<std::mutex> guard(s.Lock);
  s.Captures.push_back(this);
}

ViolationCapture::~ViolationCapture() {
  VerifierState& s = State();
  std::lock_guard<std::mutex> guard(s.Lock);
  s.Captures.erase(std::remove(s.Captures.begin(), s.Captures.end(), this), s.Captures.end());
}

void ViolationCapture::Add(Violation v) {
  // Called with the verifier lock held.
  found_.push_back(std::move(v));
}

size_t ViolationCapture::Count(std::string_view check) const {
  std::lock_guard<std::mutex> guard(State().Lock);
  if (check.empty()) return found_.size();
  return static_cast<size_t>(
      std::count_if(found_.begin(), found_.end(), [&](const Violation& v) { return v.Check == check; }));
}

std::vector<Violation> ViolationCapture::All() const {
  std::lock_guard<std::mutex> guard(State().Lock);
  return found_;
}

std::string ViolationCapture::Describe() const {
  std::string out;
  for (const Violation& v : All()) out += "[" + v.Check + "] " + v.Message + "\n";
  return out.empty() ? "(no violations)" : out;
}

void RegisterTestHooks(TestHooks hooks) {
  VerifierState& s = State();
  std::lock_guard<std::mutex> guard(s.Lock);
  s.Hooks.push_back(std::move(hooks));
  std::stable_sort(s.Hooks.begin(), s.Hooks.end(),
                   [](const TestHooks& a, const TestHooks& b) { return a.Order < b.Order; });
}

static std::vector<TestHooks> SnapshotHooks() {
  VerifierState& s = State();
  std::lock_guard<std::mutex> guard(s.Lock);
  return s.Hooks;
}

void BeginTest() {
  TakeViolations();
  for (const TestHooks& h : SnapshotHooks())
    if (h.Reset) h.Reset();
}

void ResetAfterPowerLoss() {
  for (const TestHooks& h : SnapshotHooks())
    if (h.Reset && !h.SurvivesPowerLoss) h.Reset();
}

std::vector<std::string> EndTest() {
  std::vector<std::string> problems;
  std::vector<TestHooks> hooks = SnapshotHooks();
  for (const TestHooks& h : hooks)
    if (h.Quiesce) h.Quiesce();
  for (const TestHooks& h : hooks)
    if (h.Check) h.Check(problems);
  for (const Violation& v : TakeViolations()) problems.push_back("[" + v.Check + "] " + v.Message);
  return problems;
}

}  // namespace kvhost

// A corrupted LIST_ENTRY neighbour is a fast-fail in Windows (bug check 0x139,
// KERNEL_SECURITY_CHECK_FAILURE); continuing would write through a bad pointer.
extern "C" void KvFatalListEntryError(PVOID P1, PVOID P2, PVOID P3) {
  char reason[160];
  std::snprintf(reason, sizeof reason, "KERNEL_SECURITY_CHECK_FAILURE: corrupted list entry (%p, %p, %p)", P1, P2,
                P3);
  kvhost::BugCheck(0x139, reason);
}
