// JSON as a text: the one reader and the one writer of our programs.
#ifndef COMMON_JSON_TEXT_H
#define COMMON_JSON_TEXT_H

#include <json/value.h>
#include <optional>
#include <string>
#include <string_view>

namespace common
{

// What a text may be. Deeper or longer ones are no attack on whoever reads them, but refused.
struct JsonLimits {
    size_t bytes = size_t{16} << 20;
    int depth = 64; // arrays and objects in each other
};

// Nothing when it is no JSON or beyond the limits; then `why`, if given, has one line. Throws nothing but
// std::bad_alloc, so that it can be called under a C callback. Take care there with the value, too: JsonCpp
// throws when one of another type is asked for.
std::optional<Json::Value> parseJson(std::string_view text, std::string* why = nullptr,
                                     const JsonLimits& limits = {});

// The same for what has to be an object.
std::optional<Json::Value> parseJsonObject(std::string_view text, std::string* why = nullptr,
                                           const JsonLimits& limits = {});

// Where a key of an object that parseJson takes, which is its last then, has stood before: one line, of the
// first such key. Empty when there is none.
std::string repeatedKeyIn(std::string_view text, const JsonLimits& limits = {});

// On one line, without a line end; indented by two blanks. UTF-8 as it is, and nothing but UTF-8: what else a
// value holds, a file's name or a package's text, stands as U+FFFD. What would steer a terminal or the
// direction of writing stands as \uXXXX. Whoever carries the text on relies on it.
std::string compactJson(const Json::Value& value);
std::string indentedJson(const Json::Value& value);

} // namespace common

#endif
