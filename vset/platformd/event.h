// What one part of the set tells whoever listens. All of it happens on the main thread.
#ifndef VSET_PLATFORMD_EVENT_H
#define VSET_PLATFORMD_EVENT_H

#include <functional>
#include <utility>
#include <vector>

namespace vset
{

template <typename... Values>
class Event
{
public:
    // Listeners stay as long as the event; they are called in the order in which they came.
    void connect(std::function<void(Values...)> listener) { listeners_.push_back(std::move(listener)); }

    void tell(Values... values) const
    {
        for (const auto& listener : listeners_) {
            listener(values...);
        }
    }

private:
    std::vector<std::function<void(Values...)>> listeners_;
};

} // namespace vset

#endif
