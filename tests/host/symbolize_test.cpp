// Naming code addresses for violation messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "kvhost/symbolize.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

__attribute__((noinline)) void* ReturnAddressOfThisCall() {
  void* address = __builtin_return_address(0);
  asm volatile("");
  return address;
}

__attribute__((noinline)) void NamedRoutine() { asm volatile(""); }

TEST(Symbolize, NamesTheFunctionFileAndLineOfACall) {
  void* here = ReturnAddressOfThisCall();
  const int line = __LINE__ - 1;
  std::string name = kvhost::DescribeCodeAddress(here);
  EXPECT_THAT(name, HasSubstr("Symbolize_NamesTheFunctionFileAndLineOfACall_Test::TestBody()"));
  EXPECT_THAT(name, HasSubstr("(symbolize_test.cpp:" + std::to_string(line) + ")"));
  EXPECT_EQ(kvhost::DescribeCodeAddress(here), name) << "cached, and stable";

  EXPECT_THAT(kvhost::DescribeRoutine(reinterpret_cast<void*>(&NamedRoutine)), HasSubstr("NamedRoutine()"));
  EXPECT_EQ(kvhost::DescribeCodeAddress(nullptr), "(null)");
  // Without debug information the module and offset remain.
  EXPECT_THAT(kvhost::DescribeRoutine(reinterpret_cast<void*>(&std::abort)), HasSubstr("abort"));
}

}  // namespace
