#include "fw-update-symbol.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <json/json.h>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <openssl/evp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <tarnwick/control.h>
#include <unistd.h>
#include <utility>

#include "appbinary_manager.h"
#include "fw-update-checksum.h"
#include "fw-update-file.h"
#include "fw-update-library.h"
#include "fw-update-log.h"
#include "fw-update-mount-manager.h"

namespace
{

constexpr const char* kPackageDirectory = "/opt/usr/apps/appbinarymanager/";
constexpr const char* kPackageMountDirectory = "/opt/usr/apps/appbinarymanager/emps/";

} // namespace

// ---- Binding ----

namespace
{

// Calls the library as the header that its maker compiles against says.
template <auto slot, typename Function>
void store(SYMFunction& functions, void* address)
{
    functions.*slot = reinterpret_cast<Function*>(address); // a null address leaves the slot empty
}

struct EntryPoint {
    const char* name;
    bool required;
    void (*store)(SYMFunction& functions, void* address);
};

constexpr EntryPoint kEntryPoints[] = {
    {"setContext", true, store<&SYMFunction::setContext, tarnwick_setContext_fn>},
    {"getEMPID", true, store<&SYMFunction::getEMPID, tarnwick_getEMPID_fn>},
    {"getActiveVersion", true, store<&SYMFunction::getActiveVersion, tarnwick_getActiveVersion_fn>},
    {"checkVersion", true, store<&SYMFunction::checkVersion, tarnwick_checkVersion_fn>},
    {"doUpdate", true, store<&SYMFunction::doUpdate, tarnwick_doUpdate_fn>},
    {"allUpdateDone", false, store<&SYMFunction::allUpdateDone, tarnwick_allUpdateDone_fn>},
    {"doUpdate_decryption", false, store<&SYMFunction::doUpdate_decryption, tarnwick_doUpdate_decryption_fn>},
    {"getExpectedTime", false, store<&SYMFunction::getExpectedTime, tarnwick_getExpectedTime_fn>},
    {"getUpdateProgress", false, store<&SYMFunction::getUpdateProgress, tarnwick_getUpdateProgress_fn>},
};

// Whether an entry point is there is told by the loader's error text, not by its address.
bool bindEntryPoints(void* handle, SYMFunction& functions)
{
    for (const EntryPoint& entry : kEntryPoints) {
        entry.store(functions, dlsym(handle, entry.name));
        const char* const error = dlerror();
        if (error == nullptr) {
            continue;
        }
        if (entry.required) {
            FWLOGE("Error: dlsym error: %s\n", error);
            return false;
        }
        FWLOG_NORLOG(FWLOG_DEBUG, "Error: dlsym error: %s\n", error);
        entry.store(functions, nullptr);
    }
    return true;
}

} // namespace

bool isExternalName(const std::string& name)
{
    std::string upper = name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return upper.find("EXT-") != std::string::npos;
}

FWUpdateSymbol::FWUpdateSymbol(std::string name, bool inUsr) : usrControl(inUsr), libName(std::move(name)) {}

FWUpdateSymbol::~FWUpdateSymbol()
{
    if (handle != nullptr) {
        dlclose(handle);
    }
}

int FWUpdateSymbol::loadSymbol(const std::string& libraryName)
{
    if (libraryName.empty()) {
        return -1;
    }
    const std::string path =
        (usrControl ? "/usr/fwupdate/controls/" : "/prd/usr/fwupdate/controls/") + libraryName + ".so";
    const std::unique_ptr<char, decltype(&free)> resolved{realpath(path.c_str(), nullptr), &free};
    if (!resolved) {
        return -1;
    }
    libName = libraryName;
    std::string error;
    handle = openLibrary(resolved.get(), RTLD_NOW, error);
    if (handle == nullptr) {
        FWLOG_NORLOG(FWLOG_ERROR, "Error: dlsym libfile: %s error: %s\n", path.c_str(), error.c_str());
        // The loader tells its error once, and the platform log has had it.
        TRACE_RECORD(FWLOG_ERROR, "Error: dlsym libfile: %s error: %s\n", path.c_str(), "");
        return -1;
    }
    if (!bindEntryPoints(handle, functions)) {
        return -1;
    }
    char emptyContext[] = "";
    setContext(FW_CALLER_EMP, emptyContext);

    if (isExternalName(libName)) {
        isEMP = false;
        symbolType = 1;
        FWLOGE("Not Update Symbol [%s]", libName.c_str());
        updateType = UPDATE_TYPE_EMP;
        return 0;
    }
    return deriveNames();
}

