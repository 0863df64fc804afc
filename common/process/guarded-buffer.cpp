#include "common/process/guarded-buffer.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <sys/mman.h>
#include <unistd.h>

namespace common
{

namespace
{
// The buffers in use, where the crash handler finds them without a lock.
struct Entry {
    const char* name;
    std::uintptr_t begin; // of the front guard
    std::uintptr_t data;
    std::uintptr_t end;  // of the buffer, where the rear guard begins
    std::size_t mapped;  // guards included
    unsigned long since; // when it was released, in a count of releases; 0 while it is in use
};
constexpr std::size_t kMostBuffers = 128;
Entry allBuffers[kMostBuffers];
unsigned long releases = 0;
std::mutex entriesMutex;

std::size_t pageSize()
{
    static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

void enter(const Entry& entry)
{
    const std::lock_guard<std::mutex> lock(entriesMutex);
    Entry* free = nullptr;
    for (Entry& candidate : allBuffers) {
        const bool isFree = candidate.name == nullptr || candidate.since != 0;
        if (isFree && (free == nullptr || candidate.since < free->since)) {
            free = &candidate;
        }
    }
    if (free == nullptr) {
        throw std::bad_alloc();
    }
    if (free->name != nullptr) {
        munmap(reinterpret_cast<void*>(free->begin), free->mapped);
    }
    *free = entry;
}

// Its addresses stay taken for some time, so that a library that still uses them is found out.
void leave(std::uintptr_t data)
{
    const std::lock_guard<std::mutex> lock(entriesMutex);
    for (Entry& entry : allBuffers) {
        if (entry.name == nullptr || entry.data != data || entry.since != 0) {
            continue;
        }
        void* const memory = reinterpret_cast<void*>(entry.begin);
        madvise(memory, entry.mapped, MADV_DONTNEED);
        mprotect(memory, entry.mapped, PROT_NONE);
        entry.since = ++releases;
    }
}
} // namespace

GuardedBuffer::GuardedBuffer(const char* name, std::size_t size) : size_(size)
{
    const std::size_t page = pageSize();
    const std::size_t inner = std::max((size + page - 1) / page, std::size_t{1}) * page;
    mapped_ = inner + 2 * page;
    void* const memory = mmap(nullptr, mapped_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    memory_ = static_cast<unsigned char*>(memory);
    if (mprotect(memory_ + page, inner, PROT_READ | PROT_WRITE) != 0) {
        throw std::bad_alloc();
    }
    data_ = memory_ + page + inner - size;
    std::memset(memory_ + page, kPoison, inner);
    const auto begin = reinterpret_cast<std::uintptr_t>(memory_);
    const auto data = reinterpret_cast<std::uintptr_t>(data_);
    enter({name, begin, data, data + size, mapped_, 0});
}

GuardedBuffer::GuardedBuffer(const char* name, const std::string& text) : GuardedBuffer(name, text.size() + 1)
{
    std::memcpy(data_, text.c_str(), text.size() + 1);
    makeReadOnly();
}

GuardedBuffer::~GuardedBuffer()
{
    leave(reinterpret_cast<std::uintptr_t>(data_));
}

void GuardedBuffer::fill(unsigned char byte)
{
    std::memset(data_, byte, size_);
}

void GuardedBuffer::makeReadOnly()
{
    const std::size_t page = pageSize();
    mprotect(memory_ + page, mapped_ - 2 * page, PROT_READ);
}

bool GuardedBuffer::isAll(unsigned char byte) const
{
    return std::all_of(data_, data_ + size_, [byte](unsigned char c) { return c == byte; });
}

std::string GuardedBuffer::text() const
{
    return {data_, std::find(data_, data_ + size_, '\0')};
}

bool GuardedBuffer::isTerminated() const
{
    return std::find(data_, data_ + size_, '\0') != data_ + size_;
}

bool GuardedBuffer::isTouchedBefore() const
{
    return std::any_of(memory_ + pageSize(), data_, [](unsigned char c) { return c != kPoison; });
}

GuardedBuffer::Hit GuardedBuffer::describeHit(const void* address, char* words, std::size_t size)
{
    const auto hit = reinterpret_cast<std::uintptr_t>(address);
    const std::size_t page = pageSize();
    for (const Entry& entry : allBuffers) {
        if (entry.name == nullptr) {
            continue;
        }
        if (entry.since != 0 && hit >= entry.begin && hit < entry.begin + entry.mapped) {
            std::snprintf(words, size, "%s of an earlier call was touched", entry.name);
            return Hit::Stale;
        }
        if (hit >= entry.end && hit < entry.end + page) {
            std::snprintf(words, size, "byte %zu behind the %zu of %s was touched",
                          static_cast<std::size_t>(hit - entry.end + 1),
                          static_cast<std::size_t>(entry.end - entry.data), entry.name);
            return Hit::Guard;
        }
        if (hit >= entry.begin && hit < entry.begin + page) {
            std::snprintf(words, size, "byte %zu before %s was touched",
                          static_cast<std::size_t>(entry.data - hit), entry.name);
            return Hit::Guard;
        }
        if (hit >= entry.begin && hit < entry.end) {
            std::snprintf(words, size, "%s was written to, which is the daemon's", entry.name);
            return Hit::Inside;
        }
    }
    return Hit::None;
}
} // namespace common
