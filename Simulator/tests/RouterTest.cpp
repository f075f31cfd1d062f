#include "Router.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

/// Answers with its name, so that tests see who was called.
Handler named(const std::string& name)
{
    return [name](const Call&) { return Reply{.text = name}; };
}

class RouterTest : public testing::Test {
protected:
    RouterTest()
    {
        router.add("GET", "/a/b", named("get b"));
        router.add("PUT", "/a/b", named("put b"));
        router.add("GET", "/a/{}/c/{}", named("captures"));
    }

    std::string answerTo(std::string_view method, std::string_view path) const
    {
        const auto match = router.find(method, path);
        return match.handler == nullptr ? "nobody" : (*match.handler)({}).text;
    }

    Router router;
};

TEST_F(RouterTest, choosesByMethodAndPath)
{
    EXPECT_EQ(answerTo("GET", "/a/b"), "get b");
    EXPECT_EQ(answerTo("PUT", "/a/b"), "put b");
    EXPECT_EQ(answerTo("DELETE", "/a/b"), "nobody");
    for (const char* path : {"/a", "/a/b/", "/a/B", "a/b", "", "/", "//a/b", "/a/b/c"})
        EXPECT_EQ(answerTo("GET", path), "nobody") << path;
}

TEST_F(RouterTest, capturesPathElements)
{
    const auto match = router.find("GET", "/a/12/c/x%20y");
    ASSERT_NE(match.handler, nullptr);
    EXPECT_EQ(match.captures, (std::vector<std::string>{"12", "x%20y"}));
    EXPECT_EQ(answerTo("GET", "/a//c/1"), "nobody") << "an empty element is no capture";
}

TEST_F(RouterTest, tellsAnUnknownPathFromAnUnknownMethod)
{
    EXPECT_TRUE(router.find("DELETE", "/a/b").pathKnown);
    EXPECT_FALSE(router.find("GET", "/a/z").pathKnown);
}

TEST_F(RouterTest, prefersTheEarlierRoute)
{
    router.add("GET", "/a/{}", named("later"));
    EXPECT_EQ(answerTo("GET", "/a/b"), "get b");
    EXPECT_EQ(answerTo("GET", "/a/z"), "later");
}

}  // namespace
}  // namespace simulator
