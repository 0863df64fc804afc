#include "common/terminal/shard.h"

#include "common/terminal/command-line.h"

namespace common
{

Shard shardFrom(const std::string& text)
{
    constexpr Range<unsigned int> kNumbers{1, 100000};
    if (text.empty()) {
        return {};
    }
    const std::size_t slash = text.find('/');
    if (slash == std::string::npos) {
        throw WrongUse("--shard " + text + ": it is written 2/8, the second of eight");
    }
    const Shard shard{numberFrom(text.substr(0, slash), kNumbers),
                      numberFrom(text.substr(slash + 1), kNumbers)};
    if (shard.number > shard.of) {
        throw WrongUse("--shard " + text + ": there are only " + std::to_string(shard.of));
    }
    return shard;
}

} // namespace common
