#include "StopDeadline.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

TEST(StopDeadlineDeathTest, endsAProcessThatHangs)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            const StopDeadline deadline(std::chrono::milliseconds(1));
            std::promise<void> never;
            never.get_future().wait();
        },
        testing::ExitedWithCode(EXIT_FAILURE), "did not stop in time");
}

TEST(StopDeadline, isForgottenByAProcessThatStopsInTime)
{
    EXPECT_NO_THROW(StopDeadline(std::chrono::hours(1)));  // it would be waited for
}

}  // namespace
}  // namespace simulator
