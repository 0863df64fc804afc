// The command line of a program: its options, its subcommands, and how it ends.
//
// A program declares what it takes, each value into a variable of the caller's that has to live until main()
// has returned, and says what to do once all of it has been read. Numbers always have a range: what is no
// number of it is wrong use, with a message of one line. `--help` and `--version` are there by themselves.
//
// This header is narrow on purpose: the library behind it, CLI11, takes ten seconds to compile, and only
// command-line.cpp includes it. One thread.
#ifndef COMMON_TERMINAL_COMMAND_LINE_H
#define COMMON_TERMINAL_COMMAND_LINE_H

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/errors.h"

namespace CLI
{
class App;
class Option;
} // namespace CLI

namespace common
{

class CommandLine;

// A row of a program's table of commands: `define` declares what the command takes and does; null for what
// another program does.
struct Command {
    const char* name;
    const char* summary; // one line for "PROGRAM --help"
    void (*define)(CommandLine& command);
};

// What a number may be, both ends included.
template <typename Number>
struct Range {
    Number lowest;
    Number highest;
};

// A declared option, flag or positional argument. A handle: copy it as you like.
class Option
{
public:
    explicit Option(CLI::Option* option) : option_(option) {}

    Option& required();
    Option& excludes(Option other);                       // wrong use when both are given
    Option& oneOf(const std::vector<std::string>& words); // any other text is wrong use
    Option& called(const char* word);                     // in --help, for its value
    Option& usually(const std::string& text);             // in --help, what holds when it is not given
    Option& mayBeEmpty();                                 // else an empty text or path is wrong use
    bool isGiven() const;                                 // once the command line has been read

private:
    CLI::Option* option_;
};

class CommandLine
{
public:
    // The program itself.
    CommandLine(const std::string& name, const std::string& summary);
    ~CommandLine();
    CommandLine(const CommandLine&) = delete;
    CommandLine& operator=(const CommandLine&) = delete;

    // ---- What it takes. `names`: "NAME" for a positional argument, "--name" or "-n,--name" for an option
    // ----

    Option text(const std::string& names, std::string& value, const std::string& help);
    // Positional: all that is left. As an option: it may be repeated.
    Option texts(const std::string& names, std::vector<std::string>& values, const std::string& help);
    Option path(const std::string& names, std::filesystem::path& value, const std::string& help);
    Option flag(const std::string& names, bool& value, const std::string& help);
    // int, unsigned int or double, decimal; `value` may be an optional of it.
    template <typename Value, typename Number>
    Option number(const std::string& names, Value& value, Range<Number> range, const std::string& help);

    // Options of which at most one, or just one, may be given: they are declared on what this returns.
    enum class Choice { kAtMostOne, kExactlyOne };
    CommandLine& group(Choice choice, const std::string& name, const std::string& summary);

    // ---- What it does ----

    // A subcommand; it lives as long as the program's command line.
    CommandLine& command(const std::string& name, const std::string& summary);
    // Those of a table. Only what is named on the command line is defined, because a start takes time with
    // each that is. `other` is beside this program, and takes its place, with the same words, for what is not
    // defined here: libraries that few commands need are loaded for no other.
    void commands(const std::vector<Command>& table, const std::string& other = "");
    // At the end of --help.
    void footer(const std::string& text);
    // What is done when this command, and none of its subcommands, was chosen. `action` returns the exit
    // status, or nothing for 0. It throws what derives from std::exception: CommandError has its own status,
    // any other is 1. Without an action a subcommand has to be named.
    template <typename Action>
    void onRun(Action action);

    // Done before any action, and not for --help or --version. What it throws is told like an action's.
    void beforeRun(const std::function<void()>& preparation) { preparation_ = preparation; }

    // How many words were typed behind a "--" of its own, once the command line has been read; nothing
    // without one.
    std::optional<std::size_t> wordsBehindDashes() const;

    // Reads the arguments and runs the chosen action; returns the program's exit status. Errors go to
    // standard error, with the program's name; an argument that one of them repeats is shown in one line, and
    // not at any length. Lets pass what is no std::exception.
    int main(int argc, char** argv);

private:
    using Run = std::function<int()>;
    using Store = std::function<void(const std::string&)>;
    CommandLine(CLI::App* app, const CommandLine* parent);
    void defineNamed(int argc, char** argv);
    void leaveToOther(int argc, char** argv) const;

    Option addNumber(const std::string& names, const std::string& help, const std::string& usual,
                     Store store);
    const CommandLine& chosen() const;
    std::string fullName() const;
    int parseAndRun(int argc, char** argv);
    int tellWrongUse(const std::string& problem) const;
    void tell(const std::string& problem) const;

    std::unique_ptr<CLI::App> own_;
    CLI::App* app_;
    const CommandLine* parent_ = nullptr;
    Run run_;
    std::function<void()> preparation_;
    std::vector<std::unique_ptr<CommandLine>> commands_;
    std::vector<std::pair<Command, CommandLine*>> table_;
    std::string other_;
    std::vector<std::unique_ptr<CommandLine>> groups_;
    std::vector<std::string> arguments_; // as they were typed, longest first
    std::size_t wordCount_ = 0;
    std::optional<std::size_t> dashesAt_; // the words before them
};

// The number that `text` is, all of it, if it is one of the range; else WrongUse. Decimal alone.
template <typename Number>
Number numberFrom(const std::string& text, Range<Number> range);

// ---- Templates ----

namespace detail
{
template <typename Value>
struct Held {
    using Type = Value;
    static std::string usual(const Value& value);
};
template <typename Value>
struct Held<std::optional<Value>> {
    using Type = Value;
    static std::string usual(const std::optional<Value>& value)
    {
        return value ? Held<Value>::usual(*value) : "";
    }
};
} // namespace detail

template <typename Value, typename Number>
Option CommandLine::number(const std::string& names, Value& value, Range<Number> range,
                           const std::string& help)
{
    using Held = detail::Held<Value>;
    static_assert(std::is_same_v<Number, typename Held::Type>, "the range is of the value's own type");
    return addNumber(names, help, Held::usual(value),
                     [&value, range](const std::string& text) { value = numberFrom(text, range); });
}

template <typename Action>
void CommandLine::onRun(Action action)
{
    if constexpr (std::is_void_v<std::invoke_result_t<Action>>) {
        run_ = [action = std::move(action)]() mutable {
            action();
            return 0;
        };
    } else {
        run_ = std::move(action);
    }
}

} // namespace common

#endif
