#include <utility>  // ahead of Asio, which forgets it

#include "Log.h"
#include "Options.h"
#include "Simulator.h"
#include "StdinWatch.h"
#include "StopDeadline.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>

namespace
{

constexpr int couldNotStart = 1;
constexpr auto stopPatience = std::chrono::seconds(5);  // a busy machine takes its time over the pipelines

void runUntilToldToStop(simulator::Options options)
{
    const bool exitWithStdin = options.exitWithStdin;
    std::optional<simulator::StopDeadline> deadline;  // the last to go
    boost::asio::io_context context(1);
    simulator::Simulator simulator(context, std::move(options));

    boost::asio::signal_set signals(context, SIGINT, SIGTERM);
    std::optional<simulator::StdinWatch> stdinWatch;
    const auto stop = [&] {
        deadline.emplace(stopPatience);
        simulator.stop();
        signals.cancel();
        if (stdinWatch)
            stdinWatch->cancel();
        context.stop();  // an answer that a fault delays is not waited for
    };
    signals.async_wait([&](const boost::system::error_code& cancelled, int) {
        if (!cancelled)
            stop();
    });
    if (exitWithStdin)
        stdinWatch.emplace(context, stop);

    std::cout << simulator.readyLine() << std::endl;
    context.run();
}

}  // namespace

int main(int argc, char* argv[])
{
    try {
        const char* const password = std::getenv("KELVO_SIMULATOR_PASSWORD");
        auto parsed = simulator::parseOptions({argv + 1, argv + argc}, password != nullptr ? password : "");
        if (const auto* usage = std::get_if<simulator::Usage>(&parsed)) {
            (usage->exitStatus == 0 ? std::cout : std::cerr) << usage->text;
            return usage->exitStatus;
        }
        runUntilToldToStop(std::get<simulator::Options>(std::move(parsed)));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "uniview-simulator: " << error.what() << '\n';
        return couldNotStart;
    }
}
