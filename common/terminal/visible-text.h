// Texts that come from packages, control libraries and files, on a terminal: shown, never obeyed.
#ifndef COMMON_TERMINAL_VISIBLE_TEXT_H
#define COMMON_TERMINAL_VISIBLE_TEXT_H

#include <filesystem>
#include <string>
#include <string_view>

namespace common
{

// Whether a character is drawn as itself: not what moves the cursor, turns the writing or cannot be seen.
bool isShown(char32_t character);

// `text` in one line of valid UTF-8: control characters, line breaks, what steers a terminal or the direction
// of writing, and bytes that are no UTF-8 stand as \n, \t, \r or \xNN, a byte at a time. A backslash stays as
// it is.
std::string visible(std::string_view text);

// What somebody has typed, or a name of others, as a message repeats it: visible, between quotation marks,
// and no more than its first 60 bytes or so, with "..." for the rest.
std::string inQuotes(std::string_view text);

// The same without quotation marks, for the path of a file: of a very long one the beginning and the end.
std::string shortened(std::string_view text);
inline std::string shown(const std::filesystem::path& path)
{
    return shortened(path.string());
}

// A file's name as it can be pasted into a shell's line: quoted where that is needed.
std::string inShell(std::string_view text);

// visible() line by line, for a message that may have several. A text of others that is put into a message is
// made visible by itself, so that it cannot begin a line.
std::string visibleLines(std::string_view text);

} // namespace common

#endif
