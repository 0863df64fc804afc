#include "common/terminal/command-line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <regex>
#include <sstream>
#include <unistd.h>

#include "common/plain-words.h"
#include "common/process/this-program.h"
#include "common/terminal/terminal.h"
#include "common/terminal/visible-text.h"
#include "common/version.h"

namespace common
{

// ---- Numbers ----

namespace
{

template <typename Number>
std::string shown(Number number)
{
    char text[32];
    const std::to_chars_result end = std::to_chars(text, text + sizeof text, number);
    return std::string(text, end.ptr);
}

template <>
std::string shown(double number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", number);
    return text;
}

} // namespace

template <typename Number>
Number numberFrom(const std::string& text, Range<Number> range)
{
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const bool isNumber = error == std::errc() && rest == end && !text.empty();
    // Written so that what is not a number at all ("nan") is outside of every range.
    if (isNumber && number >= range.lowest && number <= range.highest) {
        return number;
    }
    throw WrongUse(inQuotes(text) + " is not a " + (std::is_integral_v<Number> ? "whole " : "") +
                   "number from " + shown(range.lowest) + " to " + shown(range.highest));
}

template int numberFrom(const std::string&, Range<int>);
template unsigned int numberFrom(const std::string&, Range<unsigned int>);
template double numberFrom(const std::string&, Range<double>);

template <typename Value>
std::string detail::Held<Value>::usual(const Value& value)
{
    return shown(value);
}
template struct detail::Held<int>;
template struct detail::Held<unsigned int>;
template struct detail::Held<double>;

// ---- Options ----

namespace
{

constexpr const char* kNotEmpty = "not empty";

// Where a list may stand the parser takes "[a,b]" apart. An end that no argument of a process can have keeps
// it whole.
constexpr char kKept = '\0';

std::string kept(std::string argument)
{
    if (!argument.empty() && argument.back() == ']') {
        argument += kKept;
    }
    return argument;
}

std::string asTyped(std::string argument)
{
    if (!argument.empty() && argument.back() == kKept) {
        argument.pop_back();
    }
    return argument;
}

// An empty file name or word is a script's empty variable.
CLI::Validator notEmpty()
{
    const auto problem = [](const std::string& text) { return std::string(text.empty() ? "is empty" : ""); };
    return CLI::Validator(problem, "", kNotEmpty);
}

} // namespace

Option& Option::required()
{
    option_->required();
    return *this;
}

Option& Option::excludes(Option other)
{
    option_->excludes(other.option_);
    return *this;
}

Option& Option::oneOf(const std::vector<std::string>& words)
{
    std::string list;
    for (const std::string& word : words) {
        list += (list.empty() ? "" : ", ") + word;
    }
    const auto isOneOfThem = [words, list](const std::string& argument) {
        const std::string text = asTyped(argument);
        const bool isKnown = std::find(words.begin(), words.end(), text) != words.end();
        return isKnown ? std::string() : inQuotes(text) + " is none of " + list;
    };
    option_->check(isOneOfThem, "{" + list + "}");
    return *this;
}

Option& Option::called(const char* word)
{
    option_->type_name(word);
    return *this;
}

Option& Option::usually(const std::string& text)
{
    option_->default_str(text);
    return *this;
}

Option& Option::mayBeEmpty()
{
    option_->get_validator(kNotEmpty)->active(false);
    return *this;
}

bool Option::isGiven() const
{
    return option_->count() > 0;
}

namespace
{

// A name without a dash is a place, and shows itself in --help.
Option declared(CLI::Option* option, const char* word)
{
    option->type_name(option->get_positional() ? "" : word);
    return Option(option);
}

} // namespace

Option CommandLine::text(const std::string& names, std::string& value, const std::string& help)
{
    const auto take = [&value](const std::string& text) { value = asTyped(text); };
    CLI::Option* const option = app_->add_option_function<std::string>(names, take, help)->check(notEmpty());
    if (!value.empty()) {
        option->default_str(value);
    }
    return declared(option, "TEXT");
}

Option CommandLine::texts(const std::string& names, std::vector<std::string>& values, const std::string& help)
{
    const auto take = [&values](const std::vector<std::string>& texts) {
        values.clear();
        std::transform(texts.begin(), texts.end(), std::back_inserter(values), asTyped);
    };
    CLI::Option* const option =
        app_->add_option_function<std::vector<std::string>>(names, take, help)->check(notEmpty());
    if (!option->get_positional()) {
        option->allow_extra_args(false);
    }
    return declared(option, "TEXT");
}

Option CommandLine::path(const std::string& names, std::filesystem::path& value, const std::string& help)
{
    const auto take = [&value](const std::string& text) { value = asTyped(text); };
    return declared(app_->add_option_function<std::string>(names, take, help)->check(notEmpty()), "PATH");
}

Option CommandLine::flag(const std::string& names, bool& value, const std::string& help)
{
    return Option(app_->add_flag(names, value, help)->disable_flag_override());
}

namespace
{

// "--name" of "-n,--name".
std::string lastName(const std::string& names)
{
    return names.substr(names.find_last_of(',') + 1);
}

} // namespace

Option CommandLine::addNumber(const std::string& names, const std::string& help, const std::string& usual,
                              Store store)
{
    const auto take = [store = std::move(store), name = lastName(names)](const std::string& text) {
        try {
            store(asTyped(text));
        } catch (const WrongUse& error) {
            throw CLI::ValidationError(name, error.what());
        }
    };
    CLI::Option* const option = app_->add_option_function<std::string>(names, take, help);
    option->default_str(usual);
    return declared(option, "N");
}

CommandLine& CommandLine::group(Choice choice, const std::string& name, const std::string& summary)
{
    CLI::App* const app = app_->add_option_group(name, summary);
    app->require_option(choice == Choice::kExactlyOne ? 1 : 0, 1);
    groups_.emplace_back(new CommandLine(app, this));
    return *groups_.back();
}

// ---- Commands ----

CommandLine::CommandLine(const std::string& name, const std::string& summary)
    : own_(std::make_unique<CLI::App>(summary, name)), app_(own_.get())
{
    app_->set_version_flag("--version", name + " " + version(), "Print version and commit, and end")
        ->disable_flag_override();
    app_->get_help_ptr()->disable_flag_override();
}

CommandLine::CommandLine(CLI::App* app, const CommandLine* parent) : app_(app), parent_(parent) {}

CommandLine::~CommandLine() = default;

CommandLine& CommandLine::command(const std::string& name, const std::string& summary)
{
    commands_.emplace_back(new CommandLine(app_->add_subcommand(name, summary), this));
    app_->require_subcommand(0, 1); // that one is named is seen to in parseAndRun, which says it better
    return *commands_.back();
}

void CommandLine::commands(const std::vector<Command>& table, const std::string& other)
{
    other_ = other;
    for (const Command& row : table) {
        table_.emplace_back(row, &command(row.name, row.summary));
    }
}

void CommandLine::footer(const std::string& text)
{
    app_->footer(text);
}

std::optional<std::size_t> CommandLine::wordsBehindDashes() const
{
    if (parent_ != nullptr) {
        return parent_->wordsBehindDashes();
    }
    return dashesAt_ ? std::optional(wordCount_ - *dashesAt_ - 1) : std::nullopt;
}

const CommandLine& CommandLine::chosen() const
{
    for (const auto& command : commands_) {
        if (command->app_->parsed()) {
            return command->chosen();
        }
    }
    return *this;
}

std::string CommandLine::fullName() const
{
    return (parent_ != nullptr ? parent_->fullName() + " " : "") + app_->get_name();
}

namespace
{

// What was typed, and the value of "--option=value" by itself. The longest come first: one may hold another.
std::vector<std::string> typed(int argc, char** argv)
{
    std::vector<std::string> arguments;
    for (int index = 1; index < argc; ++index) {
        const std::string argument = argv[index];
        arguments.push_back(argument);
        const size_t equals = argument.rfind("--", 0) == 0 ? argument.find('=') : std::string::npos;
        if (equals != std::string::npos) {
            arguments.push_back(argument.substr(equals + 1));
        }
    }
    std::sort(arguments.begin(), arguments.end(),
              [](const std::string& one, const std::string& other) { return one.size() > other.size(); });
    return arguments;
}

// Counted without the program's own name.
std::optional<std::size_t> findDashes(int argc, char** argv)
{
    for (int index = 1; index < argc; ++index) {
        if (std::strcmp(argv[index], "--") == 0) {
            return static_cast<std::size_t>(index - 1);
        }
    }
    return std::nullopt;
}

void replaceAll(std::string& text, const std::string& part, const std::string& other)
{
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += other.size()) {
        text.replace(at, part.size(), other);
    }
}

} // namespace

