// The sound platform's package request, whose C++ name has to be spelt for the dynamic linker.
#ifndef PLATFORM_CHECK_CORPUS_PACKAGE_CALL_H
#define PLATFORM_CHECK_CORPUS_PACKAGE_CALL_H

#include <dlfcn.h>

#include "appbinary_manager.h"

inline bool hostDownload(appbinaryManager::DownloadCallback cb, void* user_data,
                         const std::string& package_id)
{
    constexpr const char* kName =
        "_ZN16appbinaryManager21ABM_DownloadAppBinaryEPFvRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
        "iPvES8_S7_";
    using Download = bool (*)(appbinaryManager::DownloadCallback, void*, const std::string&);
    return reinterpret_cast<Download>(dlsym(RTLD_NEXT, kName))(cb, user_data, package_id);
}

#endif
