// Memory for a call's argument that ends at a page's end, with a page behind it (and one before it) that
// nobody may touch: an overrun by one byte is a fault at once, and its address tells whose it was.
#ifndef COMMON_PROCESS_GUARDED_BUFFER_H
#define COMMON_PROCESS_GUARDED_BUFFER_H

#include <cstddef>
#include <string>

namespace common
{

class GuardedBuffer
{
public:
    // `name` is for reports ("the version"); it must outlive the buffer. Filled with kPoison.
    GuardedBuffer(const char* name, std::size_t size);
    // Holds the text and its terminator, and cannot be written.
    GuardedBuffer(const char* name, const std::string& text);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    static constexpr unsigned char kPoison = 0xA5; // no terminator, no sensible number

    template <typename T>
    T* as()
    {
        return reinterpret_cast<T*>(data_);
    }
    void fill(unsigned char byte);
    void makeReadOnly();
    bool isAll(unsigned char byte) const;
    // The text in it, or everything when there is no terminator.
    std::string text() const;
    bool isTerminated() const;
    // Bytes between the page's begin and the buffer, where a write before the buffer lands.
    bool isTouchedBefore() const;

    // For the crash handler: whether the address lies in some buffer's guard pages, in a buffer of an earlier
    // call, or in one that was to be read alone, said in words.
    enum class Hit { None, Guard, Stale, Inside };
    static Hit describeHit(const void* address, char* words, std::size_t size);

private:
    std::size_t size_;
    std::size_t mapped_; // guard pages included
    unsigned char* memory_;
    unsigned char* data_;
};

} // namespace common

#endif
