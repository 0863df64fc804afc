#include "common/files/lzo.h"

#include <algorithm>

namespace common
{

namespace
{
struct Damaged {
};

// How many literals the last instruction has copied, which changes what a small one means.
constexpr unsigned kAfterLiterals = 4; // four or more of them, by an instruction of their own

struct Match {
    std::size_t distance; // back from where the output ends
    std::size_t length;
    unsigned literals; // that follow it, 0 to 3
};

class Stream
{
public:
    Stream(const std::uint8_t* in, std::size_t size, std::uint8_t* out, std::size_t room)
        : in_(in), inEnd_(in + size), begin_(out), out_(out), outEnd_(out + room)
    {
    }
    std::size_t unpack();

private:
    unsigned next() { return in_ != inEnd_ ? *in_++ : throw Damaged(); }
    std::size_t lengthOf(unsigned bits, unsigned most);
    void takeDistance(Match& match);
    Match readMatch(unsigned code, unsigned state);
    void copyLiterals(std::size_t count);
    void copyMatch(const Match& match);

    const std::uint8_t* in_;
    const std::uint8_t* inEnd_;
    std::uint8_t* begin_;
    std::uint8_t* out_;
    std::uint8_t* outEnd_;
};

// `bits` of an instruction, of at most `most`; 0 stands for more than that, and bytes for how much more.
std::size_t Stream::lengthOf(unsigned bits, unsigned most)
{
    if (bits != 0) {
        return bits;
    }
    std::size_t length = most;
    unsigned byte = next();
    for (; byte == 0; byte = next()) {
        length += 255;
    }
    return length + byte;
}

// The two bytes behind a match that reaches far.
void Stream::takeDistance(Match& match)
{
    const unsigned low = next();
    match.distance += (low >> 2) + (next() << 6);
    match.literals = low & 3;
}

Match Stream::readMatch(unsigned code, unsigned state)
{
    if (code >= 64) {
        return {(next() << 3) + ((code >> 2) & 7) + 1, (code >> 5) + 1, code & 3};
    }
    if (code >= 16) {
        const bool isNear = code >= 32;
        Match match{};
        match.length = 2 + (isNear ? lengthOf(code & 31, 31) : lengthOf(code & 7, 7));
        match.distance = isNear ? 1 : 16384 + ((code & 8) << 11);
        takeDistance(match);
        return match;
    }
    const unsigned distance = (next() << 2) + (code >> 2) + 1;
    return state == kAfterLiterals ? Match{distance + 2048, 3, code & 3} : Match{distance, 2, code & 3};
}

void Stream::copyLiterals(std::size_t count)
{
    if (count > static_cast<std::size_t>(inEnd_ - in_) || count > static_cast<std::size_t>(outEnd_ - out_)) {
        throw Damaged();
    }
    out_ = std::copy_n(in_, count, out_);
    in_ += count;
}

// Byte by byte: a match may reach into what it writes itself.
void Stream::copyMatch(const Match& match)
{
    if (match.distance > static_cast<std::size_t>(out_ - begin_) ||
        match.length > static_cast<std::size_t>(outEnd_ - out_)) {
        throw Damaged();
    }
    for (const std::uint8_t* end = out_ + match.length; out_ != end; ++out_) {
        *out_ = *(out_ - match.distance);
    }
}

std::size_t Stream::unpack()
{
    constexpr unsigned kFirstLiterals = 17; // and above, in the first instruction only
    constexpr std::size_t kEnd = 16384;     // a distance that no match has
    unsigned state = 0;
    if (in_ != inEnd_ && *in_ > kFirstLiterals) {
        const unsigned count = next() - kFirstLiterals;
        copyLiterals(count);
        state = std::min(count, kAfterLiterals);
    }
    while (true) {
        const unsigned code = next();
        if (code < 16 && state == 0) {
            copyLiterals(lengthOf(code, 15) + 3);
            state = kAfterLiterals;
            continue;
        }
        const Match match = readMatch(code, state);
        if (code >= 16 && code < 32 && match.distance == kEnd) {
            return in_ == inEnd_ ? static_cast<std::size_t>(out_ - begin_) : throw Damaged();
        }
        copyMatch(match);
        copyLiterals(match.literals);
        state = match.literals;
    }
}
} // namespace

std::optional<std::size_t> unpackLzo(const std::uint8_t* in, std::size_t size, std::uint8_t* out,
                                     std::size_t room)
try {
    return Stream(in, size, out, room).unpack();
} catch (const Damaged&) {
    return std::nullopt;
}

} // namespace common
