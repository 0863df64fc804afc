// fwmod inspect: what a file is, and whether a set would accept it as far as that can be told from here.
#include "command.h"
#include "control-library.h"
#include "files.h"
#include "image-signature.h"
#include "information.h"
#include "usb-image.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <json/json.h>
#include <memory>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{
struct Options {
    std::string file;
    std::string keyFile;
    std::string publicKey;
    bool json = false;
};

// What was found out. `values` has the same facts for programs.
struct Inspection {
    std::string kind;
    std::vector<std::pair<std::string, std::string>> facts;
    std::vector<std::string> problems; // each keeps the file from being accepted
    std::vector<std::string> notes;    // what could not be told, or deserves a look
    Json::Value values = Json::objectValue;

    void add(const std::string& key, const std::string& text, const Json::Value& value)
    {
        facts.emplace_back(key, text);
        std::string member = key;
        std::replace(member.begin(), member.end(), ' ', '_');
        values[member] = value;
    }
    void add(const std::string& key, const std::string& text) { add(key, text, text); }
    void addBytes(const std::string& key, std::int64_t count)
    {
        add(key, std::to_string(count) + " bytes", Json::Int64(count));
    }
};

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

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
    if (!fs::exists(path))
        throw Failure(path + " does not exist: give a public key or a directory of them");
    std::vector<signature::TrustedKey> keys;
    if (fs::is_directory(path))
        keys = signature::readKeyDirectory(path);
    else if (signature::Key key = signature::readPublicKey(path))
        keys.push_back({signature::keyIdOf(key.get()), std::move(key)});
    if (keys.empty())
        throw Failure(path + " holds no public RSA key with 4096 bits in PEM form: write one with "
                             "openssl pkey -in signing.pem -pubout -out signing.pub.pem");
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

void inspectSignature(const Options& options, Inspection& result)
{
    if (options.publicKey.empty()) {
        result.add("signature", "not checked", Json::nullValue);
        result.notes.push_back("give --public-key to check the signature");
        return;
    }
    const std::vector<signature::TrustedKey> trusted = readTrusted(options.publicKey);
    const int descriptor = signature::openRegularFile(options.file.c_str());
    const signature::Verdict verdict =
        descriptor < 0 ? signature::Verdict::Unreadable : signature::verify(descriptor, trusted);
    if (descriptor >= 0)
        close(descriptor);
    result.add("signature", describe(verdict), verdict == signature::Verdict::Signed);
    if (verdict != signature::Verdict::Signed)
        result.problems.push_back(std::string("signature: ") + describe(verdict));
}

void inspectContent(const Options& options, const ImageParts& parts, FILE* file, const usb::Iv& iv,
                    Inspection& result)
{
    const usb::Content content = usb::decrypt(file, parts.cipherSize, SecretKey(options.keyFile), iv);
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
}

void inspectImage(const Options& options, Inspection& result)
{
    result.kind = "encrypted USB image";
    const ImageParts parts = readParts(options.file);
    result.addBytes("size", parts.size);
    result.add("key id", signature::toText(signature::keyIdIn(parts.trailer)));
    if (parts.size > usb::kLargestImage)
        result.problems.push_back("more than " + std::to_string(usb::kLargestImage) +
                                  " bytes, which the daemon cannot count");
    inspectSignature(options, result);
    if (parts.cipherSize < kBlockSize || parts.cipherSize % kBlockSize != 0) {
        result.problems.push_back("between the initialisation vector and the trailer there must be whole "
                                  "blocks of 16 bytes: the file was cut or extended");
        return;
    }
    const File file(std::fopen(options.file.c_str(), "rbe"));
    usb::Iv iv;
    if (!file || std::fread(iv.data(), 1, iv.size(), file.get()) != iv.size())
        throw Failure("cannot read " + options.file);
    result.add("iv", hex(iv.data(), iv.size()));
    result.addBytes("ciphertext", parts.cipherSize);
    if (options.keyFile.empty())
        result.notes.push_back("give --key-file to see the version header");
    else
        inspectContent(options, parts, file.get(), iv, result);
}

