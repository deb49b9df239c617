// Lines in a diagram whose two axes are logarithmic, as SVG.

#pragma once

#include <string>
#include <utility>
#include <vector>

namespace sentrova::bench {

struct Line {
    std::string label;
    // By increasing x; all numbers above 0.
    std::vector<std::pair<double, double>> points;
};

std::string logLogPlot(const std::string& title, const std::string& xLabel, const std::string& yLabel,
                       const std::vector<Line>& lines);

}  // namespace sentrova::bench
