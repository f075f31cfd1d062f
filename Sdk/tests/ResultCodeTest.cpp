#include <Tavro8/ResultCode.h>
#include <Tavro8/SdkVersion.h>
#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;

TEST(ResultCode, keepsTheNumbersThatHostsKnow)
{
    EXPECT_EQ(toResult(ResultCode::success), 0);
    EXPECT_EQ(toResult(ResultCode::unexpected), 4);
    EXPECT_EQ(toResult(ResultCode::outOfRange), 6);
    EXPECT_EQ(toResult(ResultCode::notSupported), 8);
    EXPECT_EQ(toResult(ResultCode::deviceUnreachable), 256);
    EXPECT_EQ(toResult(ResultCode::noTourBeingFilled), 2818);
}

TEST(ResultCode, categoriesOfDifferentLibrariesCompareEqual)
{
    const Utility::Tavro8Category ofAnotherLibrary;
    EXPECT_EQ(ofAnotherLibrary, Utility::get_tavro8_category());
    EXPECT_EQ((boost::system::error_code{256, ofAnotherLibrary}), make_error_code(ResultCode::deviceUnreachable));
    EXPECT_NE(ofAnotherLibrary, boost::system::system_category());
}

TEST(ResultCode, everyNumberHasASentence)
{
    EXPECT_STREQ(describeResult(0), "success");
    EXPECT_EQ(make_error_code(ResultCode::accessDenied).message(), "access denied: check user name and password");
    EXPECT_STREQ(describeResult(-1), "unknown result");
    EXPECT_STREQ(describeResult(99999), "unknown result");
}

TEST(SdkVersion, aHostServesModulesOfItsMajorVersionUpToItsMinor)
{
    EXPECT_TRUE(sdkServes(makeSdkVersion(1, 3), makeSdkVersion(1, 3)));
    EXPECT_TRUE(sdkServes(makeSdkVersion(1, 4), makeSdkVersion(1, 3)));
    EXPECT_FALSE(sdkServes(makeSdkVersion(1, 2), makeSdkVersion(1, 3)));
    EXPECT_FALSE(sdkServes(makeSdkVersion(2, 9), makeSdkVersion(1, 3)));
}
}  // namespace
