// Running test code at a raised IRQL.
//
//   kvhost::ScopedIrql atDpc(DISPATCH_LEVEL);      // raised until the end of the scope
//   kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { ... });
//
// IRQL is per thread. Raising to a lower level, or lowering to a higher one, is reported as
// a violation, as Windows would bug-check.
#pragma once

#include <wdm.h>

#include <utility>

namespace kvhost {

class ScopedIrql {
 public:
  explicit ScopedIrql(KIRQL level) : old_(KfRaiseIrql(level)) {}
  ~ScopedIrql() { KeLowerIrql(old_); }
  ScopedIrql(const ScopedIrql&) = delete;
  ScopedIrql& operator=(const ScopedIrql&) = delete;

 private:
  KIRQL old_;
};

template <class Fn>
decltype(auto) RunAtIrql(KIRQL level, Fn&& fn) {
  ScopedIrql scope(level);
  return std::forward<Fn>(fn)();
}

}  // namespace kvhost
