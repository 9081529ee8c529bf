#include <gtest/gtest.h>
#include "support/test_util.h"
TEST(Platform, Placeholder) { SUCCEED(); }
