#include "support/diagnostic.h"

#include <gtest/gtest.h>

#include "tests/testing/output_capture.h"

namespace corvel::storage::support {
namespace {

TEST(PrintDiagnostic, WritesALineToStandardError) {
  storage::testing::OutputCapture output;
  PrintDiagnostic("first");
  PrintDiagnostic("");
  PrintDiagnostic("ends in a line end\n");
  EXPECT_EQ(output.Stderr(), "first\n\nends in a line end\n\n");
  EXPECT_EQ(output.Stdout(), "");
}

}  // namespace
}  // namespace corvel::storage::support
