// Texts of others on a terminal, and JSON of anybody.
#include <glib.h>

#include "common/json-text.h"
#include "common/terminal/visible-text.h"
#include "tests/proof/fuzz/target.h"

namespace
{

void requireVisible(const std::string& text)
{
    fuzz::require(g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE,
                  "what is shown is UTF-8");
    for (const char byte : text) {
        fuzz::require(static_cast<unsigned char>(byte) >= ' ' && byte != '\x7f',
                      "nothing that is shown acts on a terminal");
    }
}

void run(std::string_view input)
{
    requireVisible(common::visible(input));
    requireVisible(common::inQuotes(input));
    requireVisible(common::shortened(input));
    fuzz::require(common::visible(common::visible(input)) == common::visible(input),
                  "what is visible stays so");

    std::string why;
    const auto value = common::parseJson(input, &why);
    fuzz::require(value.has_value() != !why.empty(), "JSON, or why not");
    if (!value) {
        requireVisible(why);
        return;
    }
    const std::string text = common::compactJson(*value);
    fuzz::require(g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) != FALSE &&
                      text.find('\n') == std::string::npos,
                  "JSON is one line of UTF-8");
    const auto again = common::parseJson(text);
    fuzz::require(again && common::compactJson(*again) == text, "what is written can be read");
    fuzz::require(common::parseJson(common::indentedJson(*value)).has_value(), "indented as well");
}

const fuzz::Target target("text", run);

} // namespace
