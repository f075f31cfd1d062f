#include <IpUtil/ParametersContainer.h>
#include <boost/optional/optional_io.hpp>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

using namespace Tavro8;
using Utility::ParametersContainer;
using Utility::SimpleAdjuster;

TEST(ParametersContainer, givesTheSetValueThenTheDefaultThenNothing)
{
    ParametersContainer parameters;
    EXPECT_FALSE(parameters.get<int>("localServerPort"));
    parameters.setDefaultValue("localServerPort", 32000);
    EXPECT_EQ(parameters.get<int>("localServerPort"), 32000);
    parameters.setPersistentParam("localServerPort", 40000);
    EXPECT_EQ(parameters.get<int>("localServerPort"), 40000);
    EXPECT_EQ(boost::any_cast<int>(*parameters.getDefaultValue("localServerPort")), 32000);
}

TEST(ParametersContainer, raisesTheCastErrorForAnotherType)
{
    ParametersContainer parameters;
    parameters.setPersistentParam("localServerPort", std::string("40000"));
    EXPECT_THROW(parameters.get<int>("localServerPort"), boost::bad_any_cast);
}

TEST(ParametersContainer, takesAnEmptyValueForNoValue)
{
    ParametersContainer parameters;
    parameters.setDefaultValue("a", 1);
    parameters.setPersistentParam("a", boost::any());
    EXPECT_FALSE(parameters.getPersistentParam("a"));
    EXPECT_EQ(parameters.get<int>("a"), 1);
}

TEST(ParametersContainer, keepsTheOthersWhenSomeAreSet)
{
    ParametersContainer parameters(ParameterMap{{"a", 1}, {"b", 2}});
    parameters.setPersistentParams({{"b", 3}, {"c", 4}});
    EXPECT_EQ(parameters.snapshot().size(), 3U);
    EXPECT_EQ(parameters.get<int>("a"), 1);
    EXPECT_EQ(parameters.get<int>("b"), 3);
    EXPECT_EQ(parameters.get<int>("c"), 4);
}

TEST(ParametersContainer, tellsWhetherATextIsEmpty)
{
    ParametersContainer parameters;
    EXPECT_TRUE(Utility::isStringParameterEmpty(parameters, "localServerIP"));
    parameters.setPersistentParam("localServerIP", std::string());
    EXPECT_TRUE(Utility::isStringParameterEmpty(parameters, "localServerIP"));
    parameters.setPersistentParam("localServerIP", std::string("192.0.2.1"));
    EXPECT_FALSE(Utility::isStringParameterEmpty(parameters, "localServerIP"));
    parameters.setPersistentParam("localServerIP", 7);
    EXPECT_THROW(Utility::isStringParameterEmpty(parameters, "localServerIP"), boost::bad_any_cast);
}

TEST(ParametersContainer, isReadWhileOthersWrite)
{
    ParametersContainer parameters;
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i)
            parameters.setPersistentParam("key", std::string(100, 'x'));
    });
    for (int i = 0; i < 500; ++i) {
        const auto value = parameters.get<std::string>("key");
        ASSERT_TRUE(!value || value->size() == 100U);
    }
    writer.join();
}

TEST(SimpleAdjuster, appliesWhatItKnowsAndLeavesTheRest)
{
    SimpleAdjuster adjuster;
    EXPECT_TRUE(adjuster.isEmpty());
    int port = 0;
    adjuster.add("localServerPort", [&port](const boost::any& value) { port = boost::any_cast<int>(value); });
    EXPECT_FALSE(adjuster.isEmpty());
    EXPECT_EQ(adjuster.apply({{"localServerPort", 40000}, {"unknown", 1}}), 0);
    EXPECT_EQ(port, 40000);
}

TEST(SimpleAdjuster, goesOnAfterARefusedValueAndSaysSo)
{
    SimpleAdjuster adjuster;
    bool applied = false;
    adjuster.add("a", [](const boost::any&) { throw std::runtime_error("no"); });
    adjuster.add("b", [&applied](const boost::any&) { applied = true; });
    EXPECT_EQ(adjuster.apply({{"a", 1}, {"b", 1}}), 3);
    EXPECT_TRUE(applied);
}

TEST(SimpleAdjuster, saysWhenItKnowsNoneOfTheNames)
{
    SimpleAdjuster adjuster;
    adjuster.add("a", nullptr);
    EXPECT_EQ(adjuster.apply({{"a", 1}, {"b", 1}}), 8);
    EXPECT_EQ(adjuster.apply({}), 0);
}
