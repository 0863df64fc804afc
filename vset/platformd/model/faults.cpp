#include "vset/platformd/model/faults.h"

namespace vset
{

void Faults::setResult(const std::string& call, const std::string& argument, int result, int count)
{
    set(results_, call, argument, {result, count, 0});
}

void Faults::setDelay(const std::string& call, const std::string& argument, unsigned int milliseconds,
                      int count)
{
    set(delays_, call, argument, {milliseconds, count, 0});
}

void Faults::set(Orders& orders, const std::string& call, const std::string& argument, const Order& order)
{
    if (order.left == 0) {
        orders.erase({call, argument});
    } else {
        orders[{call, argument}] = order;
    }
    changed.tell();
}

void Faults::reset(const std::string& call)
{
    for (Orders* orders : {&results_, &delays_}) {
        for (auto order = orders->begin(); order != orders->end();) {
            const bool isMeant = call.empty() || order->first.first == call;
            order = isMeant ? orders->erase(order) : std::next(order);
        }
    }
    changed.tell();
}

Faults::Verdict Faults::take(const std::string& call, const std::string& argument)
{
    Verdict verdict;
    if (const auto result = hit(results_, call, argument)) {
        verdict.result = static_cast<int>(*result);
    }
    if (const auto delay = hit(delays_, call, argument)) {
        verdict.delay = static_cast<unsigned int>(*delay);
    }
    return verdict;
}

// An order for this very argument goes before one for any.
std::optional<int64_t> Faults::hit(Orders& orders, const std::string& call, const std::string& argument)
{
    auto found = orders.find({call, argument});
    if (found == orders.end()) {
        found = orders.find({call, ""});
    }
    if (found == orders.end()) {
        return std::nullopt;
    }
    Order& order = found->second;
    const int64_t value = order.value;
    ++order.hits;
    if (order.left > 0 && --order.left == 0) {
        orders.erase(found);
    }
    changed.tell();
    return value;
}

Json::Value Faults::snapshot() const
{
    Json::Value json = Json::arrayValue;
    const auto append = [&](const Orders& orders, const char* valueName) {
        for (const auto& [key, order] : orders) {
            Json::Value entry;
            entry["call"] = key.first;
            entry["argument"] = key.second;
            entry[valueName] = Json::Int64(order.value);
            entry["left"] = order.left;
            entry["hits"] = Json::Int64(order.hits);
            json.append(entry);
        }
    };
    append(results_, "result");
    append(delays_, "delay_ms");
    return json;
}

} // namespace vset
