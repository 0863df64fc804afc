#include "tools/fwmod/images/inspection.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <memory>

#include "common/files/memory-file.h"
#include "common/files/owned-file.h"
#include "common/files/unique-fd.h"
#include "common/terminal/visible-text.h"
#include "src/src/fw-update-checksum.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/control-library.h"
#include "tools/fwmod/images/information.h"
#include "tools/fwmod/images/usb-image.h"
#include "vset/signature/image-signature.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
std::string hex(const unsigned char* bytes, std::size_t size)
{
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", bytes[i]);
        text += digits;
    }
    return text;
}

// A text, or hexadecimal digits: a terminal must not get what a file holds otherwise.
std::string headerText(const usb::VersionHeader& header)
{
    const auto end = std::find(header.begin(), header.end(), '\0');
    const bool isText =
        end != header.begin() &&
        std::all_of(header.begin(), end, [](unsigned char c) { return c >= 32 && c < 127; }) &&
        std::all_of(end, header.end(), [](unsigned char c) { return c == 0; });
    return isText ? std::string(header.begin(), end) : "0x" + hex(header.data(), header.size());
}

// ---- Encrypted image ----

struct ImageParts {
    std::int64_t size;
    std::int64_t cipherSize; // below 0 when there is no room for any
    signature::Header trailer;
    bool isReadable;
};

constexpr std::int64_t kTrailerSize = signature::kTrailerSize;
constexpr std::int64_t kIvSize = usb::kIvSize;
constexpr std::int64_t kBlockSize = usb::kBlockSize;

ImageParts readParts(const fs::path& path)
{
    ImageParts parts = {};
    parts.size = static_cast<std::int64_t>(fs::file_size(path));
    parts.cipherSize = parts.size - kTrailerSize - kIvSize;
    std::ifstream file(path, std::ios::binary);
    file.seekg(std::max<std::int64_t>(parts.size - kTrailerSize, 0));
    file.read(reinterpret_cast<char*>(parts.trailer.data()),
              static_cast<std::streamsize>(parts.trailer.size()));
    parts.isReadable = parts.size >= kTrailerSize && file.good();
    return parts;
}

bool isEncryptedImage(const fs::path& path)
{
    const ImageParts parts = readParts(path);
    return parts.isReadable && signature::hasMagic(parts.trailer);
}

std::vector<signature::TrustedKey> readTrusted(const std::string& path)
{
    if (!fs::exists(statusOf(path))) {
        throw common::Failure(path + " does not exist: give a public key or a directory of them");
    }
    std::vector<signature::TrustedKey> keys;
    if (fs::is_directory(path)) {
        keys = signature::readKeyDirectory(path);
    } else if (signature::Key key = signature::readPublicKey(path)) {
        keys.push_back({signature::keyIdOf(key.get()), std::move(key)});
    }
    if (keys.empty()) {
        throw common::Failure(path + " holds no public RSA key with 4096 bits in PEM form: write one with "
                                     "openssl pkey -in signing.pem -pubout -out signing.pub.pem");
    }
    return keys;
}

const char* describe(signature::Verdict verdict)
{
    using signature::Verdict;
    switch (verdict) {
    case Verdict::Signed:
        return "holds";
    case Verdict::Unreadable:
        return "the file cannot be read to its end";
    case Verdict::NoFile:
        return "not a regular file";
    case Verdict::TooShort:
        return "the file is shorter than a trailer";
    case Verdict::NoTrailer:
        return "there is no trailer of this kind";
    case Verdict::UnknownScheme:
        return "the trailer is of a layout or scheme that is not known here";
    case Verdict::UnknownKey:
        return "made with a key that is not among the given ones";
    case Verdict::WrongSignature:
        return "does not hold: the file was changed after it was signed";
    }
    return "";
}

void inspectSignature(const InspectionRequest& request, Inspection& result)
{
    if (request.publicKey.empty()) {
        result.add("signature", "not checked", Json::nullValue);
        result.notes.push_back("give --public-key to check the signature");
        return;
    }
    const std::vector<signature::TrustedKey> trusted = readTrusted(request.publicKey);
    const common::UniqueFd file(signature::openRegularFile(request.file.c_str()));
    const signature::Verdict verdict =
        file ? signature::verify(file.get(), trusted) : signature::Verdict::Unreadable;
    result.add("signature", describe(verdict), verdict == signature::Verdict::Signed);
    if (verdict != signature::Verdict::Signed) {
        result.problems.push_back(std::string("signature: ") + describe(verdict));
    }
}

