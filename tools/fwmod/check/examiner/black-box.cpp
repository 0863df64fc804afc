#include "tools/fwmod/check/examiner/black-box.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cxxabi.h>
#include <exception>
#include <iterator>
#include <new>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

#include "common/process/guarded-buffer.h"

namespace fwmod::examiner
{

using common::GuardedBuffer;

namespace
{
constexpr std::size_t kStackSize = std::size_t{64} * 1024;

BlackBox* box = nullptr;
thread_local int ownCall = 0;

// What the library's calls run on.
struct Stack {
    std::uintptr_t low = 0;
    std::size_t size = 0;

    // Just below its end, or in its last page: a frame may be large.
    bool isUsedUpAt(const void* address) const
    {
        constexpr std::uintptr_t kBelow = 1 << 20;
        constexpr std::uintptr_t kAbove = 4096;
        const auto at = reinterpret_cast<std::uintptr_t>(address);
        return size > 0 && at >= low - kBelow && at < low + kAbove;
    }
};
thread_local Stack ownStack;

Stack stackOfThisThread()
{
    pthread_attr_t attributes;
    void* low = nullptr;
    Stack stack;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return stack;
    }
    if (pthread_attr_getstack(&attributes, &low, &stack.size) == 0) {
        stack.low = reinterpret_cast<std::uintptr_t>(low);
    }
    pthread_attr_destroy(&attributes);
    return stack;
}

void* map(std::size_t size, int sharing)
{
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, sharing | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return memory;
}

// The process is lost already; what counts is that the words get out.
void noteCrash(int signal, siginfo_t* information, void*)
{
    const bool isFault = information->si_code > 0; // else sent by somebody
    const auto hit =
        isFault ? GuardedBuffer::describeHit(information->si_addr, box->lastWords, sizeof box->lastWords)
                : GuardedBuffer::Hit::None;
    box->guardHit = hit == GuardedBuffer::Hit::Guard;
    box->staleHit = hit == GuardedBuffer::Hit::Stale;
    if (isFault && hit == GuardedBuffer::Hit::None && ownStack.isUsedUpAt(information->si_addr)) {
        std::snprintf(box->lastWords, sizeof box->lastWords, "the thread's stack of %zu KiB was used up",
                      ownStack.size / 1024);
    } else if (isFault && hit == GuardedBuffer::Hit::None) {
        std::snprintf(box->lastWords, sizeof box->lastWords, "address %p was touched", information->si_addr);
    }
    std::signal(signal, SIG_DFL);
    if (!isFault) {
        raise(signal); // a fault comes again by itself
    }
}

[[noreturn]] void noteTerminate()
{
    box->terminated = true;
    try {
        if (const std::exception_ptr exception = std::current_exception()) {
            std::rethrow_exception(exception);
        }
        std::snprintf(box->lastWords, sizeof box->lastWords, "std::terminate was called");
    } catch (const std::exception& error) {
        std::snprintf(box->lastWords, sizeof box->lastWords, "std::terminate after an exception: %s",
                      error.what());
    } catch (...) {
        std::snprintf(box->lastWords, sizeof box->lastWords, "std::terminate after an exception");
    }
    std::abort();
}
} // namespace

BlackBox& makeBlackBox()
{
    return *new (map(sizeof(BlackBox), MAP_SHARED)) BlackBox();
}

void openBlackBox(BlackBox& shared)
{
    box = &shared;
    shared.process = getpid();
    std::set_terminate(noteTerminate);
    struct sigaction action = {};
    action.sa_sigaction = noteCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int signal : {SIGSEGV, SIGBUS}) {
        sigaction(signal, &action, nullptr);
    }
}

CallingThread::CallingThread(int index) : stack_(map(kStackSize, MAP_PRIVATE))
{
    ownCall = index;
    ownStack = stackOfThisThread();
    const stack_t stack = {stack_, 0, kStackSize};
    sigaltstack(&stack, nullptr);
}

CallingThread::~CallingThread()
{
    const stack_t none = {nullptr, SS_DISABLE, 0};
    sigaltstack(&none, nullptr);
    munmap(stack_, kStackSize);
}

CallMark::CallMark(const char* name, std::chrono::milliseconds limit)
{
    BlackBox::Call& call = box->calls[ownCall];
    std::snprintf(call.name, sizeof call.name, "%s", name);
    call.deadline = realNow() + std::chrono::nanoseconds(limit).count();
    ++box->count;
}

CallMark::~CallMark()
{
    box->calls[ownCall].deadline = 0;
}

bool isLibraryCalling()
{
    return box != nullptr && box->process == getpid() && // a child may change what is its own
           std::any_of(std::begin(box->calls), std::end(box->calls),
                       [](const BlackBox::Call& call) { return call.deadline != 0; });
}

void noteMoment(FindingId finding, const char* words)
{
    const auto number = static_cast<unsigned int>(finding);
    for (BlackBox::Moment& moment : box->moments) {
        unsigned int none = 0;
        if (moment.finding == number) {
            return;
        }
        if (moment.finding.compare_exchange_strong(none, number)) {
            std::snprintf(moment.words, sizeof moment.words, "%s", words);
            return;
        }
    }
}

void noteClosing(int descriptor)
{
    if (box != nullptr && box->process == getpid()) { // a child may close whatever there could be
        box->closedTwice = descriptor + 1;
    }
}
} // namespace fwmod::examiner

// In the place of the C library's, for every library of the process: a descriptor that is not open is closed
// unnoticed, unless another thread has got its number meanwhile.
extern "C" int close(int descriptor)
{
    const long result = syscall(SYS_close, descriptor);
    if (result != 0 && errno == EBADF && descriptor >= 0) {
        fwmod::examiner::noteClosing(descriptor);
        errno = EBADF;
    }
    return static_cast<int>(result);
}
