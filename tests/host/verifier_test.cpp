// The verifier's own contract: findings reach the test unless a capture takes them, and
// list corruption is a bug check.
#include <gtest/gtest.h>
#include <wdm.h>

#include <thread>

#include "kvhost/verifier.h"

TEST(Verifier, CaptureTakesFindingsFromAnyThreadInnermostFirst) {
  kvhost::ViolationCapture outer;
  {
    kvhost::ViolationCapture inner;
    std::thread([] { kvhost::ReportViolation("SampleRule", "from a worker"); }).join();
    EXPECT_EQ(inner.Count("SampleRule"), 1u);
    EXPECT_EQ(outer.Count(), 0u);
  }
  kvhost::ReportViolationF("OtherRule", "value %d", 7);
  ASSERT_EQ(outer.Count(), 1u);
  EXPECT_EQ(outer.All()[0].Message, "value 7");
  EXPECT_TRUE(kvhost::TakeViolations().empty());
}

TEST(Verifier, UncapturedFindingIsReportedByEndTest) {
  kvhost::ReportViolation("SampleRule", "nobody captured this");
  std::vector<std::string> problems = kvhost::EndTest();
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("nobody captured this"), std::string::npos);
  EXPECT_NE(problems[0].find("SampleRule"), std::string::npos);
}

TEST(VerifierDeathTest, CorruptedListLinkIsABugCheck) {
  LIST_ENTRY head, a;
  InitializeListHead(&head);
  InsertTailList(&head, &a);
  LIST_ENTRY bogus;
  a.Blink = &bogus;  // a neighbour no longer points back
  EXPECT_DEATH(RemoveEntryList(&a), "BUGCHECK 0x00000139");
}
