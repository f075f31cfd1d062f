#include "settings/Path.h"
#include "settings/Utf8.h"
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/RepositoryReader.h>
#include <Tavro8/ResultCode.h>
#include <boost/property_tree/ini_parser.hpp>
#include <fstream>
#include <sstream>

namespace Tavro8::Utility
{
namespace
{
constexpr const char* loadOperation = "Tavro8::Utility::RepositoryReader::load";
constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";  // some editors put it in front of UTF-8 text
constexpr std::size_t maxBytes = 1024U * 1024U;             // settings are a few lines; anything larger is another file

/// Why a repository could not be loaded, and the result that says so.
struct Failure {
    ResultCode result;
    std::string reason;
};

std::string readFile(const std::wstring& name)
{
    const std::filesystem::path path = toPath(name);
    if (std::error_code ec; std::filesystem::is_directory(path, ec))  // opening one succeeds on some systems
        throw Failure{ResultCode::notFound, "it is a directory"};
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw Failure{ResultCode::notFound, "cannot open file"};
    std::string text(maxBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad())
        throw Failure{ResultCode::notFound, "cannot read file"};
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > maxBytes)
        throw Failure{ResultCode::invalidArgument, "too large for a settings file"};
    return text;
}

/// The tree is walked and not asked by path, since a path would split keys at their dots.
ParameterMap collect(const boost::property_tree::ptree& tree)
{
    ParameterMap found;
    for (const auto& [name, node] : tree) {
        if (node.empty())
            found[name] = node.data();
        for (const auto& [key, value] : node)
            found[name + "." + key] = value.data();
    }
    return found;
}

ParameterMap parse(std::string text)
{
    if (text.starts_with(byteOrderMark))
        text.erase(0, byteOrderMark.size());
    if (!isUtf8(text))
        throw Failure{ResultCode::invalidArgument, "not UTF-8 text"};
    std::istringstream stream(std::move(text));
    stream.imbue(std::locale::classic());
    boost::property_tree::ptree tree;
    try {
        boost::property_tree::read_ini(stream, tree);
    } catch (const boost::property_tree::ini_parser_error& e) {
        throw Failure{ResultCode::invalidArgument, "line " + std::to_string(e.line()) + ": " + e.message()};
    }
    return collect(tree);
}
}  // namespace

std::wstring RepositoryReader::join(const std::wstring& moduleIdentifier, const std::wstring& fileName) const
{
    // Joined as text: an identifier that looks like an absolute path must not replace the directory.
    constexpr wchar_t separator = std::filesystem::path::preferred_separator;
    const wchar_t* directory = context == nullptr ? nullptr : context->GetRepositoryDirectory();
    return (directory == nullptr ? std::wstring() : directory + std::wstring(1, separator)) + moduleIdentifier +
           separator + fileName;
}

int RepositoryReader::load(const std::wstring& path, ParameterMap& target) const
{
    const LoggerHelper logger(context == nullptr ? nullptr : context->GetLogger(),
                              "IpUtil/src/settings/RepositoryReader");
    const auto fail = [&](ResultCode result, const std::string& reason) {
        logger.error(loadOperation, "Cannot load settings repository '", toNarrow(path), "': ", reason);
        return toResult(result);
    };
    return guarded(logger, loadOperation, toResult(ResultCode::unexpected), [&] {
        try {
            for (auto& [key, value] : parse(readFile(path)))
                target[key] = std::move(value);
            return toResult(ResultCode::success);
        } catch (const Failure& failure) {
            return fail(failure.result, failure.reason);
        }
    });
}
}  // namespace Tavro8::Utility
