#include "Plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include <fmt/format.h>

namespace sentrova::bench {

namespace {

constexpr double kWidth = 760;
constexpr double kHeight = 480;
constexpr double kLeft = 80;
constexpr double kRight = 30;
constexpr double kTop = 50;
constexpr double kBottom = 60;
constexpr std::array<std::string_view, 5> kColours = {"#1b6ca8", "#c1440e", "#2e7d32", "#7b3fa0", "#666666"};

// One axis: whole decades around the values, onto a length of the picture.
class Axis {
  public:
    Axis(double least, double most, double from, double to)
        : low_(std::floor(std::log10(least))), high_(std::ceil(std::log10(most))), from_(from), to_(to) {
        high_ = std::max(high_, low_ + 1);
    }
    double at(double value) const { return from_ + (std::log10(value) - low_) / (high_ - low_) * (to_ - from_); }
    int low() const { return static_cast<int>(low_); }
    int high() const { return static_cast<int>(high_); }

  private:
    double low_;
    double high_;
    double from_;
    double to_;
};

std::string text(double x, double y, std::string_view anchor, std::string_view content, std::string_view more = "") {
    return fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"{}\" {}>{}</text>\n", x, y, anchor, more,
                       content);
}

std::string rule(double x1, double y1, double x2, double y2) {
    return fmt::format("<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"#dddddd\"/>\n", x1, y1,
                       x2, y2);
}

std::string decade(int exponent) {
    return fmt::format("10<tspan dy=\"-5\" font-size=\"9\">{}</tspan>", exponent);
}

std::string drawn(const Line& line, const Axis& x, const Axis& y, std::string_view colour) {
    std::string path;
    std::string marks;
    for (const auto& [px, py] : line.points) {
        path += fmt::format("{}{:.1f},{:.1f} ", path.empty() ? "M" : "L", x.at(px), y.at(py));
        marks +=
            fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"3.5\" fill=\"{}\"/>\n", x.at(px), y.at(py), colour);
    }
    return fmt::format("<path d=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2\"/>\n{}", path, colour, marks);
}

}  // namespace

std::string logLogPlot(const std::string& title, const std::string& xLabel, const std::string& yLabel,
                       const std::vector<Line>& lines) {
    std::vector<double> xs;
    std::vector<double> ys;
    for (const auto& line : lines) {
        for (const auto& [x, y] : line.points) {
            xs.push_back(x);
            ys.push_back(y);
        }
    }
    std::string svg = fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0} {1}\" width=\"{0}\" height=\"{1}\" "
        "font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"{0}\" height=\"{1}\" fill=\"white\"/>\n",
        kWidth, kHeight);
    svg += text(kWidth / 2, 28, "middle", title, "font-size=\"15\" font-weight=\"bold\"");
    if (xs.empty()) {
        return svg + "</svg>\n";
    }
    const Axis x(*std::ranges::min_element(xs), *std::ranges::max_element(xs), kLeft, kWidth - kRight);
    const Axis y(*std::ranges::min_element(ys), *std::ranges::max_element(ys), kHeight - kBottom, kTop);
    for (int e = x.low(); e <= x.high(); ++e) {
        const auto at = x.at(std::pow(10, e));
        svg += rule(at, kTop, at, kHeight - kBottom) + text(at, kHeight - kBottom + 20, "middle", decade(e));
    }
    for (int e = y.low(); e <= y.high(); ++e) {
        const auto at = y.at(std::pow(10, e));
        svg += rule(kLeft, at, kWidth - kRight, at) + text(kLeft - 8, at + 4, "end", decade(e));
    }
    svg += text((kLeft + kWidth - kRight) / 2, kHeight - 15, "middle", xLabel);
    svg += text(22, (kTop + kHeight - kBottom) / 2, "middle", yLabel,
                fmt::format("transform=\"rotate(-90 22 {:.0f})\"", (kTop + kHeight - kBottom) / 2));
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto colour = kColours[i % kColours.size()];
        const auto row = kTop + 16 + static_cast<double>(i) * 18;
        svg += drawn(lines[i], x, y, colour);
        svg += fmt::format("<rect x=\"{:.1f}\" y=\"{:.1f}\" width=\"14\" height=\"4\" fill=\"{}\"/>\n", kLeft + 14,
                           row - 6, colour);
        svg += text(kLeft + 34, row, "start", lines[i].label);
    }
    return svg + "</svg>\n";
}

}  // namespace sentrova::bench
