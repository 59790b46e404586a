// The debug-support library's report of live objects, blocks, handles and
// timing statistics.
#ifndef ZORV_FOUNDATION_DEBUG_REPORT_H_
#define ZORV_FOUNDATION_DEBUG_REPORT_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace debug {

// Writes to standard error: the live objects grouped by name and
// source:line, the live blocks and bytes, the live handles, and for each
// category/operation the count, total and longest time of its scopes.
// With ZORV_DEBUG_REPORT=1 in the environment the report is also written at
// process exit.
ZORV_DEBUG_EXPORT void PrintReport();

}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_DEBUG_REPORT_H_
