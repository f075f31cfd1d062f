#include "platform/Interrupt.h"

#include "ExitStatus.h"

#include <cstdlib>

#if defined(_WIN32)
#include <functional>
#include <windows.h>
#else
#include <csignal>
#include <pthread.h>
#endif

namespace Host
{
void Interrupt::onSignal() noexcept
{
    if (!source.request_stop())
        std::_Exit(static_cast<int>(ExitStatus::interrupted));
}

#if defined(_WIN32)
namespace
{
std::function<void()> onControl;  // set before the handler is installed and cleared after it is removed

BOOL WINAPI controlHandler(DWORD) noexcept
{
    onControl();  // on a thread that Windows makes for it
    return TRUE;
}
}  // namespace

Interrupt::Interrupt()
{
    onControl = [this] { onSignal(); };
    SetConsoleCtrlHandler(controlHandler, TRUE);
}

Interrupt::~Interrupt()
{
    SetConsoleCtrlHandler(controlHandler, FALSE);
    onControl = nullptr;
}
#else
namespace
{
sigset_t watchedSignals() noexcept
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}
}  // namespace

Interrupt::Interrupt()
{
    const sigset_t signals = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    watcher = std::thread([this, signals] {
        for (int number = 0; sigwait(&signals, &number) == 0 && !finished.stop_requested();)
            onSignal();
    });
}

Interrupt::~Interrupt()
{
    finished.request_stop();
    pthread_kill(watcher.native_handle(), SIGTERM);  // wakes the watcher, and only it
    watcher.join();
}
#endif
}  // namespace Host
