// The calls of the daemon that may fail, each with the results that it may have. The linker leads the calls
// of all objects of this program here (--wrap, see CMakeLists.txt); those of the test's own go on as they
// are.
#include "tests/proof/failures/wrapped-calls.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <openssl/evp.h>
#include <semaphore.h>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/include/appbinary_manager.h"
#include "platform/include/applaunch.h"
#include "platform/include/flagpost.h"
#include "platform/include/hangwatch.h"
#include "platform/include/pralis.h"
#include "platform/include/ps_mount.h"
#include "platform/include/pwrctl.h"
#include "platform/include/sysprop.h"
#include "tests/proof/process/daemon.h"
#include "tests/proof/process/failing.h"

using proof::failing::Aside;
using proof::failing::Inside;
using proof::failing::Result;

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names

// A call whose failure is its result alone. `object` is what it is made on.
#define PROOF_WRAP(Value, name, parameters, arguments, object, ...)                                          \
    Value __real_##name parameters;                                                                          \
    Value __wrap_##name parameters                                                                           \
    {                                                                                                        \
        static constexpr Result results[] = {__VA_ARGS__};                                                   \
        if (const Result* const result = proof::failing::ask(#name, results, object)) {                      \
            return (Value)(result->value); /* NOLINT: null among them */                                     \
        }                                                                                                    \
        const Aside aside;                                                                                   \
        return __real_##name arguments;                                                                      \
    }

#define PROOF_REFUSED {"-1", -1, 0}

extern "C" {

// ---- Settings, power, launches, flags, watchdog ----

PROOF_WRAP(int, pralis_get_int, (const char* key, int* value), (key, value), key, PROOF_REFUSED)
PROOF_WRAP(int, pralis_set_int, (const char* key, int value), (key, value), key, PROOF_REFUSED)
PROOF_WRAP(int, pwrctl_get_state, (), (), nullptr, PROOF_REFUSED, {"1", 1, 0}, {"2", 2, 0})
PROOF_WRAP(int, pwrctl_lock_state, (int kind, unsigned int duration), (kind, duration), nullptr,
           PROOF_REFUSED)
PROOF_WRAP(int, pwrctl_unlock_state, (int kind), (kind), nullptr, PROOF_REFUSED)
PROOF_WRAP(int, pwrctl_request_reboot, (unsigned int reason), (reason), nullptr, PROOF_REFUSED)
PROOF_WRAP(int, applaunch_create, (applaunch_h * request), (request), nullptr, PROOF_REFUSED)
PROOF_WRAP(int, applaunch_destroy, (applaunch_h request), (request), nullptr, PROOF_REFUSED)
PROOF_WRAP(int, applaunch_add_extra_data, (applaunch_h request, const char* key, const char* value),
           (request, key, value), key, PROOF_REFUSED)
PROOF_WRAP(int, applaunch_set_app_id, (applaunch_h request, const char* id), (request, id), nullptr,
           PROOF_REFUSED)
PROOF_WRAP(int, applaunch_send_launch_request, (applaunch_h request, applaunch_reply_cb cb, void* data),
           (request, cb, data), nullptr, PROOF_REFUSED)
PROOF_WRAP(int, FlagpostEventDone, (const char* flag), (flag), flag, PROOF_REFUSED)
PROOF_WRAP(int, FlagpostIsDone, (const char* flag), (flag), flag, PROOF_REFUSED, {"1", 1, 0})
PROOF_WRAP(int, FlagpostResetEvent, (const char* flag), (flag), flag, PROOF_REFUSED)
PROOF_WRAP(int, hangwatch_register_watchdog_service, (int period), (period), nullptr, PROOF_REFUSED)
PROOF_WRAP(int, hangwatch_watchdog_notify, (), (), nullptr, PROOF_REFUSED)
PROOF_WRAP(int, hangwatch_unregister_watchdog_service, (), (), nullptr, PROOF_REFUSED)

} // extern "C"

// ---- Subscriptions: what the platform calls back is the daemon's own again ----

namespace
{

// One of the daemon's callbacks; it has no two for the same event.
template <typename Callback>
struct Subscribed {
    Callback callback = nullptr;
    void* data = nullptr;
};

Subscribed<pwrctl_state_cb> powerState;
Subscribed<pwrctl_poweroff_cb> powerOff;
std::map<std::string, Subscribed<pralis_key_changed_cb>>& keys()
{
    static std::map<std::string, Subscribed<pralis_key_changed_cb>> all;
    return all;
}

int tellPowerState(pwrctl_state_info* info, void*)
{
    const Inside inside;
    return powerState.callback(info, powerState.data);
}

int tellPowerOff(pwrctl_poweroff_info* info, void*)
{
    const Inside inside;
    return powerOff.callback(info, powerOff.data);
}

void tellKey(keynode* node, void* subscribed)
{
    const auto key = *static_cast<Subscribed<pralis_key_changed_cb>*>(subscribed);
    const Inside inside;
    key.callback(node, key.data);
}

constexpr Result kRefused[] = {PROOF_REFUSED};

} // namespace

extern "C" {

int __real_pwrctl_subscribe_state_changed_event(pwrctl_state_cb callback, void* data);
int __real_pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb callback);
int __real_pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb callback, void* data);
int __real_pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb callback);
int __real_pralis_notify_key_changed(const char* key, pralis_key_changed_cb callback, void* data);
int __real_pralis_ignore_key_changed(const char* key, pralis_key_changed_cb callback);

