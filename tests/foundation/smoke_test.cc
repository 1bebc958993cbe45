#include <gtest/gtest.h>
#include "ndmpc/xdr/xdr_container.h"
#include "ndmpc/ndmp/enums/field_enums.h"
TEST(Smoke, Builds) { EXPECT_EQ(com::vx::korvane::ndmpc::enums::CNDMPEnumAuthType::ToString(2), "NDMP_AUTH_MD5"); }
