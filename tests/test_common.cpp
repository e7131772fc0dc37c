#include <gtest/gtest.h>
#include "zel/tessel3d.h"
TEST(version, text) { EXPECT_STREQ(zel::tessel3d::version(), "5.5.0.0"); }
