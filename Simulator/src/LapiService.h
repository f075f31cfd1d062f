#pragma once

#include "Activity.h"
#include "Authentication.h"
#include "Fault.h"
#include "HttpExchange.h"
#include "Router.h"

namespace simulator
{

/// Decides how a LAPI request is answered: faults first, then credentials, then the resource. No socket; the I/O
/// context is the only one to use it.
class LapiService {
public:
    /// Nothing is owned; everything outlives the service.
    LapiService(const Router& router, Authenticator& authenticator, const FaultTable& faults, Activity& activity);

    HttpAnswer answer(const HttpQuestion& question, Authenticator::Clock::time_point now);

private:
    struct Draft {
        HttpAnswer answer;
        std::string remark;
        bool answered = true;
    };
    /// A fault that needs no resource to strike; nothing when none is in force.
    std::optional<Draft> faultBeforeResource(const std::string& request, const std::string& path) const;
    std::optional<Draft> refusal(const HttpQuestion& question, const std::string& path,
                                 Authenticator::Clock::time_point now);
    Draft resource(const HttpQuestion& question, const std::string& request, const std::string& path) const;

    const Router& router;
    Authenticator& authenticator;
    const FaultTable& faults;
    Activity& activity;
};

/// Answers the administration's requests: plain JSON, no credentials, no faults, no log.
HttpAnswer answerAdministration(const Router& router, const HttpQuestion& question);

}  // namespace simulator