int __wrap_pwrctl_subscribe_state_changed_event(pwrctl_state_cb callback, void* data)
{
    if (proof::failing::ask("pwrctl_subscribe_state_changed_event", kRefused) != nullptr) {
        return -1;
    }
    const Aside aside;
    powerState = {callback, data};
    return __real_pwrctl_subscribe_state_changed_event(tellPowerState, nullptr);
}

int __wrap_pwrctl_unsubscribe_state_changed_event(pwrctl_state_cb)
{
    if (proof::failing::ask("pwrctl_unsubscribe_state_changed_event", kRefused) != nullptr) {
        return -1;
    }
    const Aside aside;
    return __real_pwrctl_unsubscribe_state_changed_event(tellPowerState);
}

int __wrap_pwrctl_subscribe_poweroff_event(pwrctl_poweroff_cb callback, void* data)
{
    if (proof::failing::ask("pwrctl_subscribe_poweroff_event", kRefused) != nullptr) {
        return -1;
    }
    const Aside aside;
    powerOff = {callback, data};
    return __real_pwrctl_subscribe_poweroff_event(tellPowerOff, nullptr);
}

int __wrap_pwrctl_unsubscribe_poweroff_event(pwrctl_poweroff_cb)
{
    if (proof::failing::ask("pwrctl_unsubscribe_poweroff_event", kRefused) != nullptr) {
        return -1;
    }
    const Aside aside;
    return __real_pwrctl_unsubscribe_poweroff_event(tellPowerOff);
}

int __wrap_pralis_notify_key_changed(const char* key, pralis_key_changed_cb callback, void* data)
{
    if (proof::failing::ask("pralis_notify_key_changed", kRefused, key) != nullptr) {
        return -1;
    }
    const Aside aside;
    keys()[key] = {callback, data};
    return __real_pralis_notify_key_changed(key, tellKey, &keys()[key]);
}

int __wrap_pralis_ignore_key_changed(const char* key, pralis_key_changed_cb)
{
    if (proof::failing::ask("pralis_ignore_key_changed", kRefused, key) != nullptr) {
        return -1;
    }
    const Aside aside;
    return __real_pralis_ignore_key_changed(key, tellKey);
}

// ---- System information, mount service, packages ----

int __real_sysprop_get_value_string(int key, char** value);
int __wrap_sysprop_get_value_string(int key, char** value)
{
    static constexpr Result results[] = {PROOF_REFUSED, {"null", 0, 0}, {"no-dash", 1, 0}};
    if (const Result* const result = proof::failing::ask("sysprop_get_value_string", results)) {
        *value = result->value == 1 ? strdup("MODEL") : nullptr;
        return result->value == -1 ? -1 : 0;
    }
    const Aside aside;
    return __real_sysprop_get_value_string(key, value);
}

