// Assertion reports go to the family's base library, which prints them; the
// caller then continues along its own failure path.
#include <XKCmnBaD.h>
#include <xkcombsd/XKAssert.h>

namespace xk {

void ReportAssertion(const AssertSite& site) {
  XKCmnBaD_ReportAssertion(site.source, site.line, site.expression);
}

}  // namespace xk