// Most messages repeat what was typed: a file, a name, a number. Here every one of them passes.
void CommandLine::tell(const std::string& problem) const
{
    std::string text = problem;
    for (const std::string& argument : arguments_) {
        const std::string shown = shortened(argument);
        if (argument.size() > 1 && shown != argument) {
            replaceAll(text, argument, shown);
            replaceAll(text, visible(argument), shown);
        }
    }
    std::fprintf(stderr, "%s: %s\n", app_->get_name().c_str(), visibleLines(text).c_str());
}

int CommandLine::tellWrongUse(const std::string& problem) const
{
    tell(problem);
    std::fprintf(stderr, "\"%s --help\" says more.\n", chosen().fullName().c_str());
    return kStatusWrongUse;
}

namespace
{

// The parser's own sentences, and what a person needs to read instead. They hold names of options, and
// nothing typed.
struct Wording {
    std::regex sentence;
    const char* plain;
};

std::string inPlainWords(const std::string& sentence)
{
    static const Wording kWordings[] = {
        {std::regex("(.*) was given a disallowed flag override"), "--$1 takes no value"},
        {std::regex("(.*): [0-9]+ required .*missing"), "$1: a value is missing"},
        {std::regex("(.*): At Most 1 required but received [0-9]+"), "$1 is given more than once"},
        {std::regex("(?:Exactly|At least) 1 option from \\[(.*)\\] is required"), "one of $1 is required"},
        {std::regex(".* from \\[(.*)\\].*"), "only one of $1 can be given"},
        {std::regex("(.*) excludes (.*)"), "$1 and $2 cannot be given together"},
        {std::regex("(.*) requires (.*)"), "$1 needs $2 as well"},
    };
    for (const Wording& wording : kWordings) {
        if (std::regex_match(sentence, wording.sentence)) {
            std::string plain = std::regex_replace(sentence, wording.sentence, wording.plain);
            replaceAll(plain, ",", ", ");
            return plain;
        }
    }
    return sentence;
}

std::string unexpected(const std::vector<std::string>& extras, bool hasCommands)
{
    const std::string word = extras.empty() ? "" : asTyped(extras.front());
    if (word.rfind('-', 0) == 0 && word != "--") {
        return "there is no option " + inQuotes(word);
    }
    return hasCommands && word != "--" ? "there is no command " + inQuotes(word)
                                       : inQuotes(word) + " was not expected";
}

} // namespace