// Takes the names of a module with a package from its identifier.
int FWUpdateSymbol::deriveNames()
{
    std::string identifier;
    if (getEMPID(identifier) != 0) {
        return -1;
    }
    EMPName = identifier;
    firmwareName = identifier;
    const size_t tag = firmwareName.find("emp");
    if (tag == std::string::npos) {
        FWLOGE("Error: EMPID is Wrong (%s)", firmwareName.c_str());
        return -1;
    }
    firmwareName.erase(tag, strlen("emp"));
    empImagePath = kPackageDirectory + EMPName + ".img";
    isEMP = true;
    symbolType = 0;
    updateType = UPDATE_TYPE_EMP;
    return 0;
}

int FWUpdateSymbol::getEMPID(std::string& out)
{
    TextBuffer text = {};
    functions.getEMPID(text);
    out = text;
    if (out.empty()) {
        FWLOGE("Error: EMPID is empty.(%s)", libName.c_str());
        return -1;
    }
    const auto isEnglish = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    };
    if (!std::all_of(out.begin(), out.end(), isEnglish)) {
        FWLOGE("Error: use EMPID only English and numbers. %s", out.c_str());
        return -1;
    }
    return 0;
}

int FWUpdateSymbol::setContext(FWUpdateCallerTypes caller, char* context)
{
    return functions.setContext(libName.c_str(), caller, context);
}

int FWUpdateSymbol::getActiveVersion(char* out)
{
    char emptyContext[] = "";
    setContext(FW_CALLER_EMP, emptyContext);
    return functions.getActiveVersion(out);
}

int FWUpdateSymbol::checkVersion(const char* version, int* result)
{
    return functions.checkVersion(version, result);
}

int FWUpdateSymbol::doUpdate(const char* name, unsigned long value, unsigned int)
{
    return functions.doUpdate(name, value);
}

int FWUpdateSymbol::allUpdateDone()
{
    return functions.allUpdateDone ? functions.allUpdateDone() : -1;
}

int FWUpdateSymbol::doUpdate_decryption(const unsigned char* data, int length)
{
    return isEMP && functions.doUpdate_decryption ? functions.doUpdate_decryption(data, length) : -1;
}

int FWUpdateSymbol::getExpectedTime(int* out)
{
    return isEMP && functions.getExpectedTime ? functions.getExpectedTime(out) : -1;
}

int FWUpdateSymbol::getUpdateProgress(unsigned int* out)
{
    return functions.getUpdateProgress ? functions.getUpdateProgress(out) : -1;
}

// ---- Information and paths ----

namespace
{

bool readJson(const std::string& path, Json::Value& root)
{
    constexpr size_t kLimit = 1 << 20; // no maker means more, and memory is scarce on a set
    try {
        static const Json::CharReaderBuilder builder; // costs more than to read a file with it
        const std::unique_ptr<Json::CharReader> reader{builder.newCharReader()};
        std::string text;
        return readWhole(path, kLimit, text) &&
               reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    } catch (const std::exception&) { // nested beyond the reader's limit
        return false;
    }
}

bool isOfferedByUI(const std::string& uiUse)
{
    return uiUse == "select" || uiUse == "force";
}

// False at the first value of a wrong type. The message speaks of the checksum for every key.
bool takeValues(const Json::Value& root, const std::string& path, FWInformation& information)
{
    try {
        information.version = root.get("version", "0000").asString();
        information.crc = root.get("crc", 0).asUInt();
        information.expected_time = root.get("expected_time", 300).asUInt();
    } catch (const std::exception& error) {
        FWLOGE("Error: json crc read fail error:%s (%s)\n", error.what(), path.c_str());
        return false;
    }
    information.ui_use = "none";
    if (!root.isMember("ui_use") || !root["ui_use"].isString()) {
        FWLOGI("Warn: json does not have ui_use tag (%s)\n", path.c_str());
        return true;
    }
    const std::string uiUse = root["ui_use"].asString();
    if (isOfferedByUI(uiUse)) {
        information.ui_use = uiUse;
    }
    return true;
}

} // namespace