// ---- Information file ----

bool isInformationFile(const fs::path& path)
{
    if (path.extension() == ".json")
        return true;
    std::ifstream file(path, std::ios::binary);
    char first = '\0';
    file >> first; // after white space
    return first == '{';
}

void addInformation(const fs::path& path, const std::optional<fs::path>& image, Inspection& result)
{
    const InformationReport report = checkInformation(path, image);
    if (report.accepted) {
        result.add("version", report.values.version);
        result.add("crc", std::to_string(report.values.crc), Json::UInt64(report.values.crc));
        result.add("expected time", std::to_string(report.values.expected_time) + " s",
                   report.values.expected_time);
        result.add("ui use", report.values.ui_use);
    }
    bool isExplained = false;
    for (const InformationFinding& finding : report.findings) {
        const std::string line = finding.key + " " + finding.value + ": " + finding.text;
        if (finding.kind == InformationFinding::Kind::Refused) {
            result.problems.push_back(line);
            isExplained = true;
        } else if (finding.kind == InformationFinding::Kind::Warning) {
            result.notes.push_back(line);
        }
    }
    if (!report.accepted && !isExplained)
        result.problems.push_back("the daemon cannot read the information file");
}

void inspectInformation(const Options& options, Inspection& result)
{
    result.kind = "information file";
    addInformation(options.file, std::nullopt, result);
}

// ---- Package ----

constexpr char kSquashfsMagic[4] = {'h', 's', 'q', 's'};

bool isPackage(const fs::path& path)
{
    char magic[sizeof kSquashfsMagic] = {};
    std::ifstream(path, std::ios::binary).read(magic, sizeof magic);
    return std::memcmp(magic, kSquashfsMagic, sizeof magic) == 0;
}

// "/Tuner.bin" and so on, without the root itself.
std::vector<std::string> listPackage(const fs::path& path)
{
    std::istringstream lines(runProgram(
        {"unsquashfs", "-q", "-no-progress", "-d", "", "-l", fs::absolute(path)}, "squashfs-tools"));
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        if (line.size() > 1 && line.front() == '/')
            names.push_back(line);
    }
    return names;
}

bool isPlainFile(const fs::path& path)
{
    return fs::is_regular_file(fs::symlink_status(path));
}

// Unpacks what the daemon would read and has the daemon's own code judge it.
void checkPackageContent(const fs::path& package, const std::string& image, Inspection& result)
{
    const ScratchDirectory scratch;
    const fs::path tree = scratch.path() / "tree";
    runProgram({"unsquashfs", "-q", "-no-progress", "-no-xattrs", "-no-wildcards", "-d", tree,
                fs::absolute(package), "info.json", image},
               "squashfs-tools");
    if (!isPlainFile(tree / "info.json") || !isPlainFile(tree / image))
        result.problems.push_back("info.json and the image must be regular files");
    else
        addInformation(tree / "info.json", tree / image, result);
}

void inspectPackage(const Options& options, Inspection& result)
{
    result.kind = "EMP package";
    result.addBytes("size", static_cast<std::int64_t>(fs::file_size(options.file)));
    const std::vector<std::string> names = listPackage(options.file);
    Json::Value list = Json::arrayValue;
    std::string text;
    for (const std::string& name : names) {
        list.append(name);
        text += (text.empty() ? "" : ", ") + name;
    }
    result.add("files", text, list);

    const std::string identifier = fs::path(options.file).stem();
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
        if (std::find(names.begin(), names.end(), "/" + needed) != names.end())
            continue;
        result.problems.push_back(needed + " is not in the package of " + identifier);
        isComplete = false;
    }
    if (isComplete)
        checkPackageContent(options.file, image, result);
}

// ---- Control library ----

