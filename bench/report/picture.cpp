#include "bench/report/picture.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <sstream>

#include "bench/report/words.h"

namespace bench
{

namespace
{

// In pixels. The scale is logarithmic: twice as long is as far to the right of the limit as half is to the
// left.
constexpr int kTitles = 270; // width of the names
constexpr int kWidth = 900;
constexpr int kHead = 64;
constexpr int kLine = 24;
constexpr int kBar = 13;
constexpr double kLowest = 0.1;
constexpr double kHighest = 100;

int placeOf(double ratio)
{
    const double within = std::clamp(ratio, kLowest, kHighest);
    const double part = std::log10(within / kLowest) / std::log10(kHighest / kLowest);
    return kTitles + static_cast<int>(part * (kWidth - kTitles - 70));
}

std::string escaped(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
    }
    return out;
}

void text(std::ostream& out, int x, int y, const std::string& what, const char* more = "")
{
    out << "<text x=\"" << x << "\" y=\"" << y << "\" " << more << ">" << escaped(what) << "</text>\n";
}

void drawScale(std::ostream& out, int height)
{
    for (const double ratio : {0.1, 0.3, 1.0, 3.0, 10.0, 30.0, 100.0}) {
        const int x = placeOf(ratio);
        const bool isLimit = ratio == 1.0;
        out << "<line x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << kHead - 6 << "\" y2=\"" << height - 8
            << "\" stroke=\"" << (isLimit ? "#222" : "#ddd") << "\"/>\n";
        std::ostringstream label;
        label << ratio;
        text(out, x, kHead - 12, isLimit ? "limit" : label.str(), "text-anchor=\"middle\" fill=\"#555\"");
    }
}

// From the limit to ours, and a mark where the peer is.
void drawLine(std::ostream& out, const Result& result, int y)
{
    const double ratio = *result.ofLimit();
    const int limit = placeOf(1);
    const int ours = placeOf(ratio);
    text(out, kTitles - 12, y + kBar - 2, result.compared->title, "text-anchor=\"end\"");
    out << "<rect x=\"" << std::min(limit, ours) << "\" y=\"" << y << "\" width=\""
        << std::max(std::abs(ours - limit), 1) << "\" height=\"" << kBar << "\" fill=\""
        << (ratio <= 1 ? "#2e8b57" : "#4a7db8") << "\"/>\n";
    const int labelX = std::max(limit, ours) + 5;
    if (result.peer && *result.limit > 0) {
        const int x = placeOf(*result.peer / *result.limit);
        const int middle = y + kBar / 2;
        out << "<path d=\"M" << x << " " << middle - 7 << " l7 7 -7 7 -7 -7 z\" fill=\"#d9822b\"/>\n";
        const bool isInTheWay = x > labelX - 10 && x < labelX + 38;
        text(out, isInTheWay ? x + 10 : labelX, y + kBar - 2, digits(ratio), "fill=\"#333\"");
        return;
    }
    text(out, labelX, y + kBar - 2, digits(ratio), "fill=\"#333\"");
}

} // namespace

std::string pictureOf(const Results& results)
{
    std::vector<const Result*> shown;
    for (const Result& result : results.lines()) {
        if (result.ofLimit()) {
            shown.push_back(&result);
        }
    }
    const int height = kHead + static_cast<int>(shown.size()) * kLine + 12;
    std::ostringstream out;
    out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\"" << height
        << "\" viewBox=\"0 0 " << kWidth << " " << height
        << "\" font-family=\"sans-serif\" font-size=\"12\" fill=\"#111\">\n<rect width=\"" << kWidth
        << "\" height=\"" << height << "\" fill=\"#fff\"/>\n";
    text(out, 16, 24, "Beside the limit, in the same run: times of it, to the left is better",
         "font-size=\"15\" font-weight=\"bold\"");
    out << "<path d=\"M" << kWidth - 150 << " 12 l7 7 -7 7 -7 -7 z\" fill=\"#d9822b\"/>\n";
    text(out, kWidth - 138, 24, "the peer of the line");
    drawScale(out, height);
    int y = kHead + 4;
    for (const Result* result : shown) {
        drawLine(out, *result, y);
        y += kLine;
    }
    out << "</svg>\n";
    return out.str();
}

} // namespace bench
