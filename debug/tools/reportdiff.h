// The comparison of two JSON debug reports behind zorv-debug-diff.
#ifndef ZORV_DEBUG_TOOLS_REPORTDIFF_H_
#define ZORV_DEBUG_TOOLS_REPORTDIFF_H_

#include <map>
#include <string>

namespace zorv {
namespace debugtools {

// The statistics of one category/operation pair, in nanoseconds.
struct TimingFigures {
  long long count = 0;
  long long totalNs = 0;
  long long maxNs = 0;
  long long p50Ns = 0;
  long long p99Ns = 0;
};

// The figures of one report that a comparison looks at.
struct ReportFigures {
  long long version = 0;
  std::map<std::string, long long> objects;  // live objects by name
  long long blocks = 0;
  long long bytes = 0;
  long long handles = 0;
  std::map<unsigned long long, long long> bySize;  // live blocks by class ceiling
  std::map<std::string, TimingFigures> timings;    // by "category/operation"
};

// Reads a report as debug::WriteReport writes it in JSON. Returns false and
// sets *error when the text is not JSON or lacks a member the comparison
// needs. Never reads past the text, whatever it holds.
bool ParseReport(const std::string& text, ReportFigures* figures, std::string* error);

// Appends to *out what grew and what shrank from `older` to `newer`, largest
// growth first, then largest shrinkage first; "no change" when nothing did.
// Returns true when anything grew.
bool DiffReports(const ReportFigures& older, const ReportFigures& newer, std::string* out);

// The command: argv[1] and argv[2] name the older and the newer report.
// Returns the exit status: 1 when anything grew, 0 otherwise, 2 on bad
// arguments or an unreadable or invalid report (with a message in *err).
int RunDiff(int argc, const char* const* argv, std::string* out, std::string* err);

}  // namespace debugtools
}  // namespace zorv

#endif  // ZORV_DEBUG_TOOLS_REPORTDIFF_H_
