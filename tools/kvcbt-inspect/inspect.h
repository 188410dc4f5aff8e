// kvcbt-inspect's commands, apart from main() so that the tests run them.
#pragma once

#include <string>
#include <vector>

namespace kvinspect {

struct Output {
  std::string Out;  // what goes to standard output
  std::string Err;  // what goes to standard error
  int Status = 0;   // the exit status: 0 done, 1 the input is not what it should be, 2 usage
};

// Runs kvcbt-inspect with its arguments (without the program name).
Output Inspect(const std::vector<std::string>& arguments);

}  // namespace kvinspect
