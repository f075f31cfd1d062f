#include "HostFixture.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using testing::HasSubstr;

class ModuleLoad : public testing::Test, protected HostFixture {
protected:
    void expectRefused(const std::filesystem::path& module, const std::string& reason)
    {
        SCOPED_TRACE(module);
        std::vector<std::string> arguments = commonArguments(module);
        arguments.insert(arguments.end(), {"--device", "camera", "info"});
        const ChildProcess& host = runProgram(arguments);
        EXPECT_EQ(status, 4);
        EXPECT_THAT(host.errors(), HasSubstr(reason));
        EXPECT_EQ(host.output(), "");
    }
};

TEST_F(ModuleLoad, refusesWhatIsNoModuleWithAReason)
{
    std::ofstream(directory / "text.ipd") << "not a library";
    expectRefused(directory / "absent.ipd", "there is no module");
    expectRefused(directory / "text.ipd", "cannot be loaded as a module");
    expectRefused(directory.get(), "cannot be loaded as a module");
}

TEST_F(ModuleLoad, refusesAModuleWithoutAllEntryPoints)
{
    expectRefused(moduleFile("BrokenWITHOUT_FINI.ipd"), "it exports no finiModule");
}

TEST_F(ModuleLoad, refusesAModuleThatDoesNotStart)
{
    expectRefused(moduleFile("BrokenREFUSING.ipd"), "initModule returned false");
    expectRefused(moduleFile("BrokenWITHOUT_OBJECT.ipd"), "offers no module object");
}

TEST_F(ModuleLoad, refusesAModuleOfAnotherSdkVersion)
{
    expectRefused(moduleFile("BrokenLATER.ipd"), "was built for version 2.7 of the host SDK");
}

TEST_F(ModuleLoad, findsAModuleNamedWithoutADirectory)
{
    std::filesystem::copy_file(moduleFile("Sample.ipd"), directory / "Sample.ipd");
    const std::string command = "cd '" + directory.get().string() + "' && exec '" + hostProgram() +
                                "' --repository . --module Sample.ipd --device camera info";
    runProgram({"sh", "-c", command});
    EXPECT_EQ(status, 0) << child->errors();
}

TEST_F(ModuleLoad, saysThatTheSettingsRepositoryCannotBeWritten)
{
    std::ofstream(directory / "repository") << "a file where a directory is wanted";
    const ChildProcess& host = run({"--device", "camera", "info"});
    EXPECT_EQ(status, 4);
    EXPECT_THAT(host.errors(), HasSubstr("cannot write the settings repository"));
}
}  // namespace
}  // namespace Host
