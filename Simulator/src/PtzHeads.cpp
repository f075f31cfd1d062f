#include "PtzHeads.h"

#include <iomanip>
#include <locale>
#include <sstream>

namespace simulator
{

std::string PtzHeads::caption(unsigned channel) const
{
    PtzView view;
    {
        const std::lock_guard lock(mutex);
        view = rounded(heads.at(channel).view(clock()));
    }
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << std::fixed << std::setprecision(2) << "pan " << view.pan << "\ntilt " << view.tilt << "\nzoom " << view.zoom;
    return out.str();
}

Json::Value PtzHeads::state() const
{
    const std::lock_guard lock(mutex);
    const PtzTime now = clock();
    Json::Value list(Json::arrayValue);
    for (const PtzHead& head : heads)
        list.append(head.state(now));
    return list;
}

}  // namespace simulator
