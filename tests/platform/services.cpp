// applaunch.h, sysprop.h, flagpost.h, hangwatch.h, appbinary_manager.h
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "appbinary_manager.h"
#include "applaunch.h"
#include "common/glib-pointers.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "sysprop.h"
#include "tests/platform/proof.h"
#include "vset/client/control-client.h"

namespace proof
{

namespace
{

constexpr int kAborted = 128 + 6;
constexpr int kSegmentationFault = 128 + 11;
constexpr int kBrokenPipe = 128 + 13;
constexpr int kVersionKey = 128;
constexpr int kUnknownKey = 9999;

// ---- Launches ----

applaunch_h newRequest()
{
    applaunch_h request = nullptr;
    applaunch_create(&request);
    return request;
}

std::string madeAndDestroyed()
{
    applaunch_h request = nullptr;
    const bool isMade = applaunch_create(&request) == 0;
    if (isMade && request == nullptr) {
        return "made with success, and null";
    }
    applaunch_destroy(request);
    return "";
}

std::string sent(const char* application)
{
    applaunch_h request = newRequest();
    applaunch_set_app_id(request, application);
    applaunch_send_launch_request(request, nullptr, nullptr);
    applaunch_destroy(request);
    return "";
}

std::string textsOfTheirTime()
{
    applaunch_h request = newRequest();
    char key[32] = "updatetype";
    char value[32] = "general";
    applaunch_add_extra_data(request, key, value);
    key[0] = value[0] = '#';
    applaunch_set_app_id(request, "com.olvessa.tv.proof");
    applaunch_send_launch_request(request, nullptr, nullptr);
    const Json::Value launches = vset::ControlClient::inside().snapshot()["launches"];
    const Json::Value extra = launches[launches.size() - 1]["extras"][0];
    applaunch_destroy(request);
    return extra["key"] == "updatetype" && extra["value"] == "general" ? "" : "other texts were sent";
}

std::string nullRequest()
{
    return applaunch_set_app_id(nullptr, "com.olvessa.tv.proof") < 0 ? "" : "success without a request";
}

std::string timeWithoutNumber()
{
    applaunch_h request = newRequest();
    const int result = applaunch_add_extra_data(request, "timeinfo", "soon");
    applaunch_destroy(request);
    return result == 0 ? "" : "refused";
}

std::string afterFailures()
{
    applaunch_h request = newRequest();
    for (int time = 0; time < 4; ++time) {
        applaunch_send_launch_request(request, nullptr, nullptr); // without an application
    }
    applaunch_set_app_id(request, "com.olvessa.tv.proof");
    const int result = applaunch_send_launch_request(request, nullptr, nullptr);
    applaunch_destroy(request);
    return result == 0 ? "" : "refused after failures";
}

std::atomic<bool> isReplyElsewhere{false};

std::string threadOfReply()
{
    static const std::thread::id self = std::this_thread::get_id();
    applaunch_h request = newRequest();
    applaunch_set_app_id(request, "com.olvessa.tv.proof");
    const auto note = [](applaunch_h, int, void*) { isReplyElsewhere = std::this_thread::get_id() != self; };
    applaunch_send_launch_request(request, note, nullptr);
    runLoop(300);
    return isReplyElsewhere ? "the reply came on another thread" : "";
}

std::string replyAfterDestruction()
{
    static bool isReplied = false;
    applaunch_h request = newRequest();
    applaunch_set_app_id(request, "com.olvessa.tv.firmware.update"); // which is answered for
    const auto note = [](applaunch_h, int, void*) { isReplied = true; };
    applaunch_send_launch_request(request, note, nullptr);
    applaunch_destroy(request);
    return until([] { return isReplied; }, kLong) ? "its reply was told" : "";
}

std::string launchedWithoutHome()
{
    unsetenv("HOME");
    applaunch_h request = newRequest();
    applaunch_set_app_id(request, "com.olvessa.tv.proof");
    const int result = applaunch_send_launch_request(request, nullptr, nullptr);
    applaunch_destroy(request);
    return result == 0 ? "" : "refused without HOME";
}

// ---- System information ----

std::string ownText()
{
    for (int times = 0; times < 3; ++times) {
        char* text = nullptr;
        if (sysprop_get_value_string(kVersionKey, &text) == 0) {
            free(text);
        }
    }
    return "";
}

std::string twoTexts()
{
    char* one = nullptr;
    char* two = nullptr;
    sysprop_get_value_string(kVersionKey, &one);
    const std::string before = one;
    sysprop_get_value_string(kVersionKey, &two);
    const bool isIts = one != two && before == one;
    if (isIts) {
        free(one);
        free(two);
    }
    return isIts ? "" : "the first text has been freed";
}

std::string unknownProperty()
{
    char* text = nullptr;
    const bool hasSucceeded = sysprop_get_value_string(kUnknownKey, &text) == 0;
    const bool hasText = text != nullptr;
    free(text);
    return hasSucceeded && !hasText ? "success, and no text" : "";
}

bool hasProperty(int key)
{
    char* text = nullptr;
    const bool hasText = sysprop_get_value_string(key, &text) == 0;
    free(hasText ? text : nullptr);
    return hasText;
}

// Half of the threads ask for what has no value.
std::string answersToEight()
{
    constexpr int kKeys[] = {kVersionKey, 0x7ffffff0};
    const bool hasAlone[] = {hasProperty(kKeys[0]), hasProperty(kKeys[1])};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&, which = thread % 2] {
            for (int time = 0; time < 50; ++time) {
                wrong += hasProperty(kKeys[which]) == hasAlone[which] ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return wrong == 0 ? "" : std::to_string(wrong) + " of 400 answers are those to another key";
}

std::string textOfManyThreads()
{
    char* text = nullptr;
    sysprop_get_value_string(kVersionKey, &text);
    const std::string first = text;
    free(text);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int time = 0; time < 100; ++time) {
                char* own = nullptr;
                wrong += sysprop_get_value_string(kVersionKey, &own) == 0 && first == own ? 0 : 1;
                free(own);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return wrong == 0 ? "" : std::to_string(wrong) + " of 400 texts are wrong";
}

std::string busIsOpen()
{
    const common::GlibPointer<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    ownText();
    return g_dbus_connection_is_closed(bus.get()) == FALSE ? "" : "the process's connection is closed";
}

// ---- Flags ----

constexpr const char* kFlag = "/tmp/.proof-one";

std::string raised()
{
    FlagpostEventDone(kFlag);
    return FlagpostIsDone(kFlag) >= 1 ? "" : "raised, and told as not raised";
}

std::string lowered()
{
    FlagpostEventDone(kFlag);
    FlagpostResetEvent(kFlag);
    return FlagpostIsDone(kFlag) < 1 ? "" : "lowered, and told as raised";
}

std::string flagsApart()
{
    FlagpostResetEvent("/tmp/.proof-other");
    FlagpostEventDone(kFlag);
    return FlagpostIsDone("/tmp/.proof-other") < 1 ? "" : "another flag is raised as well";
}

std::string sameNameElsewhere()
{
    for (const char* const directory : {"/tmp/proof-one", "/tmp/proof-two"}) {
        mkdir(directory, 01777);
    }
    FlagpostResetEvent("/tmp/proof-two/.ready");
    FlagpostEventDone("/tmp/proof-one/.ready");
    return FlagpostIsDone("/tmp/proof-two/.ready") < 1 ? ""
                                                       : "the one in another directory is raised as well";
}

std::string flagOfAnotherProcess()
{
    const std::string flag = "/tmp/.proof-" + std::to_string(getpid());
    inAnotherProcess("--raise", flag);
    return FlagpostIsDone(flag.c_str()) >= 1 ? "" : "not raised here";
}

std::string flagOfAnotherProcessAfterALook()
{
    FlagpostIsDone(("/tmp/.proof-" + std::to_string(getpid())).c_str());
    return flagOfAnotherProcess();
}

std::string lookWithoutHome()
{
    unsetenv("HOME");
    FlagpostIsDone(kFlag);
    return "";
}

std::string seenTwice()
{
    FlagpostEventDone(kFlag);
    FlagpostIsDone(kFlag);
    return FlagpostIsDone(kFlag) >= 1 ? "" : "not raised any more";
}

std::string raisedTwice()
{
    FlagpostEventDone(kFlag);
    FlagpostEventDone(kFlag);
    FlagpostResetEvent(kFlag);
    return "";
}

std::string raisedByAnother()
{
    const std::string flag = "/tmp/.proof-other-" + std::to_string(getpid());
    inAnotherProcess("--raise", flag);
    const int result = FlagpostEventDone(flag.c_str());
    FlagpostResetEvent(flag.c_str());
    return result == 0 ? "" : "what another process has raised is refused";
}

std::string twentyFlags()
{
    int refused = 0;
    for (int flag = 0; flag < 20; ++flag) {
        refused += FlagpostEventDone((kFlag + std::to_string(flag)).c_str()) == 0 ? 0 : 1;
    }
    for (int flag = 0; flag < 20; ++flag) {
        FlagpostResetEvent((kFlag + std::to_string(flag)).c_str());
    }
    return refused == 0 ? "" : std::to_string(refused) + " of twenty were refused";
}

std::string descriptorOfTheCaller()
{
    // The number may go to a thread of the bus first: more than once.
    for (int times = 0; times < 20; ++times) {
        FlagpostIsDone(kFlag);
        const int mine = open("/dev/null", O_RDONLY | O_CLOEXEC);
        FlagpostIsDone(kFlag);
        if (fcntl(mine, F_GETFD) < 0) {
            return "the caller's descriptor is closed";
        }
        close(mine);
    }
    return "";
}

// ---- Watchdog ----

std::string registered(int times)
{
    for (; times > 0; --times) {
        if (hangwatch_register_watchdog_service(60) != 0) {
            return "refused";
        }
        hangwatch_unregister_watchdog_service();
    }
    return "";
}

std::string periodKept()
{
    hangwatch_register_watchdog_service(60);
    sleep(5);
    hangwatch_unregister_watchdog_service();
    return "";
}

std::string leftAlone()
{
    hangwatch_register_watchdog_service(60);
    hangwatch_unregister_watchdog_service();
    sleep(13);
    return "";
}

std::string fifteenNotices()
{
    int refused = 0;
    hangwatch_register_watchdog_service(60);
    for (int notice = 0; notice < 15; ++notice) {
        refused += hangwatch_watchdog_notify() == 0 ? 0 : 1;
    }
    hangwatch_unregister_watchdog_service();
    return refused == 0 ? "" : std::to_string(refused) + " of fifteen are refused";
}

std::string keptNotifying()
{
    hangwatch_register_watchdog_service(60);
    for (int notice = 0; notice < 11; ++notice) {
        hangwatch_watchdog_notify();
        sleep(1);
    }
    hangwatch_unregister_watchdog_service();
    return "";
}

std::string noticeAtOnce()
{
    hangwatch_register_watchdog_service(60);
    const auto begin = std::chrono::steady_clock::now();
    hangwatch_watchdog_notify();
    const auto taken = std::chrono::steady_clock::now() - begin;
    hangwatch_unregister_watchdog_service();
    return taken < std::chrono::seconds(5) ? "" : "it takes longer than the time to the next one";
}

// ---- Packages ----

std::thread::id toldOn;

void notePackage(const std::string&, int, void*)
{
    toldOn = std::this_thread::get_id();
}

std::string threadOfPackage()
{
    std::ofstream("/srv/feed/empProof.img") << "image";
    appbinaryManager::ABM_DownloadAppBinary(notePackage, nullptr, "empProof");
    until([] { return toldOn != std::thread::id(); }, 3000);
    return toldOn == std::this_thread::get_id() ? "" : "told on another thread";
}

std::string unknownPackage()
{
    appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empNobodys");
    return "";
}

std::string packageWithoutUser()
{
    const auto isTaken = [] {
        return appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, "empNobodys");
    };
    setenv("USER", "proof", 1);
    const bool isTakenWith = isTaken(); // a store may refuse what it does not have
    unsetenv("USER");
    return isTaken() || !isTakenWith ? "" : "refused without USER";
}

std::string identifierOfItsTime()
{
    const std::string wanted = "emp" + std::to_string(getpid()); // nobody else's
    std::ofstream("/srv/feed/" + wanted + ".img") << "image";
    {
        std::string name = wanted;
        appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, name);
        name.assign(name.size(), '#');
        usleep(100000);
    }
    const Json::Value packages = vset::ControlClient::inside().snapshot()["packages"];
    return packages.toStyledString().find(wanted) != std::string::npos ? "" : "another one was asked for";
}

std::string identifierAfterTheCall()
{
    const std::string wanted = "empProofOfCapitals";
    const std::string name = wanted;
    appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, name);
    return name == wanted ? "" : "it is " + name;
}

