// Must not compile as driver code: kernel code has no C++ exceptions.
int ProbeThrow(int x) {
  if (x) throw x;
  return 0;
}
