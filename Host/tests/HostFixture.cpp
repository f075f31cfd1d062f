#include "HostFixture.h"

#include "JsonText.h"

namespace Host
{
std::vector<std::string> HostFixture::commonArguments(const std::filesystem::path& module) const
{
    return {hostProgram(), "--repository", (directory / "repository").string(), "--module", module.string()};
}

ChildProcess& HostFixture::start(const std::vector<std::string>& arguments)
{
    std::vector<std::string> all = commonArguments(moduleFile("Sample.ipd"));
    all.insert(all.end(), arguments.begin(), arguments.end());
    child = std::make_unique<ChildProcess>(all, environment);
    return *child;
}

const ChildProcess& HostFixture::run(const std::vector<std::string>& arguments)
{
    status = start(arguments).awaitEnd();
    return *child;
}

const ChildProcess& HostFixture::runProgram(const std::vector<std::string>& arguments)
{
    child = std::make_unique<ChildProcess>(arguments, environment);
    child->closeInput();
    status = child->awaitEnd();
    return *child;
}

std::vector<Json::Value> HostFixture::getEvents() const
{
    return kelvo::test::parseJsonLines(child->output());
}

Json::Value HostFixture::getEvent(const std::string& name) const
{
    return kelvo::test::lastEvent(getEvents(), name);
}

std::string HostFixture::hostProgram()
{
    return kelvo::test::programUnderTest("kelvo-host");
}

std::filesystem::path HostFixture::moduleFile(const std::string& name)
{
    return kelvo::test::programUnderTest("../tests/modules/" + name);
}
}  // namespace Host
