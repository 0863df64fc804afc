// flagpost.h, hangwatch.h, sysprop.h, appbinary_manager.h: flags, the watchdog, system information, packages.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <glib.h>
#include <memory>
#include <unistd.h>

#include "appbinary_manager.h"
#include "flagpost.h"
#include "hangwatch.h"
#include "sysprop.h"
#include "values.h"

namespace fs = std::filesystem;

// ---- Flags, which the next boot finds gone as it does all of /run ----

int FlagpostEventDone(const char* flag)
{
    return tv::write(tv::runFile(std::string("flag") + flag), 1) ? 0 : -1;
}

int FlagpostIsDone(const char* flag)
{
    return fs::exists(tv::runFile(std::string("flag") + flag)) ? 1 : 0;
}

int FlagpostResetEvent(const char* flag)
{
    fs::remove(tv::runFile(std::string("flag") + flag));
    return 0;
}

// ---- The watchdog: a file that whoever watches finds older than it should be ----

int hangwatch_register_watchdog_service(int period)
{
    return tv::write(tv::runFile("watchdog"), period) ? 0 : -1;
}

int hangwatch_watchdog_notify(void)
{
    return tv::write(tv::runFile("watchdog"), 0) ? 0 : -1;
}

int hangwatch_unregister_watchdog_service(void)
{
    return unlink(tv::runFile("watchdog").c_str());
}

// ---- System information: 128 is the software's version ----

int sysprop_get_value_string(int key, char** value)
{
    std::ifstream file(tv::keptFile("property." + std::to_string(key)));
    std::string text;
    if (!std::getline(file, text)) {
        return -1;
    }
    *value = strdup(text.c_str()); // the caller's
    return 0;
}

// ---- Packages: copied from the feed, and in their place whole or not at all ----

namespace
{

struct Download {
    appbinaryManager::DownloadCallback cb;
    void* userData;
    std::string package;
    int status;
};

gboolean tellEnd(gpointer data)
{
    const auto* download = static_cast<const Download*>(data);
    download->cb(download->package, download->status, download->userData);
    return G_SOURCE_REMOVE;
}

void deleteDownload(gpointer data)
{
    delete static_cast<Download*>(data);
}

} // namespace

bool appbinaryManager::ABM_DownloadAppBinary(DownloadCallback cb, void* user_data,
                                             const std::string& package_id)
{
    const fs::path image = fs::path("/opt/usr/apps/appbinarymanager") / (package_id + ".img");
    std::error_code error;
    fs::copy_file("/srv/feed/" + package_id + ".img", image.string() + ".part",
                  fs::copy_options::overwrite_existing, error);
    if (!error) {
        fs::rename(image.string() + ".part", image, error);
    }
    if (cb != nullptr) { // from the main loop, whichever thread has asked
        g_idle_add_full(G_PRIORITY_DEFAULT, tellEnd, new Download{cb, user_data, package_id, error ? -1 : 0},
                        deleteDownload);
    }
    return true;
}
