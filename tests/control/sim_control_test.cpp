// kvcbt-sim sends any control code by name to a volume filtered by the driver and prints the
// reply: the driver's own records in words, anything else in hexadecimal.
#include <gtest/gtest.h>

#include <string>

#include "linked_drivers.h"
#include "report.h"
#include "runner.h"
#include "scenario.h"

namespace {

TEST(SimControl, TheDriversCodesAreSentByNameAndTheirRepliesPrinted) {
  const std::string text =
      "filter kvcbt\n"
      "volume C: size=64MiB\n"
      "boot\n"
      "control C: IOCTL_KVCBT_QUERY_DRIVER_VERSION\n"
      "control C: IOCTL_KVCBT_QUERY_TRACKING_ENABLED\n"
      "control C: IOCTL_KVCBT_QUERY_TRACKING_ENABLED out=16 expect=STATUS_INVALID_PARAMETER\n"
      "control C: IOCTL_KVCBT_CHECK_EXCLUDED expect=STATUS_NOT_IMPLEMENTED\n"
      "control C: IOCTL_KVCBT_RESERVED_34 in=01020304\n"
      "control C: 0x8CB70104 in=0102 out=8 expect=STATUS_INVALID_DEVICE_REQUEST\n"
      "control C: IOCTL_DISK_GET_LENGTH_INFO\n";
  kvsim::RegisterLinkedDrivers();
  kvsim::Scenario scenario;
  std::vector<kvsim::ScenarioError> errors;
  ASSERT_TRUE(kvsim::ParseScenario(text, &scenario, &errors)) << kvsim::FormatErrors("test", errors);
  const kvsim::Report report = kvsim::RunScenario(scenario, "test");
  EXPECT_TRUE(report.Ok()) << kvsim::FormatText(report, {});
  ASSERT_EQ(report.Steps.size(), 10u);  // the filter, the volume and the boot first
  EXPECT_EQ(report.Steps[3].Detail, "driver version 10.0.1000");
  EXPECT_EQ(report.Steps[4].Detail, "tracking off");
  EXPECT_EQ(report.Steps[5].Status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(report.Steps[6].Status, STATUS_NOT_IMPLEMENTED);
  EXPECT_EQ(report.Steps[7].Status, STATUS_SUCCESS);
  EXPECT_EQ(report.Steps[8].Status, STATUS_INVALID_DEVICE_REQUEST) << "an unknown code of the driver's type goes down";
  EXPECT_EQ(report.Steps[9].Detail, "length 64 MiB");
}

}  // namespace
