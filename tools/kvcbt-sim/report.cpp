// The report in words and in JSON.
#include "report.h"

#include <cstdio>

#include "kvtestbed/names.h"

namespace kvsim {
namespace {

constexpr size_t kSourceWidth = 44;

std::string Hex(NTSTATUS status) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(status));
  return text;
}

std::string Plural(size_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

void AppendStepBody(std::string& out, const StepReport& s, const TextOptions& options) {
  const std::string indent = "        ";
  for (const std::string& line : s.Lines) out += indent + line + "\n";
  if (!s.AsExpected) out += indent + "!! " + s.Problem + "\n";
  for (const kvtestbed::MachineEvent& e : s.Events)
    if (options.AllMachineEvents || !NT_SUCCESS(e.Status))
      out += indent + "- " + e.Text + (e.Status == STATUS_SUCCESS ? "" : " -> " + kvtestbed::StatusName(e.Status)) + "\n";
  for (const std::string& line : s.DebugOutput) out += indent + "| " + line + "\n";
  if (options.Records)
    for (const std::string& record : s.Records) out += indent + "r " + record + "\n";
}

// A JSON string literal.
std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string StringArray(const std::vector<std::string>& items) {
  std::string out = "[";
  for (size_t i = 0; i < items.size(); ++i) out += (i ? "," : "") + Quote(items[i]);
  return out + "]";
}

std::string StepJson(const StepReport& s) {
  std::string out = "{\"line\":" + std::to_string(s.Line) + ",\"step\":" + Quote(s.Source);
  if (s.HasStatus) out += ",\"status\":" + Quote(kvtestbed::StatusName(s.Status)) + ",\"code\":" + Quote(Hex(s.Status));
  out += ",\"detail\":" + Quote(s.Detail);
  if (!s.Lines.empty()) out += ",\"lines\":" + StringArray(s.Lines);
  out += ",\"asExpected\":" + std::string(s.AsExpected ? "true" : "false");
  if (!s.AsExpected) out += ",\"problem\":" + Quote(s.Problem);
  out += ",\"events\":[";
  for (size_t i = 0; i < s.Events.size(); ++i)
    out += std::string(i ? "," : "") + "{\"text\":" + Quote(s.Events[i].Text) + ",\"status\":" +
           Quote(kvtestbed::StatusName(s.Events[i].Status)) + "}";
  return out + "],\"debugOutput\":" + StringArray(s.DebugOutput) + ",\"records\":" + StringArray(s.Records) + "}";
}

}  // namespace

std::string FormatText(const Report& report, const TextOptions& options) {
  std::string out = "kvcbt-sim: " + report.Scenario + "\n";
  out += "machine   Windows " + report.Windows + "; volume filters: " +
         (report.VolumeFilters.empty() ? "none" : "") ;
  for (size_t i = 0; i < report.VolumeFilters.size(); ++i) out += (i ? ", " : "") + report.VolumeFilters[i];
  out += "; shadow-copy filters: " + std::string(report.SnapshotFilters.empty() ? "none" : "");
  for (size_t i = 0; i < report.SnapshotFilters.size(); ++i) out += (i ? ", " : "") + report.SnapshotFilters[i];
  out += "\n\n";

  for (const StepReport& s : report.Steps) {
    char line[16];
    std::snprintf(line, sizeof line, "%4d  ", s.Line);
    std::string head = line + s.Source;
    if (!s.HasStatus && s.Source.rfind("note", 0) == 0) {
      head = line + std::string("* ") + s.Detail;
    } else if (s.HasStatus || !s.Detail.empty()) {
      head += std::string(head.size() < kSourceWidth + 6 ? kSourceWidth + 6 - head.size() : 2, ' ');
      if (s.HasStatus) head += kvtestbed::StatusName(s.Status);
      if (!s.Detail.empty()) head += (s.HasStatus ? "  " : "") + s.Detail;
    }
    out += head + "\n";
    AppendStepBody(out, s, options);
  }
  std::string takeDown;
  AppendStepBody(takeDown, report.TakeDown, options);
  if (!takeDown.empty()) out += "      " + report.TakeDown.Source + "\n" + takeDown;

  out += "\nsummary\n";
  std::string unexpected;
  for (const StepReport& s : report.Steps)
    if (!s.AsExpected) unexpected += (unexpected.empty() ? "" : ", ") + std::to_string(s.Line);
  out += "  steps    " + Plural(report.Steps.size(), "step", "steps") +
         (unexpected.empty() ? ", all as expected" : "; not as expected: line " + unexpected) + "\n";
  out += "  power    " + Plural(report.Boots, "boot", "boots") + ", " +
         Plural(report.Shutdowns, "clean shutdown", "clean shutdowns") + ", " +
         Plural(report.PowerLosses, "power loss", "power losses") + "\n";
  for (size_t i = 0; i < report.Volumes.size(); ++i) {
    const VolumeReport& v = report.Volumes[i];
    char name[64];
    std::snprintf(name, sizeof name, "%-8s %-36s ", v.Name.c_str(), v.Device.c_str());
    out += std::string(i == 0 ? "  volumes  " : "           ") + name + v.Description + "\n";
    out += "           " + std::string(46, ' ') + Plural(v.Counters.Writes, "write", "writes") + " (" +
           DescribeSize(v.Counters.BytesWritten) + ") and " + Plural(v.Counters.Reads, "read", "reads") +
           " reached the disk, " + std::to_string(v.Counters.Refused) + " refused; " + DescribeSize(v.BytesHeld) +
           " held\n";
  }
  size_t lines = 0;
  for (const StepReport& s : report.Steps) lines += s.DebugOutput.size();
  lines += report.TakeDown.DebugOutput.size();
  size_t records = report.TakeDown.Records.size();
  for (const StepReport& s : report.Steps) records += s.Records.size();
  out += "  output   " + Plural(lines, "line", "lines") + " of driver debug output, " +
         Plural(records, "record", "records") + " of the tracking driver's debug log\n";
  if (report.LeftBehind.empty()) {
    out += "  checks   nothing left behind\n";
  } else {
    out += "  checks   " + Plural(report.LeftBehind.size(), "problem", "problems") + " left behind:\n";
    for (const std::string& p : report.LeftBehind) out += "           " + p + "\n";
  }
  out += std::string("result     ") + (report.Ok() ? "ok" : "FAILED") + "\n";
  return out;
}

