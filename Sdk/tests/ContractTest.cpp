#include <Tavro8/GDRV.h>
#include <gtest/gtest.h>
#include <string>

namespace
{
using namespace Tavro8;
using namespace Tavro8::GDRV;

class Click final : public ITelemetryPointClick, public IAbsoluteTelemetry {
public:
    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<ITelemetryPointClick, IAbsoluteTelemetry>(this, name);
    }
    std::int32_t AreaZoom(const NormalizedRect&) noexcept override { return 3; }
    std::int32_t PointMove(const NormalizedPoint&) noexcept override { return 4; }
    std::int32_t AbsoluteMoveEx(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                                std::uint32_t, std::uint32_t) noexcept override
    {
        return 5;
    }
    std::int32_t GetPositionParams(std::uint32_t&, std::uint32_t&, std::uint32_t&) noexcept override { return 6; }
};

TEST(Contract, answersThePointerToExactlyTheSubObject)
{
    Click click;
    IContract* const asFirst = static_cast<ITelemetryPointClick*>(&click);
    IContract* const asSecond = static_cast<IAbsoluteTelemetry*>(&click);

    EXPECT_EQ(queryContract<IAbsoluteTelemetry>(asFirst), static_cast<IAbsoluteTelemetry*>(&click));
    EXPECT_EQ(queryContract<ITelemetryPointClick>(asSecond), static_cast<ITelemetryPointClick*>(&click));
    EXPECT_EQ(queryContract<ITelemetryPointClick>(asSecond)->PointMove({}), 4);
}

TEST(Contract, comparesTheTextOfTheNameAndNotItsAddress)
{
    Click click;
    const std::string copy = contractName<IAbsoluteTelemetry>();
    EXPECT_EQ(static_cast<ITelemetryPointClick&>(click).QueryContract(copy.c_str()),
              static_cast<IAbsoluteTelemetry*>(&click));
}

TEST(Contract, answersNullForWhatIsNotOffered)
{
    Click click;
    IContract* const object = static_cast<ITelemetryPointClick*>(&click);
    EXPECT_EQ(queryContract<ITelemetry>(object), nullptr);
    EXPECT_EQ(object->QueryContract(nullptr), nullptr);
    EXPECT_EQ(object->QueryContract(""), nullptr);
    EXPECT_EQ(queryContract<ITelemetry>(nullptr), nullptr);
}
}  // namespace
