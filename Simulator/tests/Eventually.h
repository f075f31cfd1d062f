#pragma once

#include "Programs.h"

#include <functional>

namespace simulator::test
{

/// Asks again until the answer is the expected one or the time is over.
inline bool eventually(const std::function<bool()>& expected)
{
    using Clock = kelvo::test::ChildProcess::Clock;
    const auto deadline = Clock::now() + std::chrono::seconds(15);
    while (Clock::now() < deadline)
        if (expected())
            return true;
    return false;
}

}  // namespace simulator::test
