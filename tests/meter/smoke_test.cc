#include <gtest/gtest.h>

#include "meter/pricing.h"

TEST(SmokeTest, DefaultTableHasFiveRows) { EXPECT_EQ(ostler::PricingTable::defaultTable().rates.size(), 5u); }
