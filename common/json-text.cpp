#include "common/json-text.h"

#include <algorithm>
#include <cstdio>
#include <glib.h>
#include <json/json.h>
#include <memory>

#include "common/glib-pointers.h"
#include "common/terminal/visible-text.h"

namespace common
{

namespace
{

std::string firstLine(const std::string& text)
{
    const size_t begin = text.rfind("* ", 0) == 0 ? 2 : 0; // "* Line 1, Column 1\n  Syntax error\n"
    std::string line;
    for (const char c : text.substr(begin, text.find_last_not_of('\n') + 1 - begin)) {
        const bool isRepeated = c == ' ' && !line.empty() && line.back() == ' ';
        line += c == '\n' ? ": " : std::string(isRepeated ? 0 : 1, c);
    }
    return line;
}

// A character that a terminal would obey rather than draw, as JSON can write it too.
std::string escaped(char32_t character)
{
    char text[16];
    if (character < 0x10000) {
        std::snprintf(text, sizeof text, "\\u%04x", static_cast<unsigned int>(character));
    } else {
        const char32_t rest = character - 0x10000;
        std::snprintf(text, sizeof text, "\\u%04x\\u%04x", static_cast<unsigned int>(0xd800 + (rest >> 10)),
                      static_cast<unsigned int>(0xdc00 + (rest & 0x3ff)));
    }
    return text;
}

// Outside of its strings a JSON text has ASCII alone, with line ends and blanks.
std::string withoutHidden(const std::string& text)
{
    // On ARM a char has no sign.
    const auto isPlain = [](char c) { return static_cast<unsigned char>(c) < 0x7f; };
    if (std::all_of(text.begin(), text.end(), isPlain)) {
        return text; // nearly always
    }
    std::string shown;
    const char* at = text.c_str();
    while (*at != '\0') {
        const gunichar character = g_utf8_get_char(at);
        const char* const next = g_utf8_next_char(at);
        const bool isHidden = character >= 0x7f && !isShown(character);
        shown += isHidden ? escaped(character) : std::string(at, static_cast<size_t>(next - at));
        at = next;
    }
    return shown;
}

Json::StreamWriterBuilder writerWith(const char* indentation)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = indentation;
    writer["emitUTF8"] = true;
    return writer;
}

std::string write(const Json::Value& value, const Json::StreamWriterBuilder& writer)
{
    std::string text = Json::writeString(writer, value);
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
        const GlibPointer<char> valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
        text = valid.get();
    }
    return withoutHidden(text);
}

} // namespace

namespace
{

Json::CharReaderBuilder builderTo(int depth)
{
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = depth;
    builder["collectComments"] = false; // else they are written with the values again
    return builder;
}

Json::CharReader* readerTo(int depth)
{
    constexpr int kUsual = JsonLimits{}.depth;
    static const Json::CharReaderBuilder usual = builderTo(kUsual); // costs more than to read a line
    return depth == kUsual ? usual.newCharReader() : builderTo(depth).newCharReader();
}

} // namespace

std::optional<Json::Value> parseJson(std::string_view text, std::string* why, const JsonLimits& limits)
{
    std::string ignored;
    std::string& reason = why != nullptr ? *why : ignored;
    if (text.size() > limits.bytes) {
        reason = "longer than " + std::to_string(limits.bytes) + " bytes";
        return std::nullopt;
    }
    const std::unique_ptr<Json::CharReader> reader(readerTo(limits.depth));
    Json::Value value;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, &reason)) {
            return value;
        }
        reason = firstLine(reason);
    } catch (const Json::Exception&) { // thrown, not told, when the depth is reached
        reason = "nested deeper than " + std::to_string(limits.depth);
    }
    return std::nullopt;
}

std::string repeatedKeyIn(std::string_view text, const JsonLimits& limits)
{
    if (!parseJson(text, nullptr, limits)) {
        return "";
    }
    Json::CharReaderBuilder builder = builderTo(limits.depth);
    builder["rejectDupKeys"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value ignored;
    std::string where;
    reader->parse(text.data(), text.data() + text.size(), &ignored, &where);
    return firstLine(where);
}

std::optional<Json::Value> parseJsonObject(std::string_view text, std::string* why, const JsonLimits& limits)
{
    std::optional<Json::Value> value = parseJson(text, why, limits);
    if (value && !value->isObject()) {
        if (why != nullptr) {
            *why = "not a JSON object";
        }
        return std::nullopt;
    }
    return value;
}

std::string compactJson(const Json::Value& value)
{
    static const Json::StreamWriterBuilder writer = writerWith(""); // costs more than to write a line
    return write(value, writer);
}

std::string indentedJson(const Json::Value& value)
{
    static const Json::StreamWriterBuilder writer = writerWith("  ");
    return write(value, writer);
}

} // namespace common
