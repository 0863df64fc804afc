// One firmware module of the set (a "symbol"): its control library, its information file, where its image
// lies, its checks and its update, from a package, the system image or an encrypted image on a USB stick.
//
// A module is made and loaded on the thread that builds the registry; afterwards one update worker at a time
// drives it. What others read meanwhile is atomic or, the information record, behind a lock: a check or an
// update that is late may still be at work. Control libraries are called from whichever thread that is.
#ifndef FW_UPDATE_SYMBOL_H
#define FW_UPDATE_SYMBOL_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

#include "fw-update-common.h"

// The values of a module's "info.json". Empty and 0 until a file is read; `loadInformation` knows the
// defaults of absent keys.
struct FWInformation {
    std::string version;
    std::string ui_use;         // "select", "force" or "none"
    uint64_t crc = 0;           // expected checksum of the image, see getBinaryCRC32
    uint32_t expected_time = 0; // seconds
};

// The entry points of a control library, as tarnwick/control.h declares them; an absent one is empty.
struct SYMFunction {
    std::function<int(const char* name, FWUpdateCallerTypes caller, char* context)> setContext;
    std::function<int(char* out)> getEMPID;
    std::function<int(char* out)> getActiveVersion;
    std::function<int(const char* version, int* result)> checkVersion;
    std::function<int(const char* name, unsigned long value)> doUpdate;
    std::function<int()> allUpdateDone;
    std::function<int(const unsigned char* data, int length)> doUpdate_decryption;
    std::function<int(int* out)> getExpectedTime;
    std::function<int(unsigned int* out)> getUpdateProgress;
};

class FWUpdateSymbol
{
public:
    // A text that a control library fills: 128 bytes, and one more that stays 0 should it fill them all.
    static constexpr size_t kTextSize = 128;
    using TextBuffer = char[kTextSize + 1];

    // `usrControl`: the library lies in "/usr/fwupdate/controls/", not in "/prd/usr/fwupdate/controls/".
    explicit FWUpdateSymbol(std::string libName, bool usrControl = false);
    ~FWUpdateSymbol();
    FWUpdateSymbol(const FWUpdateSymbol&) = delete; // owns the library's handle
    FWUpdateSymbol& operator=(const FWUpdateSymbol&) = delete;

    // ---- Binding ----

    // Opens the library, binds its entry points and derives the module's names. 0 on success, -1 on
    // failure; a failed module keeps what was bound. To be called once.
    int loadSymbol(const std::string& libraryName);
    // Asks the library for its package identifier. -1 when it is empty or holds more than ASCII letters
    // and digits; `out` holds what the library wrote in either case.
    int getEMPID(std::string& out);

    std::string getLibName() const { return libName; }
    std::string getEMPName() const { return EMPName; }
    std::string getFirmwareName() const { return firmwareName; }
    uint32_t getSymbolType() const { return symbolType; }
    uint32_t getExpectedUpdateTime() const { return expectedUpdateTime; } // seconds
    bool getNeedUpdate() const { return needUpdate; }
    UPDATE_TYPE getUpdateType() const { return updateType; }
    void setUpdateType(UPDATE_TYPE type) { updateType = type; }

    // Calls into the library; the result is the library's. On a module whose load failed before the entry
    // point was bound, the required ones throw std::bad_function_call and the optional ones return -1.
    int setContext(FWUpdateCallerTypes caller, char* context);
    int getActiveVersion(char* out); // at least 128 bytes
    int checkVersion(const char* version, int* result);
    int doUpdate(const char* name, unsigned long value, unsigned int unused);
    int allUpdateDone();
    int doUpdate_decryption(const unsigned char* data, int length); // -1 also for an external module
    int getExpectedTime(int* out);                                  // -1 also for an external module
    int getUpdateProgress(unsigned int* out);

    // ---- Information and paths ----

