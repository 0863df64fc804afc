#include "vset/console/program.h"

#include <filesystem>
#include <gio/gio.h>
#include <memory>
#include <system_error>
#include <utility>

#include "vset/console/real-time.h"
#include "vset/platformd/guarded.h"

namespace vset
{

namespace
{

constexpr gsize kMostOutput = 1 << 20;

struct Run {
    GSubprocess* process = nullptr;
    std::function<void(const std::optional<std::string>&)> done;
    RealTimer limit;

    ~Run() { g_clear_object(&process); }
};

std::optional<std::string> outputOf(GSubprocess* process, GAsyncResult* result)
{
    GBytes* output = nullptr;
    const gboolean isRead = g_subprocess_communicate_finish(process, result, &output, nullptr, nullptr);
    std::optional<std::string> text;
    if (isRead != FALSE && output != nullptr && g_bytes_get_size(output) <= kMostOutput &&
        g_subprocess_get_successful(process) != FALSE) {
        gsize size = 0;
        const auto* const data = static_cast<const char*>(g_bytes_get_data(output, &size));
        text = data == nullptr ? std::string() : std::string(data, size);
    }
    g_clear_pointer(&output, g_bytes_unref);
    return text;
}

void onEnd(GObject* process, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Run> run(static_cast<Run*>(data));
    run->limit.stop();
    guarded("what a program said", [&] { run->done(outputOf(G_SUBPROCESS(process), result)); });
}

gboolean onNotStarted(gpointer data)
{
    const std::unique_ptr<Run> run(static_cast<Run*>(data));
    guarded("a program that cannot be started", [&] { run->done(std::nullopt); });
    return G_SOURCE_REMOVE;
}

} // namespace

void runProgram(const std::vector<std::string>& command, int64_t limit,
                std::function<void(const std::optional<std::string>&)> done)
{
    std::vector<const char*> words;
    for (const std::string& word : command) {
        words.push_back(word.c_str());
    }
    words.push_back(nullptr);
    auto run = std::make_unique<Run>();
    run->done = std::move(done);
    const auto flags =
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE);
    run->process = g_subprocess_newv(words.data(), flags, nullptr);
    if (run->process == nullptr) {
        g_idle_add(onNotStarted, run.release());
        return;
    }
    run->limit.start(limit, [raw = run.get()] { g_subprocess_force_exit(raw->process); });
    Run* const started = run.release();
    g_subprocess_communicate_async(started->process, nullptr, nullptr, onEnd, started);
}

std::string besideThisProgram(const std::string& name)
{
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    return (self.parent_path() / name).string();
}

} // namespace vset
