#include "service/ThreadName.h"
#if defined(_WIN32)
#include <windows.h>
#elif defined(__linux__)
#include <pthread.h>
#endif

namespace Tavro8::Utility
{
void nameThisThread([[maybe_unused]] const char* name) noexcept
{
#if defined(_WIN32)
    wchar_t wide[16] = {};
    for (int i = 0; i < 15 && name[i] != '\0'; ++i)
        wide[i] = static_cast<wchar_t>(name[i]);
    static_cast<void>(SetThreadDescription(GetCurrentThread(), wide));
#elif defined(__linux__)
    static_cast<void>(pthread_setname_np(pthread_self(), name));
#endif
}
}  // namespace Tavro8::Utility
