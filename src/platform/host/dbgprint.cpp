// DbgPrint, DbgPrintEx and vDbgPrintEx: formatted by the kernel's formatter, cut at the
// system's 512-byte message buffer, captured for tests and optionally echoed.
#include "kvhost/dbgprint.h"

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>

#include "format.h"
#include "kvhost/verifier.h"

namespace kvhost {
namespace {

constexpr size_t kMessageBuffer = 512;     // terminator included
constexpr size_t kMaxCapturedLines = 10000;  // a long run keeps the latest

bool EchoRequestedByEnvironment() {
  const char* value = std::getenv("KV_DBGPRINT");
  return value != nullptr && *value != '\0' && *value != '0';
}

struct DebugOutput {
  std::mutex Lock;
  std::deque<DebugOutputLine> Lines;
  bool Echo = EchoRequestedByEnvironment();
};

DebugOutput& Output() {
  static DebugOutput* output = new DebugOutput;  // worker threads may print late
  return *output;
}

ULONG Capture(ULONG componentId, ULONG level, PCCH format, va_list args) {
  char text[kMessageBuffer];
  size_t length = format == nullptr ? 0 : FormatText(text, kMessageBuffer - 1, format, args);
  if (length > kMessageBuffer - 1) length = kMessageBuffer - 1;
  DebugOutput& out = Output();
  std::lock_guard<std::mutex> guard(out.Lock);
  if (out.Echo) {
    std::fprintf(stderr, "[dbg %lu/%lu] %.*s", static_cast<unsigned long>(componentId),
                 static_cast<unsigned long>(level), static_cast<int>(length), text);
    if (length == 0 || text[length - 1] != '\n') std::fputc('\n', stderr);
  }
  if (out.Lines.size() == kMaxCapturedLines) out.Lines.pop_front();
  out.Lines.push_back({componentId, level, std::string(text, length)});
  return STATUS_SUCCESS;
}

const bool kRegistered = [] {
  RegisterTestHooks({
      .Name = "debug output",
      .Order = 10,
      .Reset =
          [] {
            DebugOutput& out = Output();
            std::lock_guard<std::mutex> guard(out.Lock);
            out.Lines.clear();
            out.Echo = EchoRequestedByEnvironment();
          },
      .Quiesce = nullptr,
      .Check = nullptr,
      .SurvivesPowerLoss = true,
  });
  return true;
}();

}  // namespace

std::vector<DebugOutputLine> TakeDebugOutput() {
  DebugOutput& out = Output();
  std::lock_guard<std::mutex> guard(out.Lock);
  std::vector<DebugOutputLine> lines(out.Lines.begin(), out.Lines.end());
  out.Lines.clear();
  return lines;
}

void SetDebugOutputEcho(bool echo) {
  DebugOutput& out = Output();
  std::lock_guard<std::mutex> guard(out.Lock);
  out.Echo = echo;
}

}  // namespace kvhost

extern "C" {

ULONG vDbgPrintEx(ULONG ComponentId, ULONG Level, PCCH Format, va_list arglist) {
  return kvhost::Capture(ComponentId, Level, Format, arglist);
}

ULONG DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...) {
  va_list args;
  va_start(args, Format);
  ULONG status = kvhost::Capture(ComponentId, Level, Format, args);
  va_end(args);
  return status;
}

ULONG DbgPrint(PCSTR Format, ...) {
  va_list args;
  va_start(args, Format);
  ULONG status = kvhost::Capture(DPFLTR_DEFAULT_ID, DPFLTR_INFO_LEVEL, Format, args);
  va_end(args);
  return status;
}

}  // extern "C"
