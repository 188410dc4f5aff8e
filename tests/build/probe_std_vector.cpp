// Must not compile as driver code: the C++ standard library is not part of a kernel image.
#include <vector>
int ProbeVector() { return static_cast<int>(std::vector<int>(3).size()); }
