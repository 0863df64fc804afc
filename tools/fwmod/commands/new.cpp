// fwmod new: a complete module in a directory of its own, from the files of sdk/template. They are the same
// for every module; what differs stands in them as @WORD@, and as NAME in the name of a file.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

#include "common/files/regular-file.h"
#include "common/joined.h"
#include "common/process/this-program.h"
#include "common/terminal/visible-text.h"
#include "src/src/fw-update-symbol.h"
#include "tools/fwmod/commands/command.h"
#include "tools/fwmod/files.h"
#include "tools/fwmod/images/identifier.h"

namespace fwmod
{

namespace fs = std::filesystem;

namespace
{
struct ModuleKind {
    const char* name;
    const char* summary;
    const char* images; // where they are, for the module's README
    bool isExternal;
};

constexpr ModuleKind kKinds[] = {
    {"emp", "Its images come as packages (the default)", "the package `@IDENTIFIER@.img`", false},
    {"builtin", "Its images lie in the system image", "the system image, in `/lib/firmware/ext/@FIRMWARE@`",
     false},
    {"external", "The library finds its image itself, and is updated on request only",
     "`/lib/firmware/ext/@FIRMWARE@`, where the library looks when it is told to update", true},
};

struct Language {
    const char* name;
    const char* suffix;
    const char* cmake; // for project(): the support files are C in any case
};

constexpr Language kLanguages[] = {
    {"c++", "cpp", "C CXX"},
    {"c", "c", "C"},
};

struct NewOptions {
    std::string name;
    std::string output;
    bool isAskedFor[std::size(kKinds)] = {};
    std::string language = kLanguages[0].name;
};

const ModuleKind& kindOf(const NewOptions& options)
{
    const auto* const asked = std::find(std::begin(options.isAskedFor), std::end(options.isAskedFor), true);
    return asked == std::end(options.isAskedFor) ? kKinds[0] : kKinds[asked - options.isAskedFor];
}

const Language& languageOf(const NewOptions& options)
{
    return *std::find_if(std::begin(kLanguages), std::end(kLanguages),
                         [&](const Language& language) { return options.language == language.name; });
}

// ---- Names ----

std::string libraryName(const std::string& name, const ModuleKind& kind)
{
    const auto isAllowed = [](char c) { return isAsciiAlphanumeric(c) || c == '-' || c == '_'; };
    if (name.empty() || !std::all_of(name.begin(), name.end(), isAllowed) || !isAsciiAlphanumeric(name[0])) {
        throw common::WrongUse("'" + name +
                               "' cannot be a module's name: use ASCII letters, digits, '-' and '_', and "
                               "begin with a letter or a digit, as in tuner");
    }
    if (isExternalName(name) && !kind.isExternal) {
        throw common::WrongUse(name +
                               ": \"EXT-\" in its name makes a module an external one: give --external, or "
                               "take another name");
    }
    return kind.isExternal && !isExternalName(name) ? "EXT-" + name : name;
}

// "my-tuner" has "empMyTuner": an identifier consists of letters and digits.
std::string identifierFor(std::string name)
{
    if (isExternalName(name.substr(0, 4))) {
        name.erase(0, 4);
    }
    std::string identifier = "emp";
    bool begins = true;
    for (const char c : name) {
        if (isAsciiAlphanumeric(c)) {
            identifier += begins ? static_cast<char>(std::toupper(c)) : c;
        }
        begins = !isAsciiAlphanumeric(c);
    }
    return identifier;
}

// ---- The template ----

// A word and what stands for it. It may hold words that come later in the list.
using Words = std::vector<std::pair<std::string, std::string>>;

Words wordsFor(const std::string& name, const ModuleKind& kind, const Language& language)
{
    const std::string identifier = identifierFor(name);
    return {
        {"@IMAGES@", kind.images},
        {"@NAME@", name},
        {"@KIND@", kind.name},
        {"@IDENTIFIER@", kind.isExternal ? "" : identifier},
        {"@FIRMWARE@", firmwareName(identifier, "the identifier that follows from the name")},
        {"@SUFFIX@", language.suffix},
        {"@LANGUAGES@", language.cmake},
    };
}

void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos;) {
        text.replace(at, from.size(), to);
    }
}

// All that are in it, by the build: a kit may have lost some.
constexpr const char* kTemplateFiles[] = {
#include "template-files.inc"
};

[[noreturn]] void failForKit(const std::string& problem)
{
    throw common::Failure(problem + ": install the whole kit again (scripts/install-sdk)");
}

// In the build tree as when it is installed.
fs::path templateDirectory()
{
    fs::path found = common::directoryOfThisProgram().parent_path() / "share/tarnwick/template";
    if (!fs::is_directory(found)) {
        failForKit("the template is not in " + common::shown(found));
    }
    return found;
}

struct TemplateFile {
    fs::path path; // below the module's directory
    std::string text;
};

std::string readText(const fs::path& path)
{
    constexpr std::size_t kMost = 1 << 20; // bytes: many times what the longest has
    std::string problem;
    std::optional<std::string> text = common::readRegularFile(path, kMost, problem);
    if (!text) {
        failForKit(common::shown(path) + " " + problem);
    }
    return *std::move(text);
}

