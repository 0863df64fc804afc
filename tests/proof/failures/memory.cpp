// Memory that the daemon asks for, itself or within a library that it uses.
#include <cerrno>
#include <cstdlib>
#include <new>

#include "tests/proof/process/failing.h"

namespace
{

void* take(std::size_t size) noexcept
{
    static constexpr proof::failing::Result results[] = {{"ENOMEM", 0, ENOMEM}};
    return proof::failing::ask("new", results) != nullptr ? nullptr : malloc(size > 0 ? size : 1);
}

void* takeOrThrow(std::size_t size)
{
    void* const memory = take(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

void* operator new(std::size_t size)
{
    return takeOrThrow(size);
}

void* operator new[](std::size_t size)
{
    return takeOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return take(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return take(size);
}

void operator delete(void* memory) noexcept
{
    free(memory);
}

void operator delete[](void* memory) noexcept
{
    free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    free(memory);
}