bool FWUpdateSymbol::loadInformation(const std::string& path)
{
    Json::Value root;
    if (!readJson(path, root)) {
        FWLOGE("Error: json loadInformation fail.(%s)\n", path.c_str());
        return false;
    }
    FWInformation fresh;
    cloneFwInformation(fresh);
    const bool isValid = takeValues(root, path, fresh);
    restoreFwInformation(fresh); // also what was read before a wrong value
    return isValid;
}

void FWUpdateSymbol::cloneFwInformation(FWInformation& out)
{
    const std::lock_guard<std::mutex> lock(informationMutex);
    out = information;
}

void FWUpdateSymbol::restoreFwInformation(FWInformation& in)
{
    const std::lock_guard<std::mutex> lock(informationMutex);
    information = in;
}

bool FWUpdateSymbol::isUISupportUpdate() const
{
    const std::lock_guard<std::mutex> lock(informationMutex);
    return isOfferedByUI(information.ui_use);
}

bool FWUpdateSymbol::hasUISupportForce() const
{
    const std::lock_guard<std::mutex> lock(informationMutex);
    return information.ui_use == "force";
}

// The directory of the image and of its information file, ending in "/". Every unknown type is a package.
std::string FWUpdateSymbol::getSourceDirectory(UPDATE_TYPE type)
{
    std::string usb;
    switch (type) {
    case UPDATE_TYPE_USB:
        if (!getUsbMountPath(usb)) {
            FWLOGE("Error: Usb mount path Not found.");
            return "";
        }
        return usb + firmwareName + "/";
    case UPDATE_TYPE_BUILTIN:
        return "/lib/firmware/ext/" + firmwareName + "/";
    case UPDATE_TYPE_SBOX:
        return "/opt/usr/share/sbox/" + firmwareName + "/";
    case UPDATE_TYPE_EMP:
        break;
    }
    return kPackageMountDirectory + EMPName + "/";
}

std::string FWUpdateSymbol::getInformationPath(UPDATE_TYPE type)
{
    const std::string directory = getSourceDirectory(type);
    return directory.empty() ? "" : directory + "info.json";
}

std::string FWUpdateSymbol::getBinaryPath(UPDATE_TYPE type)
{
    const std::string directory = getSourceDirectory(type);
    return directory.empty() ? "" : directory + firmwareName + ".bin";
}

bool FWUpdateSymbol::getUsbMountPath(std::string& out)
{
    std::string candidate = "/opt/media/USBDriveA/";
    for (int number = 1; number <= 11; ++number) {
        if (file_exists(candidate)) {
            out = candidate;
            return true;
        }
        candidate = "/opt/media/USBDriveA" + std::to_string(number) + "/";
    }
    return false;
}

unsigned int FWUpdateSymbol::getBinaryCRC32(const std::string& path)
{
    const File file = openToRead(path);
    if (!file) {
        FWLOGE("Error: binary file is NULL\n");
        return 0;
    }
    uint32_t checksum = 0;
    unsigned char chunk[32768];
    while (const size_t count = fread(chunk, 1, sizeof chunk, file.get())) {
        checksum = extendChecksum(checksum, chunk, count);
    }
    return checksum;
}

bool FWUpdateSymbol::file_exists(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0;
}

bool FWUpdateSymbol::getIMGExists()
{
    return isEMP && file_exists(empImagePath);
}

// ---- Update run ----

