#include "vset/console/program.h"

#include <gio/gio.h>
#include <memory>
#include <utility>

#include "common/process/program.h"
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
    gsize size = 0;
    // One more shows that it is too much. Not cleared, because nearly all of it is never used.
    const std::unique_ptr<char[]> output{new char[kMostOutput + 1]};

    ~Run() { g_clear_object(&process); }
};

void onEnd(GObject* process, GAsyncResult* result, gpointer data)
{
    const std::unique_ptr<Run> run(static_cast<Run*>(data));
    run->limit.stop();
    const bool hasEnded = g_subprocess_wait_finish(G_SUBPROCESS(process), result, nullptr) != FALSE;
    std::optional<std::string> said;
    if (hasEnded && g_subprocess_get_successful(run->process) != FALSE && run->size <= kMostOutput) {
        said.emplace(run->output.get(), run->size);
    }
    guarded("what a program said", [&] { run->done(said); });
}

// It has said all that it will, or more than anybody wants.
void onOutput(GObject* stream, GAsyncResult* result, gpointer data)
{
    auto* const run = static_cast<Run*>(data);
    const bool isRead =
        g_input_stream_read_all_finish(G_INPUT_STREAM(stream), result, &run->size, nullptr) != FALSE;
    if (!isRead || run->size > kMostOutput) {
        g_subprocess_force_exit(run->process);
    }
    g_subprocess_wait_async(run->process, nullptr, onEnd, run);
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
    const std::vector<char*> words = common::argumentsOf(command);
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
    g_input_stream_read_all_async(g_subprocess_get_stdout_pipe(started->process), started->output.get(),
                                  kMostOutput + 1, G_PRIORITY_DEFAULT, nullptr, onOutput, started);
}

} // namespace vset