// The two answers of the service: what the call returns, and its result.
#define PROOF_WRAP_MOUNT_SERVICE(name)                                                                       \
    int __real_##name(const char* text, int length, int flags, int* result);                                 \
    int __wrap_##name(const char* text, int length, int flags, int* result)                                  \
    {                                                                                                        \
        static constexpr Result answers[] = {                                                                \
            {"-1,0", 0, 0}, {"0,EINVAL", EINVAL, 0}, {"-1,EBUSY", EBUSY, 0}};                                \
        if (const Result* const answer = proof::failing::ask(#name, answers, text)) {                        \
            *result = static_cast<int>(answer->value);                                                       \
            return answer->value == EINVAL ? 0 : -1;                                                         \
        }                                                                                                    \
        const Aside aside;                                                                                   \
        return __real_##name(text, length, flags, result);                                                   \
    }

PROOF_WRAP_MOUNT_SERVICE(PS_Mount)
PROOF_WRAP_MOUNT_SERVICE(PS_Mknod)
PROOF_WRAP_MOUNT_SERVICE(PS_Umount)

} // extern "C"

// As the compiler names ABM_DownloadAppBinary.
#define PROOF_DOWNLOAD                                                                                       \
    "_ZN16appbinaryManager21ABM_DownloadAppBinaryEPFvRKNSt7__cxx1112basic_stringIcSt11char_"                 \
    "traitsIcESaIcEEEiPvES8_S7_"
bool realDownload(appbinaryManager::DownloadCallback callback, void* data,
                  const std::string& id) __asm__("__real_" PROOF_DOWNLOAD);
bool wrappedDownload(appbinaryManager::DownloadCallback callback, void* data,
                     const std::string& id) __asm__("__wrap_" PROOF_DOWNLOAD);
bool wrappedDownload(appbinaryManager::DownloadCallback callback, void* data, const std::string& id)
{
    static constexpr Result results[] = {{"false", 0, 0}};
    if (proof::failing::ask("ABM_DownloadAppBinary", results, id.c_str()) != nullptr) {
        return false;
    }
    const Aside aside;
    return realDownload(callback, data, id);
}

// ---- Files ----

namespace
{

std::map<int, std::string>& openFiles() // of the daemon, by descriptor
{
    static std::map<int, std::string> all;
    return all;
}

int openCiphers = 0;

// A stream of the daemon's over one of its descriptors, whose reads and writes may fail too.
struct Stream {
    int file;
    std::string path;
    off_t done = 0; // bytes read
};

ssize_t readStream(void* cookie, char* bytes, size_t size)
{
    auto& stream = *static_cast<Stream*>(cookie);
    static constexpr Result results[] = {{"EIO", -1, EIO}};
    if (proof::failing::ask("read", results, stream.path.c_str()) != nullptr) {
        return -1;
    }
    const Aside aside;
    const ssize_t count = read(stream.file, bytes, size);
    stream.done += std::max<ssize_t>(count, 0);
    return count;
}

ssize_t writeStream(void* cookie, const char* bytes, size_t size)
{
    const auto& stream = *static_cast<Stream*>(cookie);
    static constexpr Result results[] = {{"ENOSPC", 0, ENOSPC}, {"EIO", 0, EIO}};
    if (proof::failing::ask("write", results, stream.path.c_str()) != nullptr) {
        return 0; // as a stream's own function tells a failure
    }
    const Aside aside;
    return write(stream.file, bytes, size);
}

int closeStream(void* cookie)
{
    auto* const stream = static_cast<Stream*>(cookie);
    static constexpr Result results[] = {{"EIO", -1, EIO}};
    const bool isRefused = proof::failing::ask("fclose", results, stream->path.c_str()) != nullptr;
    const Aside aside;
    struct stat status = {};
    fstat(stream->file, &status);
    const bool isWhole = stream->done == status.st_size;
    proof::daemon::note((isWhole ? "read whole: " : "read in part: ") + stream->path);
    openFiles().erase(stream->file);
    close(stream->file); // the descriptor is gone in any case
    delete stream;
    errno = EIO;
    return isRefused ? -1 : 0;
}

} // namespace

