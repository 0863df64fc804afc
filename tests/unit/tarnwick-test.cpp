// The process itself on a platform and a bus of the test's own: what happens around it, seen from its end.
#include <cerrno>
#include <chrono>
#include <dlfcn.h>
#include <gio/gio.h>
#include <new>
#include <pthread.h>
#include <thread>

#include "tests/support/set-test.h"

int tarnwickMain(); // the daemon's entry, which has another name here

namespace
{

int refusedThreads = 0; // of the next ones that the daemon asks for

} // namespace

// GLib's own threads come with attributes, and are not refused: it ends the process when it gets none.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                              void* argument) noexcept
{
    static auto* const create =
        reinterpret_cast<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>(
            dlsym(RTLD_NEXT, "pthread_create"));
    if (attributes == nullptr && refusedThreads > 0) {
        --refusedThreads;
        return EAGAIN;
    }
    return create(thread, attributes, body, argument);
}

namespace
{

using testing::ExitedWithCode;

// A set without modules: the boot worker finds nothing to do and ends the process with 0.
class Tarnwick : public SetTest
{
protected:
    void SetUp() override
    {
        SetTest::SetUp();
        bus = g_test_dbus_new(G_TEST_DBUS_NONE);
        g_test_dbus_up(bus);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(bus), 1);
    }
    void TearDown() override
    {
        g_test_dbus_stop(bus);
        g_object_unref(bus);
        SetTest::TearDown();
    }

    // In the daemon: waits until it owns its name, and takes the bus away.
    void endBus()
    {
        GDBusConnection* const shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
        while (!isNameOwned(shared)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        g_test_dbus_stop(bus);
        while (g_dbus_connection_is_closed(shared) == FALSE) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // the main loop hears of it, too
    }

    GTestDBus* bus = nullptr;

private:
    static bool isNameOwned(GDBusConnection* connection)
    {
        GVariant* const reply =
            g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                                        "NameHasOwner", g_variant_new("(s)", "org.pellor.tv.tarnwick"),
                                        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        gboolean isOwned = FALSE;
        g_variant_get(reply, "(b)", &isOwned);
        g_variant_unref(reply);
        return isOwned == TRUE;
    }
};

TEST_F(Tarnwick, OutlivesTheBus)
{
    bool isBusGone = false;
    platform.onCall("FlagpostIsDone", [&] {
        if (!isBusGone) {
            endBus();
            isBusGone = true;
        }
    });
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

TEST_F(Tarnwick, TriesAgainToStartItsWorkerWithoutAThreadForIt)
{
    refusedThreads = 2;
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

// ---- What nobody catches ends the process as everything else does ----

void runOutOfMemory()
{
    throw std::bad_alloc();
}

TEST_F(Tarnwick, EndsInOrderAfterAnExceptionOnItsWorker)
{
    platform.onCall("FlagpostIsDone", runOutOfMemory);
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

TEST_F(Tarnwick, EndsInOrderAfterAnExceptionAtItsStart)
{
    installControl("tuner").answers.onCall = [](const std::string&) { runOutOfMemory(); };
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

TEST_F(Tarnwick, EndsInOrderAfterAnExceptionWhenTheSetIsSwitchedOff)
{
    installControl("tuner").answers.onCall = [](const std::string& function) {
        if (function == "allUpdateDone") {
            runOutOfMemory();
        }
    };
    platform.onCall("FlagpostIsDone", [] { std::this_thread::sleep_for(std::chrono::minutes(1)); });
    platform.onCall("pralis_notify_key_changed", [&] { platform.powerOff(0); }); // the last subscription
    EXPECT_EXIT(tarnwickMain(), ExitedWithCode(0), "");
}

} // namespace
