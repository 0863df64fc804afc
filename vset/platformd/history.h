// The latest entries of something that goes on for ever.
#ifndef VSET_PLATFORMD_HISTORY_H
#define VSET_PLATFORMD_HISTORY_H

#include <cstddef>
#include <deque>
#include <utility>

namespace vset
{

template <typename Entry>
class History
{
public:
    static constexpr size_t kKept = 500;

    void add(Entry entry)
    {
        entries_.push_back(std::move(entry));
        if (entries_.size() > kKept) {
            entries_.pop_front();
        }
    }

    auto begin() const { return entries_.begin(); }
    auto end() const { return entries_.end(); }
    auto begin() { return entries_.begin(); }
    auto end() { return entries_.end(); }
    bool empty() const { return entries_.empty(); }
    Entry& back() { return entries_.back(); }

private:
    std::deque<Entry> entries_;
};

} // namespace vset

#endif
