// kvcbt-sim's scenarios: mistakes are reported with their line before anything runs, and a
// scenario runs to a report whose statuses, checks and summary tell what happened.
#include <cstdio>
#include <fstream>
#include <random>

#include "default_scenario.h"
#include "linked_drivers.h"
#include "report.h"
#include "runner.h"
#include "scenario.h"
#include "testbed_support.h"

namespace kvsim {
namespace {

std::vector<ScenarioError> Mistakes(const std::string& text) {
  Scenario scenario;
  std::vector<ScenarioError> errors;
  EXPECT_FALSE(ParseScenario(text, &scenario, &errors)) << text;
  return errors;
}

struct Mistake {
  const char* Text;
  int Line;
  const char* Says;
};

TEST(Scenario, EachMistakeIsReportedWithItsLine) {
  const Mistake mistakes[] = {
      {"boot\nwrte C: 0 512\n", 2, "unknown step 'wrte'"},
      {"volume C: size=12Q\n", 1, "bad size '12Q'"},
      {"volume C: size=99999999999999999999\n", 1, "bad size"},
      {"volume C: size=1000\n", 1, "a positive multiple of the 512-byte sector"},
      {"volume C: size=64MiB sector=1024\n", 1, "bad sector size '1024'"},
      {"volume C: size=64MiB file-system=fat\n", 1, "unknown file system 'fat'"},
      {"volume C: size=2PiB\n", 1, "larger than 1 PiB"},
      {"volume C: size=64MiB format=fat\n", 1, "unknown format 'fat'"},
      {"volume C: size=64MiB format=ntfs cluster=3000\n", 1, "bad cluster size '3000'"},
      {"volume C: size=64MiB sector=4096 format=ntfs cluster=512\n", 1, "bad cluster size '512'"},
      {"volume C: size=64MiB cluster=4KiB\n", 1, "belong to format=ntfs"},
      {"volume C: size=64MiB format=ntfs file-system=model\n", 1, "one file system"},
      {"volume C: size=64KiB format=ntfs\n", 1, "at least 1MiB"},
      {"volume C: size=64MiB format=ntfs label=\"abcdefghijklmnopqrstuvwxyz0123456\"\n", 1, "longer than 32"},
      {"volume C: size=64MiB\nbitmap\n", 2, "bitmap needs a volume"},
      {"volume C: size=64MiB\nbitmap C: picture=\n", 2, "picture= needs a file name"},
      {"volume C: colour=blue size=64MiB\n", 1, "unknown argument 'colour='"},
      {"volume C: size=64MiB\nvolume C: size=64MiB\n", 2, "declared twice"},
      {"volume C: size=64MiB\nshadow-copy C:\nshadow-copy C:@1\n", 3, "C:@1 is a shadow copy"},
      {"volume C: size=64MiB\n\nwrite D: 0 512\n", 3, "unknown volume 'D:'"},
      {"volume C: size=64MiB\nwrite C: 0\n", 2, "missing arguments"},
      {"volume C: size=64MiB\nwrite C: 0 128MiB\n", 2, "more than 64 MiB"},
      {"volume C: size=64MiB\nwrite C: 0 512 pattern=0x100\n", 2, "bad pattern"},
      {"volume C: size=64MiB\nwrite C: 0 512 expect=STATUS_NOPE\n", 2, "unknown status 'STATUS_NOPE'"},
      {"volume C: size=64MiB\nset C: speed=fast\n", 2, "unknown knob 'speed='"},
      {"volume C: size=64MiB\nset C: fail=STATUS_IO_DEVICE_ERROR/x\n", 2, "bad count"},
      {"volume C: size=64MiB\nnotify C: explode\n", 2, "unknown event 'explode'"},
      {"volume C: size=64MiB\ncontrol C: IOCTL_NOPE\n", 2, "unknown control code"},
      {"volume C: size=64MiB\ncontrol C: 0x70000 in=abc\n", 2, "bad input bytes"},
      {"volume C: size=64MiB\nboot\nfilter passthrough\n", 3, "comes before the first volume or boot"},
      {"filter nosuchdriver\n", 1, "no driver image named 'nosuchdriver'"},
      {"windows ten\n", 1, "bad Windows version"},
      {"setting DebugLog=lots\n", 1, "bad value 'lots'"},
      {"note \"never ends\n", 1, "quoted text does not end"},
      {"=5\n", 1, "'=' without a name"},
      {"size=5 boot\n", 1, "starts with a step"},
      {"# nothing but a comment\n\n", 0, "no steps"},
      {"boot\n\0\n", 0, "NUL byte"},
  };
  for (const Mistake& m : mistakes) {
    const std::string text(m.Text, std::char_traits<char>::length(m.Text) +
                                       (std::string_view(m.Says) == "NUL byte" ? 2 : 0));
    const std::vector<ScenarioError> errors = Mistakes(text);
    ASSERT_EQ(errors.size(), 1u) << text;
    EXPECT_EQ(errors[0].Line, m.Line) << text;
    EXPECT_NE(errors[0].Message.find(m.Says), std::string::npos) << errors[0].Message;
  }
}

TEST(Scenario, EveryMistakeOfAFileIsReportedAtOnce) {
  const std::vector<ScenarioError> errors = Mistakes("volume C: size=lots\nboot\nread C: 0 512\nexplode\n");
  ASSERT_EQ(errors.size(), 3u);
  EXPECT_EQ(errors[0].Line, 1);
  EXPECT_EQ(errors[1].Line, 3) << "C: never got declared";
  EXPECT_EQ(errors[2].Line, 4);
  EXPECT_EQ(FormatErrors("x.kvs", errors).substr(0, 28), "kvcbt-sim: x.kvs:1: bad size");
  EXPECT_NE(FormatErrorsJson("x.kvs", errors).find("{\"line\":4,"), std::string::npos);
}

TEST(Scenario, ArbitraryTextNeverBreaksTheParser) {
  const char* const words[] = {"volume", "C:", "size=", "64MiB", "\"", "#", "=", "write", "0x", "boot", "set",
                               "fail=", "/", "expect=", "\\", "notify", "control", "sector=4096", "-1", "99999"};
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    std::string text;
    for (int i = 0, n = static_cast<int>(random() % 12); i < n; ++i)
      text += std::string(words[random() % std::size(words)]) + (random() % 3 ? " " : "") + (random() % 5 ? "" : "\n");
    Scenario scenario;
    std::vector<ScenarioError> errors;
    ParseScenario(text, &scenario, &errors);  // any outcome but a crash
  }
}

Report RunText(const std::string& text) {
  Scenario scenario;
  std::vector<ScenarioError> errors;
  EXPECT_TRUE(ParseScenario(text, &scenario, &errors)) << FormatErrors("test", errors);
  return RunScenario(scenario, "test");
}

TEST(ScenarioRun, CompletedWritesSurviveAPowerLossAndTheReportSaysSo) {
  const Report report = RunText(
      "volume C: size=64MiB\n"
      "volume D: size=1GiB sector=4096 bus=usb\n"
      "boot\n"
      "write C: 0 64KiB\n"
      "write D: 1GiB 4KiB expect=STATUS_INVALID_PARAMETER\n"
      "set C: write-protected=yes\n"
      "write C: 4096 512 expect=STATUS_MEDIA_WRITE_PROTECTED\n"
      "set C: write-protected=no\n"
      "crash\n"
      "boot\n"
      "verify C:\n"
      "read C: 0 512\n");
  EXPECT_TRUE(report.Ok()) << FormatText(report, {});
  EXPECT_EQ(report.Boots, 2u);
  EXPECT_EQ(report.PowerLosses, 1u);
  ASSERT_EQ(report.Steps.size(), 12u);
  EXPECT_EQ(report.Steps[10].Status, STATUS_SUCCESS);
  EXPECT_NE(report.Steps[10].Detail.find("64 KiB"), std::string::npos) << report.Steps[10].Detail;
  ASSERT_EQ(report.Volumes.size(), 2u);
  EXPECT_EQ(report.Volumes[0].Counters.Writes, 1u);
  EXPECT_EQ(report.Volumes[0].Counters.Refused, 1u);
  const std::string json = FormatJson(report);
  EXPECT_NE(json.find("\"ok\":true"), std::string::npos);
  EXPECT_NE(json.find("\"powerLosses\":1"), std::string::npos);
}

TEST(ScenarioRun, WhatGoesWrongIsAStatusNotACrash) {
  const Report report = RunText(
      "volume C: size=64MiB\n"
      "volume X: size=64MiB image=/nonexistent-directory/x.img\n"
      "boot\n"
      "boot\n"
      "remove C:\n"
      "write C: 0 512 expect=STATUS_NO_SUCH_DEVICE\n"
      "read C: 0 512 expect=STATUS_SUCCESS\n");
  EXPECT_FALSE(report.Ok());
  ASSERT_EQ(report.Steps.size(), 7u);
  EXPECT_FALSE(report.Steps[1].AsExpected);
  EXPECT_NE(report.Steps[1].Problem.find("cannot open image file"), std::string::npos);
  EXPECT_EQ(report.Steps[3].Status, STATUS_INVALID_DEVICE_STATE) << "already running";
  EXPECT_TRUE(report.Steps[5].AsExpected);
  EXPECT_FALSE(report.Steps[6].AsExpected);
  EXPECT_EQ(report.Steps[6].Problem, "expected STATUS_SUCCESS");
  EXPECT_EQ(report.Unexpected(), 3u);
  EXPECT_TRUE(report.LeftBehind.empty());
}

TEST(ScenarioRun, TheDefaultScenarioRunsClean) {
  RegisterLinkedDrivers();  // the default scenario runs the tracking driver
  const Report report = RunText(kDefaultScenario);
  EXPECT_TRUE(report.Ok()) << FormatText(report, {});
  EXPECT_GE(report.Boots, 2u);
  EXPECT_EQ(report.PowerLosses, 1u);
  size_t checkedBitmaps = 0, records = 0;
  for (const StepReport& step : report.Steps) {
    records += step.Records.size();
    for (const std::string& line : step.Lines) checkedBitmaps += line.rfind("checked: ", 0) == 0;
  }
  EXPECT_EQ(checkedBitmaps, 2u) << "C:'s bitmap is copied out and checked at two boots";
  EXPECT_GT(records, 0u) << "the driver's records are shown";
}

// The bitmap step copies the change bitmap out of the driver as a backup application does,
// and tells apart the volumes it has none for.
TEST(ScenarioRun, TheBitmapStepShowsAndChecksWhatTheDriverMarked) {
  RegisterLinkedDrivers();
  const std::string saved = testing::TempDir() + "kvsim-bitmap-test.bitmap";
  const Report report = RunText(
      "filter volume=kvcbt snapshot=kvcbt\n"
      "setting DebugLog=1\n"
      "volume C: size=128MiB format=ntfs cluster=4KiB\n"
      "volume U: size=64MiB bus=usb format=ntfs\n"
      "volume R: size=64MiB removable=yes\n"
      "boot\n"
      "write C: 0x100000 4KiB\n"
      "write C: 0x110000 64KiB\n"     // the next block: one range with the first
      "write C: 0x4000000 0x30000\n"  // three blocks
      "write U: 0 4KiB\n"
      "bitmap C: save=" + saved + "\n"
      "bitmap U: expect=STATUS_INVALID_DEVICE_REQUEST\n"
      "bitmap R: expect=STATUS_INVALID_DEVICE_REQUEST\n");
  ASSERT_TRUE(report.Ok()) << FormatText(report, {});
  const StepReport& c = report.Steps[10];
  EXPECT_NE(c.Detail.find("5 of 2048 blocks of 64 KiB changed"), std::string::npos) << c.Detail;
  ASSERT_GE(c.Lines.size(), 3u);
  EXPECT_EQ(c.Lines[1], "  0x0000000000100000-0x000000000011FFFF  128 KiB");
  EXPECT_EQ(c.Lines[2], "  0x0000000004000000-0x000000000402FFFF  192 KiB");
  EXPECT_EQ(c.Lines.back().rfind("checked: each of the 5 blocks", 0), 0u) << c.Lines.back();
  std::ifstream file(saved, std::ios::binary | std::ios::ate);
  EXPECT_EQ(static_cast<long>(file.tellg()), 256) << "the raw copy-out: 2048 blocks in 256 bytes";
  std::remove(saved.c_str());
  EXPECT_NE(report.Steps[11].Detail.find("U: is excluded from tracking"), std::string::npos);
  EXPECT_NE(report.Steps[12].Detail.find("R: has no tracking driver above it"), std::string::npos);
  bool onlineRecorded = false;
  for (const std::string& record : report.Steps[5].Records) onlineRecorded |= record.rfind("CbtVolumeOnline:", 0) == 0;
  EXPECT_TRUE(onlineRecorded) << "the boot's records show each volume coming online";
}

}  // namespace
}  // namespace kvsim