int FWUpdateSymbol::isNeedUpdate(FWUpdateCallerTypes caller, char* context)
{
    if (firmwareName.empty()) {
        FWLOGE("Error: m_fwName (ret empId)  empty.(%s)", libName.c_str());
        return -1;
    }
    FWLOGE("%s Firmware isNeedUpdateModules Try(%s)", firmwareName.c_str(), libName.c_str());
    const UPDATE_TYPE type = CallerToUpdateType(caller, context);
    if (type == UPDATE_TYPE_EMP && !mountEMPImage()) {
        return -1;
    }
    setContext(caller, context);
    const std::string imagePath = getBinaryPath(type);
    if (!file_exists(imagePath)) {
        FWLOGE("Error: Firmware binary file no exist (%s)", imagePath.c_str());
        return -1;
    }
    const std::string informationPath = getInformationPath(type);
    FWInformation offered;
    if (!readInformation(informationPath, offered)) {
        return -1;
    }
    if (type == UPDATE_TYPE_BUILTIN && offered.ui_use == "none") {
        FWLOGE("Error: %s Firmware does not have proper UI information in %s", firmwareName.c_str(),
               informationPath.c_str());
        return -1;
    }
    if (offered.crc != getBinaryCRC32(imagePath)) {
        FWLOGE("Error: %s Firmware CRC32 different", firmwareName.c_str());
        return -1;
    }
    int verdict = 0;
    if (checkVersion(offered.version.c_str(), &verdict) != 0) {
        FWLOGE("Error: %s Firmware CheckVersion Fail", firmwareName.c_str());
        return -1;
    }
    if (verdict < 1) {
        logNotNeeded(type, imagePath);
        // The factory line reads any result but 0 as a fault of the set.
        verdict = (context != nullptr && strcmp(context, "FACTORY_AUTOMATION") == 0) ? 0 : verdict;
    }
    updateType = type;
    needUpdate = (verdict == 1);
    expectedUpdateTime = offered.expected_time;
    return verdict;
}

int FWUpdateSymbol::updateFirmware(FWUpdateCallerTypes caller, char* context)
{
    if (!isEMP) {
        return -1;
    }
    FWLOGE("%s Firmware Update Try", firmwareName.c_str());
    const UPDATE_TYPE type = CallerToUpdateType(caller, context);
    if (type == UPDATE_TYPE_EMP && !mountEMPImage()) {
        return -1;
    }
    const std::string informationPath = getInformationPath(type);
    FWInformation offered;
    if (!readInformation(informationPath, offered)) {
        return -1;
    }
    const std::string imagePath = getBinaryPath(type);
    if (!file_exists(imagePath)) {
        FWLOGE("Error: Firmware binary file no exist (%s)", imagePath.c_str());
        return -1;
    }

    static std::mutex oneCheckedUpdate; // shared by all modules
    const std::lock_guard<std::mutex> lock(oneCheckedUpdate);
    if (setContext(caller, context) != 0) {
        return -1;
    }
    int verdict = -1;
    if (checkVersion(offered.version.c_str(), &verdict) != 0) {
        FWLOGE("Error: %s Firmware CheckVersion Fail", firmwareName.c_str());
        return -1;
    }
    if (verdict < 1) {
        FWLOGE("Error: %s Firmware not need update", firmwareName.c_str());
        if (type == UPDATE_TYPE_EMP) {
            unmountEMPImage();
        }
        return 0;
    }
    if (offered.crc != getBinaryCRC32(imagePath)) {
        FWLOGE("Error: %s Firmware crc32 different", firmwareName.c_str());
        return -1;
    }
    return writeImage(type, imagePath, offered.crc);
}

int FWUpdateSymbol::runProcess(FWUpdateCallerTypes caller, char* context)
{
    FWLOGE("%s Firmware runProcess Try", firmwareName.c_str());
    prctl(PR_SET_NAME, firmwareName.c_str());

    static std::mutex oneDirectUpdate; // shared by all modules
    const std::lock_guard<std::mutex> lock(oneDirectUpdate);
    if (setContext(caller, context) != 0) {
        return -1;
    }
    if (doUpdate(libName.c_str(), 0, 0) != 0) {
        FWLOGE("Error: %s runProcess Fail (%d:%m)", libName.c_str(), errno);
        return -1;
    }
    return 0;
}