extern "C" {

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static constexpr Result results[] = {
        {"ENOENT", -1, ENOENT}, {"EACCES", -1, EACCES}, {"EMFILE", -1, EMFILE}};
    if (proof::failing::ask("open", results, path) != nullptr) {
        return -1;
    }
    const bool isDaemons = proof::failing::depth() == 0;
    const Aside aside;
    const int file = __real_open(path, flags, mode);
    if (isDaemons && file >= 0) {
        openFiles()[file] = path;
    }
    return file;
}

int __real_close(int file);
int __wrap_close(int file)
{
    static constexpr Result results[] = {{"EIO", -1, EIO}};
    const bool isRefused = proof::failing::ask("close", results) != nullptr;
    const Aside aside;
    openFiles().erase(file);
    const int result = __real_close(file);
    return isRefused ? -1 : result;
}

FILE* __real_fdopen(int file, const char* mode);
FILE* __wrap_fdopen(int file, const char* mode)
{
    static constexpr Result results[] = {{"ENOMEM", 0, ENOMEM}};
    if (proof::failing::ask("fdopen", results) != nullptr) {
        return nullptr;
    }
    if (proof::failing::depth() > 0) {
        return __real_fdopen(file, mode);
    }
    const Aside aside;
    const cookie_io_functions_t functions{readStream, writeStream, nullptr, closeStream};
    return fopencookie(new Stream{file, openFiles()[file]}, mode, functions);
}

PROOF_WRAP(int, fstat, (int file, struct stat* status), (file, status), nullptr, {"EIO", -1, EIO})
PROOF_WRAP(int, stat, (const char* path, struct stat* status), (path, status), path, {"ENOENT", -1, ENOENT},
           {"EACCES", -1, EACCES})
PROOF_WRAP(int, lstat, (const char* path, struct stat* status), (path, status), path, {"ENOENT", -1, ENOENT},
           {"EACCES", -1, EACCES})
PROOF_WRAP(int, access, (const char* path, int mode), (path, mode), path, {"EACCES", -1, EACCES})
PROOF_WRAP(int, mkdir, (const char* path, mode_t mode), (path, mode), path, {"EACCES", -1, EACCES},
           {"ENOSPC", -1, ENOSPC}, {"EEXIST", -1, EEXIST})
PROOF_WRAP(int, remove, (const char* path), (path), path, {"ENOENT", -1, ENOENT}, {"EACCES", -1, EACCES})
PROOF_WRAP(char*, realpath, (const char* path, char* resolved), (path, resolved), path, {"ENOENT", 0, ENOENT},
           {"ENOMEM", 0, ENOMEM})

// ---- The dynamic loader ----

static const char* loaderError = nullptr;

void* __real_dlopen(const char* path, int flags);
void* __real_dlsym(void* library, const char* name);
char* __real_dlerror();

static constexpr const char* kSignatureLibrary = "/usr/lib/libkZORUser.so";
static char signatureLibrary; // its address stands for the library

static int verifyFile(int, const char* path, const char*)
{
    static constexpr Result results[] = {{"0", 0, 0}};
    const bool isRefused = proof::failing::ask("verifyFile", results, path) != nullptr;
    const Aside aside;
    proof::daemon::note(std::string("verifyFile(\"") + path + "\") = " + (isRefused ? "0" : "1"));
    return isRefused ? 0 : 1;
}

void* __wrap_dlopen(const char* path, int flags)
{
    static constexpr Result results[] = {{"null", 0, 0}};
    if (proof::failing::ask("dlopen", results, path) != nullptr) {
        loaderError = "it cannot be loaded";
        return nullptr;
    }
    const Aside aside;
    return path != nullptr && strcmp(path, kSignatureLibrary) == 0 ? &signatureLibrary
                                                                   : __real_dlopen(path, flags);
}

void* __wrap_dlsym(void* library, const char* name)
{
    if (library == RTLD_NEXT) {
        return __real_dlsym(library, name); // the machine's
    }
    static constexpr Result results[] = {{"none", 0, 0}, {"null", 1, 0}};
    if (const Result* const result = proof::failing::ask("dlsym", results, name)) {
        loaderError = result->value == 0 ? "there is no such symbol" : nullptr;
        return nullptr;
    }
    const Aside aside;
    return library == &signatureLibrary ? reinterpret_cast<void*>(verifyFile) : __real_dlsym(library, name);
}

