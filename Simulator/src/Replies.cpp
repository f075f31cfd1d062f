#include "Replies.h"

#include <utility>

namespace simulator
{

Reply withData(Json::Value data)
{
    return {.data = std::move(data)};
}

Reply invalidArguments(const std::string& why, unsigned status)
{
    return {.status = status, .code = 2, .text = "Invalid Arguments: " + why};
}

Reply unknownPath(const std::string& why)
{
    return {.status = 599, .code = 1, .text = why};
}

Reply badRequest(const std::string& why)
{
    return {.status = 400, .code = 1, .text = why};
}

}  // namespace simulator