void inspectLibrary(const Options& options, Inspection& result)
{
    result.kind = "control library";
    const ControlLibrary library = readControlLibrary(options.file);
    result.add("library name", library.libraryName);
    Json::Value entries = Json::objectValue;
    std::string present;
    for (const EntryPointState& entry : library.entryPoints) {
        entries[entry.name] = entry.exported;
        if (entry.exported)
            present += (present.empty() ? "" : ", ") + std::string(entry.name);
        else if (entry.required)
            result.problems.push_back(std::string(entry.name) + " is missing, and required");
        else
            result.notes.push_back(std::string(entry.name) + " is missing, but optional");
    }
    result.add("entry points", present.empty() ? "none" : present, entries);
    if (!library.isSharedObject)
        result.problems.push_back("not a shared library: link it with -shared");
    if (fs::path(options.file).extension() != ".so")
        result.problems.push_back("the daemon opens NAME.so only: rename the file");
    if (!library.isForThisMachine)
        result.notes.push_back("built for another processor than this machine's");
}

// ---- Whatever it is ----

void inspectUnknown(const Options& options, Inspection& result)
{
    result.kind = "unknown";
    const ImageParts parts = readParts(options.file);
    result.addBytes("size", parts.size);
    result.problems.push_back("neither an encrypted USB image, a package, an information file nor a library");
    if (parts.cipherSize >= kBlockSize && parts.cipherSize % kBlockSize == 0)
        result.notes.push_back("by its size it could be an encrypted image with a trailer of another kind");
}

struct Kind {
    bool (*recognises)(const fs::path& path);
    void (*inspect)(const Options& options, Inspection& result);
};

// The trailer comes first: the encrypted bytes before it may look like anything.
constexpr Kind kKinds[] = {
    {isEncryptedImage, inspectImage},
    {isPackage, inspectPackage},
    {[](const fs::path& path) { return isElf(path); }, inspectLibrary},
    {isInformationFile, inspectInformation},
    {[](const fs::path&) { return true; }, inspectUnknown},
};

void printForPeople(const Options& options, const Inspection& result)
{
    std::printf("%s: %s\n", options.file.c_str(), result.kind.c_str());
    for (const auto& [key, text] : result.facts)
        std::printf("  %s: %s\n", key.c_str(), text.c_str());
    for (const std::string& note : result.notes)
        std::printf("  note: %s\n", note.c_str());
    for (const std::string& problem : result.problems)
        std::printf("  problem: %s\n", problem.c_str());
    std::puts(result.problems.empty() ? "As far as can be told, it would be accepted."
                                      : "It would not be accepted.");
}

Json::Value toJson(const std::vector<std::string>& texts)
{
    Json::Value list = Json::arrayValue;
    for (const std::string& text : texts)
        list.append(text);
    return list;
}

void printForPrograms(const Options& options, Inspection& result)
{
    Json::Value& root = result.values;
    root["file"] = options.file;
    root["kind"] = result.kind;
    root["accepted"] = result.problems.empty();
    root["problems"] = toJson(result.problems);
    root["notes"] = toJson(result.notes);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "    ";
    std::puts(Json::writeString(writer, root).c_str());
}

int inspect(const Options& options)
{
    requireReadable(options.file);
    Inspection result;
    for (const Kind& kind : kKinds) {
        if (kind.recognises(options.file)) {
            kind.inspect(options, result);
            break;
        }
    }
    if (options.json)
        printForPrograms(options, result);
    else
        printForPeople(options, result);
    return result.problems.empty() ? 0 : 1;
}
} // namespace

Run defineInspect(CLI::App& app)
{
    auto options = std::make_shared<Options>();
    app.add_option("FILE", options->file, "The file to look at")->required();
    app.add_option("--key-file", options->keyFile,
                   "Content key of an encrypted image: shows its version header");
    app.add_option("--public-key", options->publicKey,
                   "Public key (PEM), or a directory of them: checks an encrypted image's signature");
    app.add_flag("--json", options->json, "Print JSON");
    app.footer(
        "Recognises encrypted USB images, packages, information files and control libraries; nothing of\n"
        "the file is run. Exit status: 0 it would be accepted as far as can be told, 1 not, 2 wrong use.\n"
        "Examples:\n"
        "  fwmod inspect stick/Tuner.bin --public-key signing.pub.pem --key-file content.key\n"
        "  fwmod inspect --json tuner.so");
    return [options] { return inspect(*options); };
}
