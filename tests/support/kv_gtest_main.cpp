// GoogleTest main for every suite: each test starts on a fresh host kernel and ends with
// its checks. Pool still allocated (by tag), requests never completed, objects still
// referenced and verifier findings that no ViolationCapture took each fail the test.
#include <gtest/gtest.h>

#include "kvhost/verifier.h"

namespace {

class HostKernelListener : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo&) override { kvhost::BeginTest(); }

  // Runs before the result printer's OnTestEnd (listeners end in reverse order), while the
  // test is still current, so a failure added here marks the test as failed.
  void OnTestEnd(const testing::TestInfo&) override {
    for (const std::string& problem : kvhost::EndTest()) ADD_FAILURE() << "left behind by the test: " << problem;
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new HostKernelListener);
  return RUN_ALL_TESTS();
}