// Gives a copy: a late worker of this module may be reading the record, and rewrite it.
bool FWUpdateSymbol::readInformation(const std::string& path, FWInformation& offered)
{
    if (!file_exists(path)) {
        FWLOGE("Error: Firmware json file no exist (%s)", path.c_str());
        return false;
    }
    if (!loadInformation(path)) {
        FWLOGE("Error: json information load fail");
        return false;
    }
    cloneFwInformation(offered);
    return true;
}

void FWUpdateSymbol::logNotNeeded(UPDATE_TYPE type, const std::string& imagePath)
{
    TextBuffer version = {};
    getActiveVersion(version);
    const std::string& image = (type == UPDATE_TYPE_EMP) ? empImagePath : imagePath;
    FWLOGE("Error: %s not need update, version is %s", image.c_str(), version);
}

// A failed write leaves the package mounted and in place, for the next try.
int FWUpdateSymbol::writeImage(UPDATE_TYPE type, const std::string& imagePath, uint64_t crc)
{
    FWLOGE("========== [ %s update start ] ==========", firmwareName.c_str());
    const int result = reportWrite(doUpdate(imagePath.c_str(), crc, 0));
    if (result == 0 && type == UPDATE_TYPE_EMP) {
        remove(empImagePath.c_str());
        unmountEMPImage();
    }
    return result;
}

// Takes the library's result, with `errno` as the library left it, and returns it.
int FWUpdateSymbol::reportWrite(int result)
{
    if (result != 0) {
        FWLOGE("Error: %s Firmware doUpdate Fail %d (%d:%m)", firmwareName.c_str(), result, errno);
        return result;
    }
    FWLOGE("========== [ %s update succeeded ] ==========", firmwareName.c_str());
    return 0;
}

// ---- Encrypted USB image ----

// A file: 16 bytes of initialisation vector, AES-256-CBC ciphertext, and a trailer that belongs to the
// signature library. Its plaintext: 64 bytes of version header, then the payload.

std::atomic<unsigned char*> cipher_buf_all{nullptr};

namespace
{

constexpr int kIvSize = 16;
constexpr int kTrailerSize = 534;
constexpr int kHeaderSize = 64;
constexpr size_t kChunkSize = 10240;

using VerifyFile = int(int mode, const char* path, const char* caller);

// Null when the signature library or its entry point cannot be had. The library stays loaded, because its
// entry point is kept.
VerifyFile* findVerifyFile()
{
    static std::atomic<VerifyFile*> verifyFile{nullptr};
    if (VerifyFile* const known = verifyFile) {
        return known;
    }
    std::string reason;
    void* const library = openLibrary("/usr/lib/libkZORUser.so", RTLD_LAZY, reason);
    if (library == nullptr) {
        FWLOGE("[zor][%s] pHandle Error: %s\n", "UserCaller", reason.c_str());
        return nullptr;
    }
    dlerror();
    void* const address = dlsym(library, "verifyFile");
    const char* const error = dlerror();
    if (error != nullptr || address == nullptr) {
        FWLOGE("[zor][%s] dlsym Error: %s\n", "UserCaller", error != nullptr ? error : "null address");
        dlclose(library);
        return nullptr;
    }
    verifyFile = reinterpret_cast<VerifyFile*>(address);
    return verifyFile;
}

struct CipherContextFree {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, CipherContextFree>;

// Zero-filled and never released; null for a size below zero. Never smaller than a header and a cipher block,
// which callers read whatever the file held. Most of a decryption's time is page faults here: huge pages save
// them.
unsigned char* allocateOutput(int total)
{
    if (total < 0) {
        return nullptr;
    }
    const size_t size = static_cast<size_t>(std::max(total, kHeaderSize + EVP_MAX_BLOCK_LENGTH));
    auto* const output = static_cast<unsigned char*>(calloc(size, 1));
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(output) + page - 1) / page * page;
    const uintptr_t end = (reinterpret_cast<uintptr_t>(output) + size) / page * page;
    if (output != nullptr && end > begin) {
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE); // a wish: no harm if refused
    }
    return output;
}

} // namespace

