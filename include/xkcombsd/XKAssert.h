// The library-wide contract for broken preconditions and invariants: the failed
// site is reported to the family's base library and the caller then carries on
// along its own failure path. A report never stops the program.
#pragma once

namespace xk {

// Where a contract broke: the source name, line and expression text are part of
// the library's observable behaviour and are fixed per site, not taken from
// __FILE__ and __LINE__.
struct AssertSite {
  const char* source;
  int line;
  const char* expression;
};

void ReportAssertion(const AssertSite& site);

// Reports the site unless the condition holds; returns the condition so that a
// caller can branch to its failure path in the same expression.
inline bool Verify(bool condition, const AssertSite& site) {
  if (!condition) ReportAssertion(site);
  return condition;
}

}  // namespace xk