// A word that is something else, such as a file of that name, defines one too many.
void CommandLine::defineNamed(int argc, char** argv)
{
    for (const auto& [row, command] : table_) {
        const auto isNamed = [name = std::string_view(row.name)](const char* word) { return word == name; };
        if (row.define != nullptr && std::any_of(argv + std::min(argc, 1), argv + argc, isNamed)) {
            row.define(*command);
        }
    }
}

// The options of a program itself have no values: its command is the first word that is none.
void CommandLine::leaveToOther(int argc, char** argv) const
{
    const auto isNoOption = [](std::string_view word) { return word == "--" || word.rfind('-', 0) != 0; };
    char** const end = argv + argc;
    char** const word = std::find_if(argv + std::min(argc, 1), end, isNoOption);
    const auto isWord = [&](const auto& entry) {
        return word != end && entry.first.define == nullptr && std::string_view(*word) == entry.first.name;
    };
    if (std::none_of(table_.begin(), table_.end(), isWord)) {
        return;
    }
    const std::string program = directoryOfThisProgram() / other_;
    execv(program.c_str(), argv);
    throw Failure("cannot run " + program + ", which belongs beside this program: " + std::strerror(errno));
}

int CommandLine::parseAndRun(int argc, char** argv)
{
    if (dashesAt_ == 0U && !commands_.empty()) { // a word behind them names no command
        return tellWrongUse("\"--\" was not expected");
    }
    std::vector<std::string> arguments;
    for (int index = argc - 1; index > 0; --index) { // it takes them from the end
        arguments.push_back(kept(argv[index]));
    }
    try {
        app_->parse(std::move(arguments));
    } catch (const CLI::ExtrasError&) {
        return tellWrongUse(unexpected(app_->remaining(true), !chosen().commands_.empty()));
    } catch (const CLI::Success& wish) {
        std::ostringstream text;
        const int status = app_->exit(wish, text); // --help
        std::fputs(wrappedHelp(text.str(), columnsOf(STDOUT_FILENO)).c_str(), stdout);
        return status;
    } catch (const CLI::RequiredError& error) {
        // What was taken for an option, such as "-nan", may be the very thing that is missed; a "--" with
        // nothing behind it is not.
        std::vector<std::string> extras = app_->remaining(true);
        extras.erase(std::remove(extras.begin(), extras.end(), "--"), extras.end());
        return tellWrongUse(extras.empty() ? inPlainWords(error.what())
                                           : unexpected(extras, !chosen().commands_.empty()));
    } catch (const CLI::ValidationError& error) {
        return tellWrongUse(error.what()); // what was typed is in it
    } catch (const CLI::ParseError& error) {
        return tellWrongUse(inPlainWords(error.what()));
    }
    const CommandLine& command = chosen();
    if (!command.run_) {
        return tellWrongUse("a command is missing");
    }
    if (preparation_) {
        preparation_();
    }
    return command.run_();
}

namespace
{

// Whoever had enough of the output need not be told. The signal may have been ignored for other writes, by
// the program or by the library of its bus.
void endWithReader()
{
    pollfd output{STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0) {
        std::signal(SIGPIPE, SIG_DFL);
        std::raise(SIGPIPE);
    }
}

} // namespace

int CommandLine::main(int argc, char** argv)
{
    try {
        arguments_ = typed(argc, argv);
        wordCount_ = static_cast<std::size_t>(std::max(argc - 1, 0));
        dashesAt_ = findDashes(argc, argv);
        leaveToOther(argc, argv);
        defineNamed(argc, argv);
        const int status = parseAndRun(argc, argv);
        if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
            endWithReader();
            throw Failure("cannot write to standard output");
        }
        return status;
    } catch (const WrongUse& error) {
        return tellWrongUse(error.what());
    } catch (const CommandError& error) {
        tell(error.what());
        return error.status();
    } catch (const std::exception& error) {
        tell(plainWords(error));
        return kStatusFailed;
    }
}

} // namespace common