// The module's own file is there in every language; the other ones are skipped.
bool isOfLanguage(const fs::path& file, const Language& language)
{
    return file.stem() != "NAME" || file.extension() == std::string(".") + language.suffix;
}

// Of every language: what one kit lacks is told at once.
void requireWhole(const fs::path& directory)
{
    std::vector<std::string> missing;
    for (const char* file : kTemplateFiles) {
        if (statusOf(directory / file).type() == fs::file_type::not_found) {
            missing.emplace_back(file);
        }
    }
    if (!missing.empty()) {
        failForKit("the template in " + common::shown(directory) + " lacks " + common::joined(missing, ", "));
    }
}

std::vector<TemplateFile> fillTemplate(const Words& words, const std::string& name, const Language& language)
{
    const fs::path from = templateDirectory();
    requireWhole(from);
    std::vector<TemplateFile> files;
    for (const char* source : kTemplateFiles) {
        if (!isOfLanguage(source, language)) {
            continue;
        }
        std::string path = source;
        replaceAll(path, "NAME", name);
        TemplateFile file{path, readText(from / source)};
        for (const auto& [word, replacement] : words) {
            replaceAll(file.text, word, replacement);
        }
        files.push_back(file);
    }
    return files;
}

// ---- The new directory ----

bool isEmpty(const fs::path& directory)
{
    std::error_code error;
    const bool isEmpty = fs::is_empty(directory, error);
    if (error) {
        throw common::Failure("cannot look into " + common::shown(directory) + ": " + error.message());
    }
    return isEmpty;
}

// Removes what it made unless everything was made. Signals wait meanwhile, so that they find all or nothing.
class NewDirectory
{
public:
    explicit NewDirectory(const fs::path& path) : path_(path)
    {
        const fs::file_status status = statusOf(path);
        if (fs::exists(status) && (!fs::is_directory(status) || !isEmpty(path))) {
            throw common::Failure(common::shown(path) +
                                  " exists and is not an empty directory: choose another with -o");
        }
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, &signals_);
    }
    ~NewDirectory()
    {
        std::error_code ignored;
        for (auto made = made_.rbegin(); made != made_.rend(); ++made) {
            fs::remove(*made, ignored);
        }
        sigprocmask(SIG_SETMASK, &signals_, nullptr);
    }
    NewDirectory(const NewDirectory&) = delete;
    NewDirectory& operator=(const NewDirectory&) = delete;

    void write(const TemplateFile& file)
    {
        makeDirectory((path_ / file.path).parent_path());
        writeText(path_ / file.path, file.text);
        made_.push_back(path_ / file.path);
    }
    void commit() { made_.clear(); }

private:
    void makeDirectory(const fs::path& path)
    {
        if (path.empty() || fs::exists(path)) {
            return;
        }
        makeDirectory(path.parent_path());
        std::error_code error;
        if (!fs::create_directory(path, error) && error) {
            throw common::Failure("cannot make the directory " + common::shown(path) + ": " +
                                  error.message() + "; choose another with -o");
        }
        made_.push_back(path);
    }

    fs::path path_;
    std::vector<fs::path> made_; // in this order
    sigset_t signals_;
};

int makeModule(const NewOptions& options)
{
    const ModuleKind& kind = kindOf(options);
    const Language& language = languageOf(options);
    const std::string name = libraryName(options.name, kind);
    const std::vector<TemplateFile> files = fillTemplate(wordsFor(name, kind, language), name, language);
    const std::string output = options.output.empty() ? name : options.output;
    NewDirectory directory(output);
    for (const TemplateFile& file : files) {
        directory.write(file);
    }
    directory.commit();
    std::printf("%s: a module to start from; README.md says what to change first. Build and test it:\n"
                "  cd %s\n"
                "  cmake -B build && cmake --build build\n"
                "  ctest --test-dir build\n",
                name.c_str(), common::inShell(output).c_str());
    return 0;
}
} // namespace

void defineNew(common::CommandLine& command)
{
    auto options = std::make_shared<NewOptions>();
    command.text("NAME", options->name, "Name of the module, and of its library's file (NAME.so)").required();
    common::CommandLine& kinds =
        command.group(common::CommandLine::Choice::kAtMostOne, "kind", "How its images reach the hardware");
    for (std::size_t index = 0; index < std::size(kKinds); ++index) {
        kinds.flag("--" + std::string(kKinds[index].name), options->isAskedFor[index], kKinds[index].summary);
    }
    command.text("--lang", options->language, "Language of the library: c or c++").oneOf({"c", "c++"});
    command.text("-o,--output", options->output, "Directory to make (default NAME)");
    command.footer(
        "Makes a library, sample images and tests that build at once; a file stands for the hardware.\n"
        "An external module's name has \"EXT-\" in it; it is put in front when it is missing.\n"
        "Examples:\n"
        "  fwmod new tuner\n"
        "  fwmod new panel --builtin --lang c -o modules/panel");
    command.onRun([options] { return makeModule(*options); });
}
} // namespace fwmod