std::string FormatJson(const Report& report) {
  std::string out = "{\"scenario\":" + Quote(report.Scenario) + ",\"ok\":" + (report.Ok() ? "true" : "false");
  out += ",\"machine\":{\"windows\":" + Quote(report.Windows) + ",\"volumeFilters\":" +
         StringArray(report.VolumeFilters) + ",\"snapshotFilters\":" + StringArray(report.SnapshotFilters) + "}";
  out += ",\"steps\":[";
  for (size_t i = 0; i < report.Steps.size(); ++i) out += (i ? "," : "") + StepJson(report.Steps[i]);
  out += "],\"takeDown\":" + StepJson(report.TakeDown);
  out += ",\"summary\":{\"steps\":" + std::to_string(report.Steps.size()) +
         ",\"unexpected\":" + std::to_string(report.Unexpected()) + ",\"boots\":" + std::to_string(report.Boots) +
         ",\"shutdowns\":" + std::to_string(report.Shutdowns) + ",\"powerLosses\":" +
         std::to_string(report.PowerLosses) + ",\"volumes\":[";
  for (size_t i = 0; i < report.Volumes.size(); ++i) {
    const VolumeReport& v = report.Volumes[i];
    out += std::string(i ? "," : "") + "{\"name\":" + Quote(v.Name) + ",\"device\":" + Quote(v.Device) +
           ",\"description\":" + Quote(v.Description) + ",\"writes\":" + std::to_string(v.Counters.Writes) +
           ",\"bytesWritten\":" + std::to_string(v.Counters.BytesWritten) +
           ",\"reads\":" + std::to_string(v.Counters.Reads) + ",\"bytesRead\":" + std::to_string(v.Counters.BytesRead) +
           ",\"refused\":" + std::to_string(v.Counters.Refused) + ",\"bytesHeld\":" + std::to_string(v.BytesHeld) + "}";
  }
  out += "],\"leftBehind\":" + StringArray(report.LeftBehind) + "}}\n";
  return out;
}

std::string FormatErrors(const std::string& origin, const std::vector<ScenarioError>& errors) {
  std::string out;
  for (const ScenarioError& e : errors)
    out += "kvcbt-sim: " + origin + (e.Line > 0 ? ":" + std::to_string(e.Line) : "") + ": " + e.Message + "\n";
  return out;
}

std::string FormatErrorsJson(const std::string& origin, const std::vector<ScenarioError>& errors) {
  std::string out = "{\"scenario\":" + Quote(origin) + ",\"ok\":false,\"errors\":[";
  for (size_t i = 0; i < errors.size(); ++i)
    out += std::string(i ? "," : "") + "{\"line\":" + std::to_string(errors[i].Line) + ",\"message\":" +
           Quote(errors[i].Message) + "}";
  return out + "]}\n";
}

}  // namespace kvsim
