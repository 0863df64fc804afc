// A part of work that several machines share: "2/8", the second of eight.
#ifndef COMMON_TERMINAL_SHARD_H
#define COMMON_TERMINAL_SHARD_H

#include <cstdint>
#include <string>

namespace common
{

struct Shard {
    unsigned int number = 1;
    unsigned int of = 1;

    bool isWhole() const { return of == 1; }
    // Each piece of work is of one shard; it is told by any number of its own.
    bool has(uint64_t piece) const { return piece % of == number - 1; }
};

// As a person writes it; WrongUse for what is none, and the whole for an empty text.
Shard shardFrom(const std::string& text);

} // namespace common

#endif
