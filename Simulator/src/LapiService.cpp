#include "LapiService.h"

#include "LapiEnvelope.h"
#include "Replies.h"

#include <utility>

namespace simulator
{
namespace
{

Call makeCall(const HttpQuestion& question)
{
    const auto mark = question.target.find('?');
    Call call;
    call.method = question.method;
    call.path = question.target.substr(0, mark);
    if (mark != std::string::npos)
        call.query = question.target.substr(mark + 1);
    call.body = question.body;
    call.deviceAddress = question.deviceAddress;
    return call;
}

Reply dispatch(const Router& router, Call call)
{
    auto match = router.find(call.method, call.path);
    if (match.handler == nullptr)
        return unknownPath(match.pathKnown ? "Method not supported" : "Common Error");
    call.captures = std::move(match.captures);
    return (*match.handler)(call);
}

HttpAnswer answerWith(const std::string& path, const Reply& reply)
{
    HttpAnswer answer;
    answer.status = reply.status;
    answer.body = lapiEnvelope(path, reply);
    answer.afterwards = reply.afterwards;
    return answer;
}

}  // namespace

LapiService::LapiService(const Router& routerToUse, Authenticator& authenticatorToUse, const FaultTable& faultsToUse,
                         Activity& activityToUse)
    : router(routerToUse), authenticator(authenticatorToUse), faults(faultsToUse), activity(activityToUse)
{}

HttpAnswer LapiService::answer(const HttpQuestion& question, Authenticator::Clock::time_point now)
{
    const std::string path = question.target.substr(0, question.target.find('?'));
    const std::string request = question.method + ' ' + question.target;

    auto draft = faultBeforeResource(request, path);
    if (!draft)
        draft = refusal(question, path, now);
    if (!draft)
        draft = resource(question, request, path);

    if (const auto slow = faults.find(FaultKind::slow, request))
        draft->answer.delay = std::chrono::milliseconds(slow->argument);
    if (const auto drip = faults.find(FaultKind::drip, request);
        drip && draft->answer.manner == HttpAnswer::Manner::whole) {
        draft->answer.manner = HttpAnswer::Manner::dripped;
        draft->answer.dripInterval = std::chrono::milliseconds(drip->argument);
    }
    activity.record({question.peer, question.method, question.target,
                     question.authorization.substr(0, question.authorization.find(' ')), question.body,
                     draft->answered ? draft->answer.status : 0, draft->remark});
    return std::move(draft->answer);
}

std::optional<LapiService::Draft> LapiService::faultBeforeResource(const std::string& request,
                                                                   const std::string& path) const
{
    const std::pair<FaultKind, HttpAnswer::Manner> unanswered[] = {
        {FaultKind::hang, HttpAnswer::Manner::silent},
        {FaultKind::close, HttpAnswer::Manner::closed},
        {FaultKind::garbage, HttpAnswer::Manner::garbage},
    };
    for (const auto& [kind, manner] : unanswered) {
        if (const auto fault = faults.find(kind, request)) {
            Draft draft{{}, fault->text, false};
            draft.answer.manner = manner;
            return draft;
        }
    }
    if (const auto fault = faults.find(FaultKind::status, request))
        return Draft{answerWith(path, {.status = fault->argument, .code = 1, .text = "Simulated fault"}), fault->text};
    return std::nullopt;
}

std::optional<LapiService::Draft> LapiService::refusal(const HttpQuestion& question, const std::string& path,
                                                       Authenticator::Clock::time_point now)
{
    const auto verdict = authenticator.judge(question.authorization, question.method, question.target, now);
    if (verdict == Authenticator::Verdict::accepted)
        return std::nullopt;
    Draft draft{answerWith(path, {.status = 401, .code = 1, .text = "Not Authorized"}), describe(verdict)};
    const auto challenge = authenticator.challenge(verdict, now);
    for (const auto& value : {challenge.digest, challenge.basic})
        if (value)
            draft.answer.challenges.push_back(*value);
    return draft;
}

LapiService::Draft LapiService::resource(const HttpQuestion& question, const std::string& request,
                                         const std::string& path) const
{
    Reply reply = dispatch(router, makeCall(question));
    std::string remark;
    const auto strikes = [&](FaultKind kind) {
        auto fault = faults.find(kind, request);
        if (fault)
            remark = fault->text;
        return fault;
    };

    if (const auto fault = strikes(FaultKind::apiError)) {
        reply.status = 200;
        reply.code = static_cast<int>(fault->argument);
        reply.text = "Simulated fault";
    }
    if (strikes(FaultKind::emptyData))
        reply.data = Json::Value(Json::objectValue);
    HttpAnswer answer = answerWith(path, reply);
    if (strikes(FaultKind::noData))
        answer.body = lapiEnvelope(path, reply, false);
    if (strikes(FaultKind::brokenJson))
        answer.body.resize(answer.body.size() / 2);
    if (strikes(FaultKind::emptyBody)) {
        answer.status = 200;
        answer.body.clear();
    }
    if (const auto fault = strikes(FaultKind::truncate)) {
        answer.manner = HttpAnswer::Manner::truncated;
        if (fault->argument != 0)
            answer.status = fault->argument;
    }
    return {std::move(answer), remark};
}

HttpAnswer answerAdministration(const Router& router, const HttpQuestion& question)
{
    Reply reply = dispatch(router, makeCall(question));
    HttpAnswer answer;
    answer.status = reply.status == unknownPath({}).status ? 404 : reply.status;
    if (reply.code != 0) {
        reply.data = Json::Value(Json::objectValue);
        reply.data["error"] = reply.text;
    }
    answer.body = prettyPrint(reply.data) + '\n';
    answer.afterwards = reply.afterwards;
    return answer;
}

}  // namespace simulator
