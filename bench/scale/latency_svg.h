// A latency histogram as a hand-written SVG: logarithmic bins from 0.1 ms
// to 10 s, one bar series per contender, share of samples per bin.
#pragma once

#include <string>
#include <vector>

namespace kx::bench {

struct LatencySeries {
  std::string name;
  std::string colour;  // an SVG colour
  std::vector<double> milliseconds;
};

// Writes the picture to `path`; false when it cannot be written.
bool WriteLatencySvg(const std::string& path, const std::string& title, const std::vector<LatencySeries>& series);

}  // namespace kx::bench
