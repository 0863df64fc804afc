// Where the hardware holds the image behind an update that nothing has disturbed.
#ifndef TOOLS_FWMOD_CHECK_PROTOCOL_HOLDING_H
#define TOOLS_FWMOD_CHECK_PROTOCOL_HOLDING_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fwmod
{

// A piece of the image, and where it was found.
struct HeldPart {
    std::uint64_t begin = 0; // in the image
    std::uint64_t size = 0;
    std::string path; // the set's
    std::uint64_t position = 0;
};

struct Holding {
    // The files that are the image, or where there is none, those with the image in them: the set's paths,
    // and sizes.
    std::map<std::string, std::uint64_t> files;

    // Where no file has the whole image, nearly all of it: without a head, or in blocks with something
    // between them.
    std::vector<HeldPart> parts;

    bool isKnown() const { return !files.empty() || !parts.empty(); }
    const std::string& firstPath() const { return files.empty() ? parts.front().path : files.begin()->first; }
};

} // namespace fwmod

#endif