int zor_verify(const char* path)
{
    VerifyFile* const verifyFile = findVerifyFile();
    if (verifyFile == nullptr) {
        return 1; // a set without the signature library takes every image
    }
    const int isSigned = verifyFile(0, path, "UserCaller");
    if (isSigned != 0) {
        FWLOGE("[zor][%s] the file is signed successfully : %s\n", "UserCaller", path);
    } else {
        FWLOGE("[zor][%s] the file is NOT signed!! : %s\n", "UserCaller", path);
    }
    return isSigned;
}

unsigned char* aes_256_cbc_all(FILE* in, const unsigned char* key, const unsigned char* iv, int enc,
                               int total, int& outLength)
{
    const std::unique_ptr<unsigned char[]> chunk{new (std::nothrow) unsigned char[kChunkSize]};
    const CipherContext cipher{EVP_CIPHER_CTX_new()};
    if (!chunk || !cipher) {
        return nullptr;
    }
    if (EVP_CipherInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, key, iv, enc) != 1) {
        return nullptr;
    }
    unsigned char* const output = allocateOutput(total);
    cipher_buf_all = output;
    if (output == nullptr) {
        return nullptr;
    }
    const int64_t limit = static_cast<int64_t>(total) - kTrailerSize;
    int64_t readSoFar = 0;
    int produced = 0;
    for (size_t count = kChunkSize; count == kChunkSize;) {
        count = fread(chunk.get(), 1, kChunkSize, in);
        readSoFar += static_cast<int64_t>(count);
        const int64_t beyond = std::max<int64_t>(readSoFar - limit, 0);
        const int64_t feed = static_cast<int64_t>(count) - beyond;
        int step = 0; // stays 0 when the cipher refuses: it then leaves the length alone
        if (feed > 0 && EVP_CipherUpdate(cipher.get(), output + produced, &step, chunk.get(),
                                         static_cast<int>(feed)) == 1) {
            produced += step;
        }
    }
    int step = 0;
    if (EVP_CipherFinal_ex(cipher.get(), output + produced, &step) == 1) {
        produced += step; // a wrong key shows as a padding error and adds nothing
    }
    outLength = produced;
    return output;
}

namespace
{

// The words in which probing and installing tell the same failures.
struct UsbWording {
    const char* notOpened;
    const char* subject;
};
constexpr UsbWording kProbe{"open fail", ""};
constexpr UsbWording kInstall{"file open", "file "};

// An image up to its decrypted header. The header is terminated, since a library may read it as a text.
struct UsbImage {
    File file;
    int size = 0; // -1 when an int cannot hold it
    unsigned char iv[kIvSize] = {};
    char header[kHeaderSize + 1] = {};
    unsigned char* plain = nullptr;
    int plainLength = 0;
};

// 0 when nothing can be learned.
int sizeOf(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return 0;
    }
    return status.st_size <= std::numeric_limits<int>::max() ? static_cast<int>(status.st_size) : -1;
}

// Opens the module's image, has its signature judged, tells the library who asks, and reads the IV.
bool openUsbImage(FWUpdateSymbol& module, const unsigned char* ckey, const char* directory,
                  const UsbWording& wording, UsbImage& image)
{
    if (ckey == nullptr) {
        FWLOGE("Error: ckey  is nullptr");
        return false;
    }
    if (directory == nullptr) {
        FWLOGE("Error: image_path is nullptr");
        return false;
    }
    const std::string path = directory + module.firmwareName + ".bin";
    image.file = openToRead(path);
    if (!image.file) {
        FWLOGE("Error: %s %s", path.c_str(), wording.notOpened);
        return false;
    }
    if (zor_verify(path.c_str()) == 0) {
        FWLOGE("Error: %s %sis NOT signed ", path.c_str(), wording.subject);
        return false;
    }
    char emptyContext[] = "";
    module.setContext(FW_CALLER_USB_IMAGE, emptyContext);
    image.size = sizeOf(path);
    if (fread(image.iv, 1, kIvSize, image.file.get()) < kIvSize) {
        FWLOGE("Error: iv is worng");
        return false;
    }
    return true;
}

