// The decompression that packages of "mksquashfs -comp lzo" need: squashfs's reader (libsquashfs) knows all
// compressors of the kernel but this one, whose only library binds whoever links it to its license.
//
// Any thread may call it. It keeps nothing.
#ifndef COMMON_FILES_LZO_H
#define COMMON_FILES_LZO_H

#include <cstddef>
#include <cstdint>
#include <optional>

namespace common
{

// Unpacks one whole LZO1X stream of `size` bytes into `room` bytes at `out`, and gives how many it came to.
// Nothing when the stream is damaged, or would not fit; what is at `out` is undefined then.
std::optional<std::size_t> unpackLzo(const std::uint8_t* in, std::size_t size, std::uint8_t* out,
                                     std::size_t room);

} // namespace common

#endif
