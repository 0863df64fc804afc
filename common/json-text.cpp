#include "common/json-text.h"

#include <algorithm>
#include <glib.h>
#include <json/json.h>
#include <memory>

namespace common
{

namespace
{

std::string firstLine(const std::string& text)
{
    std::string line = text.substr(0, text.find_last_not_of('\n') + 1);
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

std::string write(const Json::Value& value, const char* indentation)
{
    Json::StreamWriterBuilder writer;
    writer["indentation"] = indentation;
    writer["emitUTF8"] = true;
    std::string text = Json::writeString(writer, value);
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
        char* const valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
        text = valid;
        g_free(valid);
    }
    return text;
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
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = limits.depth;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
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
    return write(value, "");
}

std::string indentedJson(const Json::Value& value)
{
    return write(value, "  ");
}

} // namespace common
