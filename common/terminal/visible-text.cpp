#include "common/terminal/visible-text.h"

#include <cstdio>
#include <glib.h>

namespace common
{

bool isShown(char32_t character)
{
    switch (g_unichar_type(character)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT:
    case G_UNICODE_SURROGATE:
    case G_UNICODE_UNASSIGNED:
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
        return false;
    default:
        return true;
    }
}

namespace
{

std::string escaped(std::string_view bytes)
{
    std::string shown;
    for (const char c : bytes) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "\\x%02X", static_cast<unsigned char>(c));
        shown += c == '\n' ? "\\n" : c == '\t' ? "\\t" : c == '\r' ? "\\r" : hex;
    }
    return shown;
}

// The first character of `text` as it is shown; it is taken off.
std::string takeCharacter(std::string_view& text)
{
    const gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    const bool isValid = character != static_cast<gunichar>(-1) && character != static_cast<gunichar>(-2);
    const size_t length = isValid ? static_cast<size_t>(g_unichar_to_utf8(character, nullptr)) : 1;
    const std::string_view bytes = text.substr(0, length);
    text.remove_prefix(length);
    return isValid && isShown(character) ? std::string(bytes) : escaped(bytes);
}

// As many characters of `text` as `bytes` have room for, as they are shown; they are taken off.
std::string firstOf(std::string_view& text, size_t bytes)
{
    std::string shown;
    while (!text.empty() && shown.size() < bytes) {
        shown += takeCharacter(text);
    }
    return shown;
}

bool isInsideOfCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

} // namespace

std::string visible(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        shown += takeCharacter(text);
    }
    return shown;
}

std::string inQuotes(std::string_view text)
{
    constexpr size_t kLongest = 60;
    const std::string begin = firstOf(text, kLongest);
    return "\"" + begin + (text.empty() ? "\"" : "...\"");
}

std::string shortened(std::string_view text)
{
    constexpr size_t kBegin = 60;
    constexpr size_t kEnd = 100;
    if (text.size() <= kBegin + kEnd) {
        return visible(text);
    }
    std::string_view end = text.substr(text.size() - kEnd);
    while (!end.empty() && isInsideOfCharacter(end.front())) {
        end.remove_prefix(1);
    }
    return firstOf(text, kBegin) + "..." + visible(end);
}

std::string inShell(std::string_view text)
{
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./+,:@%=";
    if (!text.empty() && text.find_first_not_of(kPlain) == std::string_view::npos) {
        return std::string(text);
    }
    std::string escaped;
    for (const char c : text) {
        escaped += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    const std::string shown = visible(escaped); // \n, \xNN: the shell knows them as well
    const bool isLiteral = shown == text;
    return (isLiteral ? "'" : "$'") + shown + "'";
}

std::string visibleLines(std::string_view text)
{
    std::string shown;
    while (true) {
        const size_t end = text.find('\n');
        shown += visible(text.substr(0, end));
        if (end == std::string_view::npos) {
            return shown;
        }
        shown += '\n';
        text.remove_prefix(end + 1);
    }
}

} // namespace common
