// zorv-debug-diff OLD.json NEW.json: what grew and what shrank between two
// debug reports. Exit status 1 when anything grew, 0 otherwise, 2 on bad
// input.
#include <stdio.h>

#include <string>

#include "reportdiff.h"

int main(int argc, char** argv) {
  std::string out;
  std::string err;
  const int status = zorv::debugtools::RunDiff(argc, argv, &out, &err);
  fputs(out.c_str(), stdout);
  fputs(err.c_str(), stderr);
  return status;
}
