#include "values.h"

#include <algorithm>
#include <fstream>
#include <glib-unix.h>
#include <list>
#include <memory>
#include <mutex>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tv
{

namespace
{

struct Watch {
    std::string file;
    Identity identity;
    Told told;
    std::streamoff seen = 0; // bytes of the file
    int before = 0;
    bool isOver = false;
};

std::mutex mutex;
std::list<std::shared_ptr<Watch>> watches;
int notices = -1; // of the kernel, about the files

std::string fileIn(const std::string& directory, std::string name)
{
    mkdir(directory.c_str(), 0755);
    std::replace(name.begin(), name.end(), '/', '.');
    return directory + "/" + name;
}

// What is new for one watch is told without the lock: the callback may end it, or begin another.
void tell(const std::shared_ptr<Watch>& watch)
{
    std::ifstream lines(watch->file);
    lines.seekg(watch->seen);
    for (int now = 0; !watch->isOver && lines >> now && lines.get() == '\n';) {
        watch->seen = lines.tellg();
        watch->told(std::exchange(watch->before, now), now);
    }
}

gboolean onNotice(int descriptor, GIOCondition, gpointer)
{
    char read_and_forgotten[4096];
    while (::read(descriptor, read_and_forgotten, sizeof read_and_forgotten) > 0) {
        ;
    }
    std::unique_lock<std::mutex> lock(mutex);
    const std::list<std::shared_ptr<Watch>> now = watches;
    lock.unlock();
    for (const auto& watch : now) {
        tell(watch);
    }
    return G_SOURCE_CONTINUE;
}

} // namespace

std::string runFile(const std::string& name)
{
    return fileIn("/run/tv", name);
}

std::string keptFile(const std::string& name)
{
    return fileIn("/var/lib/tv", name);
}

bool write(const std::string& file, int value)
{
    std::ofstream stream(file, std::ios::app);
    stream << std::to_string(value) + "\n" << std::flush;
    return stream.good();
}

int read(const std::string& file)
{
    std::ifstream lines(file);
    int latest = 0;
    for (int value = 0; lines >> value;) {
        latest = value;
    }
    return latest;
}

bool watch(const std::string& file, Identity identity, Told told)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (notices < 0) {
        notices = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        g_unix_fd_add(notices, G_IO_IN, onNotice, nullptr);
    }
    std::ofstream(file, std::ios::app).flush();
    if (inotify_add_watch(notices, file.c_str(), IN_MODIFY) < 0) {
        return false;
    }
    const auto made = std::make_shared<Watch>(Watch{file, identity, std::move(told)});
    made->seen = std::ifstream(file, std::ios::ate).tellg();
    made->before = read(file);
    watches.push_back(made);
    return true;
}

bool ignore(const std::string& file, Identity identity)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const size_t before = watches.size();
    watches.remove_if([&](const std::shared_ptr<Watch>& watch) {
        const bool isIt = watch->file == file && watch->identity == identity;
        watch->isOver = watch->isOver || isIt;
        return isIt;
    });
    return watches.size() != before;
}

} // namespace tv
