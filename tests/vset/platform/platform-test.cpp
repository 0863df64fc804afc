#include "tests/vset/platform/platform-test.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gio/gio.h>
#include <signal.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "common/process/program.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "norlog.h"
#include "pralis.h"
#include "ps_mount.h"
#include "pwrctl.h"
#include "sysprop.h"
#include "trace_logger.h"

// ---- Support ----

bool PlatformTest::pumpUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        if (g_main_context_iteration(nullptr, FALSE) == FALSE) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return true;
}

void PlatformTest::pumpAll()
{
    pwrctl_get_state(); // signals sent before its reply have reached this process when it returns
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
}

Child::Child(const std::string& part, const std::vector<std::string>& environment)
{
    int ends[2];
    if (pipe(ends) != 0) {
        abort();
    }
    process_ = fork();
    if (process_ == 0) {
        for (const std::string& variable : environment) {
            putenv(strdup(variable.c_str()));
        }
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        execl("/proc/self/exe", "platform-test", "--part", part.c_str(), nullptr);
        _exit(127);
    }
    close(ends[1]);
    output_ = fdopen(ends[0], "r");
}

Child::~Child()
{
    if (process_ > 0) {
        kill(SIGKILL);
        wait();
    }
    fclose(output_);
}

std::string Child::readLine()
{
    char line[4096];
    if (fgets(line, sizeof line, output_) == nullptr) {
        return "";
    }
    return std::string(line, strcspn(line, "\n"));
}

void Child::kill(int signal) const
{
    ::kill(process_, signal);
}

int Child::wait()
{
    int status = 0;
    waitpid(process_, &status, 0);
    process_ = -1;
    return common::shellStatus(status);
}

// ---- Parts that a child plays ----

namespace
{

void say(const std::string& text)
{
    printf("%s\n", text.c_str());
    fflush(stdout);
}

int holdEverything()
{
    applaunch_h launch = nullptr;
    const int results[] = {
        pwrctl_lock_state(2, 600000),
        hangwatch_register_watchdog_service(600),
        applaunch_create(&launch),
        pralis_notify_key_changed(
            "memory/held", [](keynode*, void*) {}, nullptr),
    };
    for (const int result : results) {
        if (result != 0) {
            return EXIT_FAILURE;
        }
    }
    say("held");
    pause();
    return EXIT_SUCCESS;
}

// Every call, none of which can have an effect: says which ones pretend to have had one.
int callInVain()
{
    int value = 4711;
    char* text = nullptr;
    applaunch_h launch = nullptr;
    const auto key = [](keynode*, void*) {};
    const auto state = [](pwrctl_state_info*, void*) { return 0; };
    const auto powerOff = [](pwrctl_poweroff_info*, void*) { return 0; };
    const struct {
        const char* name;
        int result;
    } calls[] = {
        {"pralis_get_int", pralis_get_int("memory/a", &value)},
        {"pralis_set_int", pralis_set_int("memory/a", 1)},
        {"pralis_notify_key_changed", pralis_notify_key_changed("memory/a", key, nullptr)},
        {"pralis_ignore_key_changed", pralis_ignore_key_changed("memory/a", key)},
        {"pwrctl_get_state", pwrctl_get_state()},
        {"pwrctl_subscribe_state_changed_event", pwrctl_subscribe_state_changed_event(state, nullptr)},
        {"pwrctl_unsubscribe_state_changed_event", pwrctl_unsubscribe_state_changed_event(state)},
        {"pwrctl_subscribe_poweroff_event", pwrctl_subscribe_poweroff_event(powerOff, nullptr)},
        {"pwrctl_unsubscribe_poweroff_event", pwrctl_unsubscribe_poweroff_event(powerOff)},
        {"pwrctl_lock_state", pwrctl_lock_state(2, 1000)},
        {"pwrctl_unlock_state", pwrctl_unlock_state(2)},
        {"pwrctl_request_reboot", pwrctl_request_reboot(1)},
        {"applaunch_create", applaunch_create(&launch)},
        {"applaunch_add_extra_data", applaunch_add_extra_data(launch, "key", "value")},
        {"applaunch_set_app_id", applaunch_set_app_id(launch, "application")},
        {"applaunch_send_launch_request", applaunch_send_launch_request(launch, nullptr, nullptr)},
        {"applaunch_destroy", applaunch_destroy(launch)},
        {"sysprop_get_value_string", sysprop_get_value_string(128, &text)},
        {"FlagpostEventDone", FlagpostEventDone("/tmp/.flag")},
        {"FlagpostIsDone", FlagpostIsDone("/tmp/.flag")},
        {"FlagpostResetEvent", FlagpostResetEvent("/tmp/.flag")},
        {"hangwatch_register_watchdog_service", hangwatch_register_watchdog_service(60)},
        {"hangwatch_watchdog_notify", hangwatch_watchdog_notify()},
        {"hangwatch_unregister_watchdog_service", hangwatch_unregister_watchdog_service()},
        {"PS_Mount", PS_Mount("-o ro a b", 9, 0, &value)},
        {"ABM_DownloadAppBinary", appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empA") ? 0 : -1},
    };
    for (const auto& call : calls) {
        if (call.result >= 0) {
            say(call.name);
        }
    }
    say(text == nullptr ? "done" : "a text came from nowhere");
    return EXIT_SUCCESS;
}

// Goes on with a call for every line that it is sent a signal for.
int callAgainAndAgain()
{
    while (true) {
        say(std::to_string(FlagpostEventDone("/tmp/.again")));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

int logForEver()
{
    for (int number = 0;; ++number) {
        __norlog_print(2, 6, "CHILD", "record %d of the platform log", number);
        TraceLogger::record(4, "file.cpp", "function", number, "record %d of the recorder", number);
        say(std::to_string(number));
    }
}

int logMuch()
{
    const auto write = [](int writer) {
        for (int number = 0; number < 300; ++number) {
            const std::string body(static_cast<size_t>(number % 7 * 1500), static_cast<char>('a' + writer));
            __norlog_print(2, 4, "MUCH", "%d %d %s.", writer, number, body.c_str());
        }
    };
    std::thread other(write, 1);
    write(0);
    other.join();
    return EXIT_SUCCESS;
}

// As a program that makes itself a service does.
int logAfterClosing()
{
    __norlog_print(2, 6, "T", "before");
    for (int file = 3; file < 1024; ++file) {
        close(file);
    }
    const int mine = open("/tmp/opened-after-closing", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const int result = __norlog_print(2, 6, "T", "after");
    return mine >= 0 && result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int logWithoutStreams()
{
    for (int file = 0; file < 3; ++file) {
        close(file);
    }
    const int result = __norlog_print(2, 6, "T", "text");
    return result == 0 && fcntl(STDOUT_FILENO, F_GETFD) < 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

struct Part {
    const char* name;
    int (*play)();
};
constexpr Part kParts[] = {
    {"hold-everything", holdEverything},
    {"call-in-vain", callInVain},
    {"call-again", callAgainAndAgain},
    {"log-for-ever", logForEver},
    {"log-much", logMuch},
    {"log-after-closing", logAfterClosing},
    {"log-without-streams", logWithoutStreams},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "--part") == 0) {
        for (const Part& part : kParts) {
            if (strcmp(argv[2], part.name) == 0) {
                return part.play();
            }
        }
        return 2;
    }
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
