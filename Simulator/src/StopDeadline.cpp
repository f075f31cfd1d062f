#include "StopDeadline.h"

#include <cstdlib>
#include <iostream>

namespace simulator
{

StopDeadline::StopDeadline(std::chrono::milliseconds limit)
    : watch([done = stopped.get_future(), limit] {
          if (done.wait_for(limit) == std::future_status::ready)
              return;
          std::cerr << "uniview-simulator: did not stop in time" << std::endl;
          std::_Exit(EXIT_FAILURE);  // destructors would join the threads that hang
      })
{}

StopDeadline::~StopDeadline()
{
    stopped.set_value();
    watch.join();
}

}  // namespace simulator