void inspectContent(const InspectionRequest& request, const ImageParts& parts, FILE* file, const usb::Iv& iv,
                    Inspection& result)
{
    const usb::Content content =
        usb::decrypt(file, parts.cipherSize, common::ContentKey(request.keyFile), iv);
    if (!content.isSound) {
        result.problems.push_back("the content cannot be decrypted: a wrong key, or a damaged file");
        return;
    }
    const auto headerSize = static_cast<std::int64_t>(usb::kVersionHeaderSize);
    if (content.plainSize < headerSize) {
        result.problems.push_back("the content is shorter than its version header of 64 bytes");
        return;
    }
    result.add("version header", headerText(content.header));
    result.addBytes("payload", content.plainSize - headerSize);
    result.add("payload crc", std::to_string(content.payloadChecksum), content.payloadChecksum);
}

void inspectImage(const InspectionRequest& request, Inspection& result)
{
    result.kind = "encrypted USB image";
    const ImageParts parts = readParts(request.file);
    result.addBytes("size", parts.size);
    result.add("key id", signature::toText(signature::keyIdIn(parts.trailer)));
    if (parts.size > usb::kLargestImage) {
        result.problems.push_back("more than " + std::to_string(usb::kLargestImage) +
                                  " bytes, which the daemon cannot count: the rest was not looked at");
        return;
    }
    inspectSignature(request, result);
    if (parts.cipherSize < kBlockSize || parts.cipherSize % kBlockSize != 0) {
        result.problems.push_back("between the initialisation vector and the trailer there must be whole "
                                  "blocks of 16 bytes: the file was cut or extended");
        return;
    }
    const common::OwnedFile file(std::fopen(request.file.c_str(), "rbe"));
    usb::Iv iv;
    if (!file || std::fread(iv.data(), 1, iv.size(), file.get()) != iv.size()) {
        throw common::Failure("cannot read " + request.file);
    }
    result.add("iv", hex(iv.data(), iv.size()));
    result.addBytes("ciphertext", parts.cipherSize);
    if (request.keyFile.empty()) {
        result.notes.push_back("give --key-file to see the version header");
    } else {
        inspectContent(request, parts, file.get(), iv, result);
    }
}

// ---- Information file ----

bool isInformationFile(const fs::path& path)
{
    if (path.extension() == ".json") {
        return true;
    }
    std::ifstream file(path, std::ios::binary);
    char first = '\0';
    file >> first; // after white space
    return first == '{';
}

void addInformation(const InformationReport& report, Inspection& result)
{
    if (report.accepted) {
        result.add("version", common::shortened(report.values.version), report.values.version);
        result.add("crc", std::to_string(report.values.crc), Json::UInt64(report.values.crc));
        result.add("expected time", std::to_string(report.values.expected_time) + " s",
                   report.values.expected_time);
        result.add("ui use", report.values.ui_use);
    }
    bool isExplained = false;
    for (const InformationFinding& finding : report.findings) {
        const std::string line = textOf(finding);
        if (finding.kind == InformationFinding::Kind::Refused) {
            result.problems.push_back(line);
            isExplained = true;
        } else if (finding.kind == InformationFinding::Kind::Warning) {
            result.notes.push_back(line);
        }
    }
    if (!report.accepted && !isExplained) {
        result.problems.push_back("the daemon cannot read the information file");
    }
}

void inspectInformation(const InspectionRequest& request, Inspection& result)
{
    result.kind = "information file";
    addInformation(checkInformation(request.file, std::nullopt), result);
}

// ---- Package ----

constexpr char kSquashfsMagic[4] = {'h', 's', 'q', 's'};

bool isPackage(const fs::path& path)
{
    char magic[sizeof kSquashfsMagic] = {};
    std::ifstream(path, std::ios::binary).read(magic, sizeof magic);
    return std::memcmp(magic, kSquashfsMagic, sizeof magic) == 0;
}

unsigned int checksumOf(const Package::Source& source)
{
    std::vector<char> chunk(65536);
    std::uint32_t checksum = 0;
    while (const std::size_t count = source(chunk.data(), chunk.size())) {
        checksum = extendChecksum(checksum, reinterpret_cast<const unsigned char*>(chunk.data()), count);
    }
    return checksum;
}

// Has the daemon's own code judge what the daemon would read.
void checkPackageContent(Package& package, const std::string& image, Inspection& result)
{
    if (!package.hasFile("info.json") || !package.hasFile(image)) {
        result.problems.push_back("info.json and the image must be regular files");
        return;
    }
    const common::MemoryFile copy;
    const Package::Source source = package.open("info.json");
    std::vector<char> chunk(65536);
    while (const std::size_t count = source(chunk.data(), chunk.size())) {
        if (!copy.append(chunk.data(), count)) {
            break; // the daemon takes no file of that length
        }
    }
    InformationReport report = checkInformation(copy.path(), std::nullopt);
    if (report.accepted) {
        compareChecksum(report, checksumOf(package.open(image)), image);
    }
    addInformation(report, result);
}

