// kvcbt-inspect: decodes what the driver hands out (a copied-out change bitmap) for people.
//
//   kvcbt-inspect bitmap <file> --bytes-per-bit <N> [--bit-count <N>] [--map] [--picture <png>] [--json]
#include <cstdio>

#include "inspect.h"

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  const kvinspect::Output output = kvinspect::Inspect(arguments);
  std::fputs(output.Out.c_str(), stdout);
  std::fputs(output.Err.c_str(), stderr);
  return output.Status;
}