bool decryptUsbImage(const unsigned char* ckey, int total, UsbImage& image)
{
    image.plain = aes_256_cbc_all(image.file.get(), ckey, image.iv, 0, total, image.plainLength);
    if (image.plain == nullptr) {
        return false;
    }
    image.file.reset();
    memcpy(image.header, image.plain, kHeaderSize);
    return true;
}

bool judgeUsbImage(FWUpdateSymbol& module, const UsbImage& image, int& need)
{
    need = -1;
    if (module.checkVersion(image.header, &need) != 0) {
        FWLOGE("Error: %s Firmware CheckVersion Fail", module.firmwareName.c_str());
        return false;
    }
    return true;
}

} // namespace

int FWUpdateSymbol::getNeedUpdateList(const unsigned char* ckey, const char* image_path)
{
    UsbImage image;
    if (!isEMP || !openUsbImage(*this, ckey, image_path, kProbe, image)) {
        return -1;
    }
    // The whole size, IV included: the stretch runs 16 bytes into the trailer, far behind the header.
    if (!decryptUsbImage(ckey, image.size, image)) {
        return -1;
    }
    int need;
    if (!judgeUsbImage(*this, image, need)) {
        return -1;
    }
    int time = 0;
    if (getExpectedTime(&time) != 0) {
        FWLOGE("Error: %s getExpectedTime Fail", firmwareName.c_str());
        return 0;
    }
    needUpdate = (need != 0);
    expectedUpdateTime = static_cast<uint32_t>(time);
    return need;
}

int FWUpdateSymbol::updateUSB(const unsigned char* ckey, const char* image_path)
{
    UsbImage image;
    if (!openUsbImage(*this, ckey, image_path, kInstall, image)) {
        return -1;
    }
    if (!decryptUsbImage(ckey, image.size - kIvSize, image)) {
        FWLOGE("Error: Decryption data is null");
        return -1;
    }
    int need;
    if (!judgeUsbImage(*this, image, need)) {
        return -1;
    }
    if (need <= 0) { // the probe takes a negative need for one; an installation does not
        FWLOGE("Error: %s Firmware not need update", firmwareName.c_str());
        return -1;
    }
    FWLOGE("========== [ %s update start ] ==========", firmwareName.c_str());
    return reportWrite(doUpdate_decryption(image.plain + kHeaderSize, image.plainLength - kHeaderSize));
}

// ---- Package ----

bool FWUpdateSymbol::downloadEMP()
{
    if (!isEMP) {
        return false;
    }
    if (!appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, EMPName)) {
        FWLOGE("Error: EMP ABM_DownloadAppBinary fail.(%s)", EMPName.c_str());
        return false;
    }
    FWLOGI("Request (%s) emp download", EMPName.c_str());
    return true;
}

bool FWUpdateSymbol::mountEMPImage()
{
    if (!getIMGExists()) {
        FWLOGE("Error: file no exist (%s)", empImagePath.c_str());
        return false;
    }
    const std::string mountPoint = kPackageMountDirectory + EMPName;
    FWMountManager::getInstance().UMount(mountPoint); // what an earlier run may have left
    if (FWMountManager::getInstance().Mount(empImagePath, mountPoint) != 0) {
        FWLOGE("Error: Firmware EMP Mount Fail.(%s)", EMPName.c_str());
        return false;
    }
    return true;
}

bool FWUpdateSymbol::unmountEMPImage()
{
    const std::string mountPoint = kPackageMountDirectory + EMPName;
    if (FWMountManager::getInstance().UMount(mountPoint) != 0) {
        FWLOGE("Error: Firmware EMP UMount Fail.(%s)", EMPName.c_str());
        return false;
    }
    FWLOGE("EMP UMount Success %s", empImagePath.c_str());
    return true;
}
