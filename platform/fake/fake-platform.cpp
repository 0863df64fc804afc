#include "platform/fake/fake-platform.h"

#include <algorithm>

FakePlatform& fakePlatform()
{
    static auto* const platform = new FakePlatform; // never destroyed: detached threads may outlive main
    return *platform;
}

void FakePlatform::reset()
{
    const std::lock_guard<std::mutex> lock(mutex);
    state = State();
}

std::vector<std::string> FakePlatform::calls() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return state.calls;
}

std::vector<std::string> FakePlatform::callsSince(size_t first) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto begin = state.calls.begin() + static_cast<std::ptrdiff_t>(std::min(first, state.calls.size()));
    return {begin, state.calls.end()};
}

int FakePlatform::countCalls(const std::string& function) const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return static_cast<int>(
        std::count_if(state.calls.begin(), state.calls.end(),
                      [&](const std::string& call) { return call.rfind(function + "(", 0) == 0; }));
}

void FakePlatform::answer(const std::string& function, int result)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.answers[function].always = result;
}

void FakePlatform::answerInTurn(const std::string& function, std::vector<int> results)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.answers[function].inTurn.assign(results.begin(), results.end());
}

void FakePlatform::onCall(const std::string& function, std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(mutex);
    state.actions[function] = std::move(action);
}

std::optional<int> FakePlatform::enter(const std::string& function, const std::string& arguments,
                                       const std::string& key)
{
    std::function<void()> action;
    std::optional<int> scripted;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        state.calls.push_back(function + "(" + arguments + ")");
        const auto known = state.actions.find(function);
        action = known != state.actions.end() ? known->second : nullptr;
        const std::string scriptOfKey = function + ":" + key;
        for (const std::string& script : {scriptOfKey, function}) {
            const auto answers = state.answers.find(script);
            if (scripted || answers == state.answers.end()) {
                continue;
            }
            scripted = answers->second.always;
            if (!answers->second.inTurn.empty()) {
                scripted = answers->second.inTurn.front();
                answers->second.inTurn.pop_front();
            }
        }
    }
    if (action) {
        action();
    }
    return scripted;
}