    bool loadInformation(const std::string& path);
    // Empty for the USB source when no stick is mounted.
    std::string getInformationPath(UPDATE_TYPE type);
    std::string getBinaryPath(UPDATE_TYPE type);
    // The first USB mount directory that exists, ending in "/"; `out` is untouched when there is none.
    bool getUsbMountPath(std::string& out);
    // CRC of a file: width 32, polynomial 0x01B23CA3, initial value 0, nothing reflected, no final XOR.
    // 0 when the file cannot be opened.
    unsigned int getBinaryCRC32(const std::string& path);
    static bool file_exists(const std::string& path);
    bool getIMGExists();
    void cloneFwInformation(FWInformation& out);
    void restoreFwInformation(FWInformation& in);
    bool isUISupportUpdate() const;
    bool hasUISupportForce() const;

    // ---- Update run ----

    // Whether the image that the caller selects is sound and newer: the library's verdict, -1 on failure.
    // Sets updateType, needUpdate and expectedUpdateTime. A package stays mounted.
    int isNeedUpdate(FWUpdateCallerTypes caller, char* context);
    // The checked update: 0 when written or not needed, -1 when a check failed, else the library's result.
    // One at a time in the process.
    int updateFirmware(FWUpdateCallerTypes caller, char* context);
    // Leaves the whole update to the library. 0 on success, -1 on failure. One at a time in the process.
    int runProcess(FWUpdateCallerTypes caller, char* context);

    // ---- Encrypted USB image ----

    // `ckey`: 32 bytes, the AES-256 key. `image_path`: a directory ending in "/".
    // The library's verdict on the image; 0 when it does not tell its time, -1 on any other failure. Sets
    // needUpdate and expectedUpdateTime.
    int getNeedUpdateList(const unsigned char* ckey, const char* image_path);
    // 0 when the image was installed, the library's result when it refused, -1 on any other failure.
    int updateUSB(const unsigned char* ckey, const char* image_path);

    // ---- Package ----

    bool downloadEMP();   // true when the request was taken; nobody waits for the package
    bool mountEMPImage(); // clears a left-over mount first
    bool unmountEMPImage();

    bool isEMP = false;
    std::atomic<bool> needUpdate{false};
    bool usrControl;
    std::atomic<uint32_t> expectedUpdateTime{0}; // seconds
    void* handle = nullptr;                      // from dlopen, owned
    std::string libName;
    std::string EMPName;
    std::string firmwareName; // EMPName without its first "emp"
    std::string empImagePath;
    std::atomic<UPDATE_TYPE> updateType{UPDATE_TYPE_EMP};
    FWInformation information;
    SYMFunction functions;
    uint32_t symbolType = 0; // 0 a module with a package, 1 an external one

private:
    int deriveNames();
    std::string getSourceDirectory(UPDATE_TYPE type);
    bool readInformation(const std::string& path, FWInformation& offered);
    void logNotNeeded(UPDATE_TYPE type, const std::string& imagePath);
    int writeImage(UPDATE_TYPE type, const std::string& imagePath, uint64_t crc);
    int reportWrite(int result);

    mutable std::mutex informationMutex; // a late worker may outlive the run that started it
};

// True when "EXT-" stands anywhere in the name, in any case: the module is an external one.
bool isExternalName(const std::string& name);

// The output of the latest decryption, null when there was no memory for it. Nobody releases these buffers:
// each stays until the process ends.
extern std::atomic<unsigned char*> cipher_buf_all;

// Runs AES-256-CBC (`enc` 0 decrypts, 1 encrypts) over the stream's next `total` bytes but the last 534, the
// signature trailer. Returns the zero-filled output of at least 80 bytes, also kept in `cipher_buf_all`, and
// its used length; null, with `outLength` untouched, when `total` is below 0, when there is no memory for it,
// or when libcrypto has no such cipher. `key` has 32 bytes, `iv` 16. Any thread.
unsigned char* aes_256_cbc_all(FILE* in, const unsigned char* key, const unsigned char* iv, int enc,
                               int total, int& outLength);

// Non-zero when the set's signature library calls the file signed. Without that library, or without its
// entry point, every file counts as signed: docs/usb-images.md tells how a set closes this.
int zor_verify(const char* path);

#endif