char* __wrap_dlerror()
{
    if (loaderError == nullptr) {
        return __real_dlerror();
    }
    char* const text = const_cast<char*>(loaderError);
    loaderError = nullptr;
    return text;
}

int __real_dlclose(void* library);
int __wrap_dlclose(void* library)
{
    static constexpr Result results[] = {PROOF_REFUSED};
    if (proof::failing::ask("dlclose", results) != nullptr) {
        return -1;
    }
    const Aside aside;
    return library == &signatureLibrary ? 0 : __real_dlclose(library);
}

// ---- Semaphore, clock, process, memory ----

sem_t* __real_sem_open(const char* name, int flags, ...);
sem_t* __wrap_sem_open(const char* name, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const unsigned int mode = va_arg(arguments, unsigned int);
    const unsigned int value = va_arg(arguments, unsigned int);
    va_end(arguments);
    static constexpr Result results[] = {{"EMFILE", 0, EMFILE}, {"EACCES", 0, EACCES}};
    if (proof::failing::ask("sem_open", results) != nullptr) {
        return SEM_FAILED;
    }
    const Aside aside;
    return __real_sem_open(name, flags, mode, value);
}

PROOF_WRAP(int, sem_close, (sem_t * semaphore), (semaphore), nullptr, {"EINVAL", -1, EINVAL})
PROOF_WRAP(int, sem_wait, (sem_t * semaphore), (semaphore), nullptr, {"EINTR", -1, EINTR},
           {"EINVAL", -1, EINVAL})
PROOF_WRAP(int, sem_post, (sem_t * semaphore), (semaphore), nullptr, {"EOVERFLOW", -1, EOVERFLOW})
PROOF_WRAP(int, clock_gettime, (clockid_t clock, timespec* time), (clock, time), nullptr,
           {"EINVAL", -1, EINVAL})
PROOF_WRAP(int, madvise, (void* memory, size_t size, int advice), (memory, size, advice), nullptr,
           {"EINVAL", -1, EINVAL})
PROOF_WRAP(void*, calloc, (size_t count, size_t size), (count, size), nullptr, {"ENOMEM", 0, ENOMEM})

// ---- Decryption ----

EVP_CIPHER_CTX* __real_EVP_CIPHER_CTX_new();
EVP_CIPHER_CTX* __wrap_EVP_CIPHER_CTX_new()
{
    static constexpr Result results[] = {{"null", 0, 0}};
    if (proof::failing::ask("EVP_CIPHER_CTX_new", results) != nullptr) {
        return nullptr;
    }
    const Aside aside;
    ++openCiphers;
    return __real_EVP_CIPHER_CTX_new();
}

void __real_EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context);
void __wrap_EVP_CIPHER_CTX_free(EVP_CIPHER_CTX* context)
{
    const Aside aside;
    openCiphers -= context != nullptr ? 1 : 0;
    __real_EVP_CIPHER_CTX_free(context);
}

PROOF_WRAP(int, EVP_CipherInit_ex,
           (EVP_CIPHER_CTX * context, const EVP_CIPHER* cipher, ENGINE* engine, const unsigned char* key,
            const unsigned char* iv, int enc),
           (context, cipher, engine, key, iv, enc), nullptr, {"0", 0, 0})
PROOF_WRAP(int, EVP_CipherUpdate,
           (EVP_CIPHER_CTX * context, unsigned char* out, int* produced, const unsigned char* in, int size),
           (context, out, produced, in, size), nullptr, {"0", 0, 0})
PROOF_WRAP(int, EVP_CipherFinal_ex, (EVP_CIPHER_CTX * context, unsigned char* out, int* produced),
           (context, out, produced), nullptr, {"0", 0, 0})

} // extern "C"

// NOLINTEND(bugprone-reserved-identifier)

namespace proof
{

std::vector<std::string> heldByDaemon()
{
    std::vector<std::string> held;
    for (const auto& [file, path] : openFiles()) {
        held.push_back(path);
    }
    if (openCiphers != 0) {
        held.emplace_back("a cipher context");
    }
    return held;
}

} // namespace proof