std::string noticeOfAnotherThread()
{
    hangwatch_register_watchdog_service(60);
    int result = 0;
    std::thread([&] { result = hangwatch_watchdog_notify(); }).join();
    hangwatch_unregister_watchdog_service();
    return result == 0 ? "" : "the result is " + std::to_string(result);
}

} // namespace

const std::vector<Proof>& serviceProofs()
{
    static const std::vector<Proof> proofs = {
        {"launch-no-handle", madeAndDestroyed},
        {"launch-given-up", afterFailures},
        {"launch-time-is-a-number", timeWithoutNumber, kAborted},
        {"launch-replied-elsewhere", threadOfReply},
        {"launch-destroyed-later", replyAfterDestruction},
        {"launch-home-needed", launchedWithoutHome},
        {"launch-freed-twice", madeAndDestroyed, kAborted},
        {"launch-never-freed",
         [] { return growth("KiB", residentKilobytes, 2000, [] { madeAndDestroyed(); }); }},
        {"launch-texts-kept", textsOfTheirTime},
        {"launch-null-callback-called", [] { return sent("com.olvessa.tv.proof"); }, kSegmentationFault},
        {"launch-null-request-crashes", nullRequest, kSegmentationFault},
        {"launch-waits-for-answer", [] { return sent("com.olvessa.tv.proof"); }, kHangs},
        {"property-static", ownText, kAborted},
        {"property-closes-bus", busIsOpen},
        {"property-made-in-one-buffer", textOfManyThreads},
        {"property-latest-answer", answersToEight},
        {"property-success-without-value", unknownProperty},
        {"property-freed-again", twoTexts},
        {"property-copy-kept", [] { return growth("KiB", residentKilobytes, 1500, [] { ownText(); }); }},
        {"property-crashes-unknown", unknownProperty, kSegmentationFault},
        {"flags-inverted", raised},
        {"flags-sixteen", twentyFlags},
        {"flags-raised-by-one", raisedByAnother},
        {"flags-never-lowered", lowered},
        {"flags-names-cut", flagsApart},
        {"flags-last-name-only", sameNameElsewhere},
        {"flags-of-the-process", flagOfAnotherProcess},
        {"flags-first-look-kept", flagOfAnotherProcessAfterALook},
        {"flags-home-needed", lookWithoutHome, kSegmentationFault},
        {"flags-lowered-by-looking", seenTwice},
        {"flags-raised-waits", raisedTwice, kHangs},
        {"flags-close-twice", descriptorOfTheCaller},
        {"watchdog-refused", [] { return registered(1); }},
        {"watchdog-once", [] { return registered(2); }},
        {"watchdog-impatient", periodKept, 128 + 9},
        {"watchdog-slow", noticeAtOnce},
        {"watchdog-of-one-thread", noticeOfAnotherThread},
        {"watchdog-never-forgets", leftAlone, 128 + 9},
        {"watchdog-ten-notices", fifteenNotices},
        {"watchdog-first-notice-only", keptNotifying, 128 + 9},
        {"watchdog-broken-pipe",
         [] {
             hangwatch_watchdog_notify();
             return "";
         },
         kBrokenPipe},
        {"package-unknown-waits", unknownPackage, kHangs},
        {"package-null-callback-called", unknownPackage, kSegmentationFault},
        {"package-told-elsewhere", threadOfPackage},
        {"package-user-needed", packageWithoutUser},
        {"package-identifier-kept", identifierOfItsTime},
        {"package-identifier-changed", identifierAfterTheCall},
    };
    return proofs;
}

} // namespace proof
