// applaunch.h: a request that was sent is the file /run/tv/launch, for whoever starts applications.
#include <cstdio>
#include <fstream>
#include <string>

#include "applaunch.h"
#include "values.h"

struct applaunch {
    std::string application;
    std::string extras;
};

int applaunch_create(applaunch_h* request)
{
    *request = new applaunch;
    return 0;
}

int applaunch_destroy(applaunch_h request)
{
    delete request;
    return 0;
}

int applaunch_add_extra_data(applaunch_h request, const char* key, const char* value)
{
    request->extras += std::string(key) + "=" + value + "\n"; // copies: the texts are the daemon's
    return 0;
}

int applaunch_set_app_id(applaunch_h request, const char* app_id)
{
    if (request == nullptr) {
        return -1;
    }
    request->application = app_id;
    return 0;
}

int applaunch_send_launch_request(applaunch_h request, applaunch_reply_cb, void*)
{
    const std::string made = tv::runFile("launch.part"); // whoever waits for the file finds it whole
    std::ofstream file(made, std::ios::trunc);
    file << request->application << "\n" << request->extras << std::flush;
    return file.good() && std::rename(made.c_str(), tv::runFile("launch").c_str()) == 0 ? 0 : -1;
}
