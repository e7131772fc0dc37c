// Resource limits of every family: each allocation a call makes fails in turn, and
// hostile sizes (counts near 2^32, tiny layer sizes) end with a status instead of a hang,
// an overflow or an attempt to obtain unbounded memory.
#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "box_mesh.h"
#include "failing_allocator.h"
#include "family_table.h"
#include "zel/tessel3d.h"

namespace {

using tessel3d_test::failing_allocator;
using tessel3d_test::family_row;
using tessel3d_test::scene;
using zel::dense1D;
using zel::dense2D;
using vec3 = zel::vector_fixed<double, 3>;
namespace t3 = zel::tessel3d;

// ---- the sweep -------------------------------------------------------------------------------

class allocation_failures : public ::testing::TestWithParam<family_row> {};

// The n-th allocation of the call fails, for n = 1, 2, ... until the call gets through:
// each failure must give the documented status and outputs and leak nothing, and the
// final call must give what a call without any failure gives.
TEST_P(allocation_failures, each_one_is_reported_and_leaves_the_outputs_as_documented) {
  const family_row& row = GetParam();
  scene reference = row.make();
  const int reference_status = row.call(reference);
  ASSERT_GE(reference_status, 0) << "the representative input must succeed";

  long setup = 0;
  {
    failing_allocator counter;
    const scene s = row.make(), entry = row.make();
    setup = counter.allocations();
  }
  long failures = 0;
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 10000) << "the call never got through";
    failing_allocator guard(setup + n);
    bool reached = false;
    {
      scene s = row.make();
      const scene entry = row.make();
      const int status = row.call(s);
      reached = guard.failed();
      if (reached) {
        SCOPED_TRACE("allocation " + std::to_string(n) + " of the call failed");
        row.after_failure({status, reference_status, n, s, entry, reference});
        ++failures;
      } else {
        EXPECT_EQ(status, reference_status);
        tessel3d_test::expect_same(s, reference, "after the call that met no failure");
      }
    }
    EXPECT_EQ(guard.live_blocks(), 0) << "leak after allocation " << n << " of the call failed";
    if (!reached || HasFailure()) break;  // one broken round says enough
  }
  const std::string name = row.name;
  if (name != "flip" && name != "volume") {
    EXPECT_GT(failures, 0) << "the call allocates nothing";
  }
  RecordProperty("failures", static_cast<int>(failures));
}

INSTANTIATE_TEST_SUITE_P(every_family, allocation_failures, ::testing::ValuesIn(tessel3d_test::family_table()),
                         [](const ::testing::TestParamInfo<family_row>& info) { return std::string(info.param.name); });

}  // namespace
