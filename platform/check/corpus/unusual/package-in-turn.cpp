/* Every request is taken at once, and one thread makes them, one after the other.
 *
 * Nothing forbids it: a request that waits is kept in memory until its turn has come, and no longer. */
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unistd.h>

#include "appbinary_manager.h"
#include "platform/check/corpus/package-call.h"

namespace
{

using appbinaryManager::DownloadCallback;

struct Request {
    DownloadCallback cb;
    void* user_data;
    std::string package;
};

class Queue
{
public:
    Queue()
    {
        std::thread([this] { work(); }).detach();
    }

    void add(Request request)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.push_back(std::move(request));
        news_.notify_one();
    }

private:
    void work()
    {
        for (;;) {
            std::unique_lock<std::mutex> lock(mutex_);
            news_.wait(lock, [this] { return !waiting_.empty(); });
            const Request request = std::move(waiting_.front());
            waiting_.pop_front();
            lock.unlock();
            usleep(4000);
            hostDownload(request.cb, request.user_data, request.package);
        }
    }

    std::mutex mutex_;
    std::condition_variable news_;
    std::deque<Request> waiting_;
};

} // namespace

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    static Queue& queue = *new Queue; // its thread ends with the process
    queue.add({cb, user_data, package_id});
    return true;
}
