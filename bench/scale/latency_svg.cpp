#include "bench/scale/latency_svg.h"

#include <algorithm>
#include <cmath>
#include <fstream>

namespace kx::bench {
namespace {

constexpr double kLow = 0.1, kHigh = 10000;  // ms
constexpr int kBins = 50;
constexpr int kWidth = 760, kHeight = 360, kLeft = 60, kRight = 20, kTop = 40, kBottom = 50;

int BinOf(double ms) {
  const double x = std::log(std::clamp(ms, kLow, kHigh * 0.999) / kLow) / std::log(kHigh / kLow);
  return std::min(kBins - 1, static_cast<int>(x * kBins));
}

double XOf(double ms) {
  return kLeft + (kWidth - kLeft - kRight) * std::log(ms / kLow) / std::log(kHigh / kLow);
}

}  // namespace

bool WriteLatencySvg(const std::string& path, const std::string& title, const std::vector<LatencySeries>& series) {
  std::vector<std::vector<double>> shares;
  double top = 0;
  for (const LatencySeries& s : series) {
    std::vector<double> share(kBins, 0);
    for (double ms : s.milliseconds) share[BinOf(ms)] += 1.0 / static_cast<double>(s.milliseconds.size());
    top = std::max(top, *std::max_element(share.begin(), share.end()));
    shares.push_back(std::move(share));
  }
  if (top == 0) top = 1;
  std::ofstream out(path);
  const double plotHeight = kHeight - kTop - kBottom;
  const double binWidth = static_cast<double>(kWidth - kLeft - kRight) / kBins;
  out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\"" << kHeight
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << kLeft << "\" y=\"22\" font-size=\"14\">" << title << "</text>\n";
  for (size_t s = 0; s < series.size(); ++s) {
    const double barWidth = binWidth / static_cast<double>(series.size());
    for (int b = 0; b < kBins; ++b) {
      const double h = plotHeight * shares[s][b] / top;
      if (h <= 0) continue;
      out << "<rect x=\"" << kLeft + b * binWidth + s * barWidth << "\" y=\"" << kTop + plotHeight - h << "\" width=\""
          << barWidth << "\" height=\"" << h << "\" fill=\"" << series[s].colour << "\"/>\n";
    }
    // The legend sits above the plot, right of the title, clear of any bar.
    out << "<rect x=\"" << kWidth - 290 << "\" y=\"" << 8 + 15 * s << "\" width=\"10\" height=\"10\" fill=\""
        << series[s].colour << "\"/><text x=\"" << kWidth - 275 << "\" y=\"" << 18 + 15 * s << "\">"
        << series[s].name << "</text>\n";
  }
  const double baseline = kTop + plotHeight;
  out << "<line x1=\"" << kLeft << "\" y1=\"" << baseline << "\" x2=\"" << kWidth - kRight << "\" y2=\"" << baseline
      << "\" stroke=\"black\"/>\n";
  for (double tick : {0.1, 0.3, 1.0, 3.0, 10.0, 30.0, 100.0, 300.0, 1000.0, 3000.0, 10000.0})
    out << "<line x1=\"" << XOf(tick) << "\" y1=\"" << baseline << "\" x2=\"" << XOf(tick) << "\" y2=\"" << baseline + 5
        << "\" stroke=\"black\"/><text x=\"" << XOf(tick) << "\" y=\"" << baseline + 18
        << "\" text-anchor=\"middle\">" << tick << "</text>\n";
  out << "<text x=\"" << (kLeft + kWidth - kRight) / 2 << "\" y=\"" << kHeight - 10
      << "\" text-anchor=\"middle\">milliseconds (logarithmic bins)</text>\n"
      << "<text x=\"14\" y=\"" << kTop + plotHeight / 2 << "\" transform=\"rotate(-90 14 " << kTop + plotHeight / 2
      << ")\" text-anchor=\"middle\">share of samples</text>\n</svg>\n";
  return static_cast<bool>(out);
}

}  // namespace kx::bench