void inspectPackage(const InspectionRequest& request, Inspection& result)
{
    result.kind = kPackageKind;
    result.addBytes("size", static_cast<std::int64_t>(fs::file_size(request.file)));
    Package package(request.file);
    std::vector<std::string> names;
    Json::Value list = Json::arrayValue;
    std::string text;
    for (const Package::Entry& entry : package.entries()) {
        names.push_back("/" + entry.path);
        list.append(names.back());
        text += (text.empty() ? "" : ", ") + names.back();
    }
    result.add("files", text, list);

    const std::string identifier = fs::path(request.file).stem();
    const std::size_t emp = identifier.find("emp");
    if (emp == std::string::npos) {
        result.problems.push_back(
            "the daemon looks for packages under the name IDENTIFIER.img with \"emp\" in "
            "the identifier: rename the file");
        return;
    }
    const std::string image = std::string(identifier).erase(emp, 3) + ".bin";
    bool isComplete = true;
    for (const std::string& needed : {std::string("info.json"), image}) {
        if (std::find(names.begin(), names.end(), "/" + needed) != names.end()) {
            continue;
        }
        std::string problem = needed;
        result.problems.push_back(problem.append(" is not in the package of ").append(identifier));
        isComplete = false;
    }
    if (isComplete) {
        checkPackageContent(package, image, result);
    }
}

// ---- Control library ----

void addEntryPoints(const ControlLibrary& library, Inspection& result)
{
    Json::Value entries = Json::objectValue;
    std::string present;
    for (const EntryPointState& entry : library.entryPoints) {
        entries[entry.name] = entry.exported;
        if (entry.exported) {
            present += (present.empty() ? "" : ", ") + std::string(entry.name);
        } else if (entry.required) {
            result.problems.push_back(std::string(entry.name) + " is missing, and required");
        } else {
            result.notes.push_back(std::string(entry.name) + " is missing, but optional");
        }
    }
    result.add("entry points", present.empty() ? "none" : present, entries);
}

void inspectLibrary(const InspectionRequest& request, Inspection& result)
{
    result.kind = kLibraryKind;
    const ControlLibrary library = readControlLibrary(request.file);
    result.add("library name", library.libraryName);
    result.addBytes("size", static_cast<std::int64_t>(fs::file_size(request.file)));
    if (!library.buildId.empty()) {
        result.add("build id", hex(reinterpret_cast<const unsigned char*>(library.buildId.data()),
                                   library.buildId.size()));
    }
    if (!library.isSharedObject) {
        result.problems.push_back("not a shared library: link it with -shared");
    } else if (!library.damage.empty()) {
        result.problems.push_back("damaged: " + library.damage + " (build it anew, or copy it again)");
    }
    if (library.isSharedObject && !library.isListed) {
        result.add("entry points", "unknown", Json::nullValue);
        result.notes.push_back(
            "its entry points cannot be read: its table of sections is missing or damaged");
    } else {
        addEntryPoints(library, result);
    }
    if (fs::path(request.file).extension() != ".so") {
        result.problems.push_back("the daemon opens NAME.so only: rename the file");
    }
    if (!library.isForThisMachine) {
        result.notes.push_back("built for another processor than this machine's");
    }
}

// ---- Whatever it is ----

void inspectUnknown(const InspectionRequest& request, Inspection& result)
{
    result.kind = kUnknownKind;
    const ImageParts parts = readParts(request.file);
    result.addBytes("size", parts.size);
    result.problems.push_back(
        parts.size == 0
            ? "it is empty: make it anew, or copy it again"
            : "neither an encrypted USB image, a package, an information file nor a library: is it "
              "the right file, and whole?");
    if (parts.cipherSize >= kBlockSize && parts.cipherSize % kBlockSize == 0) {
        result.notes.push_back("by its size it could be an encrypted image with a trailer of another kind");
    }
}

struct FileKind {
    bool (*recognises)(const fs::path& path);
    void (*inspect)(const InspectionRequest& request, Inspection& result);
};

// The trailer comes first: the encrypted bytes before it may look like anything.
constexpr FileKind kKinds[] = {
    {isEncryptedImage, inspectImage},
    {isPackage, inspectPackage},
    {[](const fs::path& path) { return isElf(path); }, inspectLibrary},
    {isInformationFile, inspectInformation},
    {[](const fs::path&) { return true; }, inspectUnknown},
};
} // namespace

void Inspection::add(const std::string& key, const std::string& text, const Json::Value& value)
{
    facts.push_back({key, text, value});
}

void Inspection::addBytes(const std::string& key, std::int64_t count)
{
    add(key, std::to_string(count) + " bytes", Json::Int64(count));
}

Inspection inspectFile(const InspectionRequest& request)
{
    requireReadable(request.file);
    Inspection result;
    for (const FileKind& kind : kKinds) {
        if (!kind.recognises(request.file)) {
            continue;
        }
        kind.inspect(request, result);
        const bool hasKey = !request.publicKey.empty() || !request.keyFile.empty();
        if (hasKey && kind.inspect != inspectImage) {
            result.notes.push_back(
                "only an encrypted USB image has a signature and a content key: the keys given "
                "were not looked at");
        }
        break;
    }
    return result;
}
} // namespace fwmod
