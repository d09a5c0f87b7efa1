// The chart: a panel for each workload, a bar for each store.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ostream>

#include "bench/Report.h"
#include "bench/Statistics.h"

namespace bench {

namespace {

constexpr std::array kPanels = {"small.put",   "large.put",    "commits.growing", "tiny.put",
                                "small.fetch", "large.fetch",  "small.sizes",     "small.enumerate",
                                "small.open",  "medium.check", "small.compact"};

// A bar longer than so many of ours is cut, so that ours can be seen.
constexpr double kLongest = 5;

constexpr int kPanelWidth = 470;
constexpr int kBarHeight = 14;
constexpr int kBarStep = 18;
constexpr int kNameWidth = 86;
constexpr int kBarWidth = 290;
constexpr int kTitleHeight = 34;
constexpr int kColumns = 2;
constexpr int kMargin = 24;
constexpr int kHeadHeight = 74;

struct Bar {
  std::string name;
  double seconds;
};

struct Panel {
  std::string title;
  std::vector<Bar> bars;

  int Height() const { return kTitleHeight + kBarStep * static_cast<int>(bars.size()) + 22; }
};

std::string Escaped(const std::string& text) {
  std::string out;
  for (const char c : text) out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
  return out;
}

const char* ColourOf(const std::string& name) {
  if (name == kBlobring) return "#1f6feb";
  return name == kLimit ? "#d0d7de" : "#8c959f";
}

std::string Seconds(double seconds) {
  return seconds < 0.1 ? fmt::format("{:.2f} ms", seconds * 1000) : fmt::format("{:.2f} s", seconds);
}

std::vector<Panel> PanelsOf(const Results& results) {
  std::vector<Panel> panels;
  for (const char* id : kPanels) {
    const auto found = results.samples.find(id);
    if (found == results.samples.end() || !found->second.contains(kBlobring)) continue;
    const auto step =
        std::find_if(results.steps.begin(), results.steps.end(), [&](const Step& s) { return s.id == id; });
    Panel panel{step->title, {}};
    for (const auto& [name, samples] : found->second)
      if (name != kLimit) panel.bars.push_back({name, MedianOf(samples, Quantity::Cpu)});
    std::stable_sort(panel.bars.begin(), panel.bars.end(),
                     [](const Bar& a, const Bar& b) { return a.seconds < b.seconds; });
    if (found->second.contains(kLimit))
      panel.bars.push_back({kLimit, MedianOf(found->second.at(kLimit), Quantity::Cpu)});
    panels.push_back(std::move(panel));
  }
  return panels;
}

void WriteBar(const Bar& bar, double scale, int x, int y, std::ostream& out) {
  const bool ours = bar.name == kBlobring;
  const bool cut = bar.seconds > scale;
  const double width = std::max(1.0, kBarWidth * std::min(bar.seconds / scale, 1.0));
  const int textY = y + kBarHeight - 3;
  out << fmt::format("<text x=\"{}\" y=\"{}\" text-anchor=\"end\"{}>{}</text>\n", x + kNameWidth - 6, textY,
                     ours ? " font-weight=\"bold\"" : "", bar.name);
  out << fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{:.1f}\" height=\"{}\" rx=\"2\" fill=\"{}\"/>\n", x + kNameWidth,
                     y, width, kBarHeight, ColourOf(bar.name));
  if (cut)  // a gap near the end: longer than drawn
    out << fmt::format("<path d=\"M{0} {1}l6 {2}h5l-6 -{2}z\" fill=\"#fff\"/>\n", x + kNameWidth + kBarWidth - 24, y,
                       kBarHeight);
  out << fmt::format("<text x=\"{:.1f}\" y=\"{}\"{}>{}</text>\n", x + kNameWidth + width + 6, textY,
                     ours ? " font-weight=\"bold\"" : "", Seconds(bar.seconds));
}

void WritePanel(const Panel& panel, int x, int y, std::ostream& out) {
  double ours = 0;
  double longest = 0;
  for (const Bar& bar : panel.bars) {
    if (bar.name == kBlobring) ours = bar.seconds;
    longest = std::max(longest, bar.seconds);
  }
  const double scale = std::min(longest, kLongest * ours);
  out << fmt::format("<text x=\"{}\" y=\"{}\" font-size=\"14\" font-weight=\"bold\">{}</text>\n", x, y + 18,
                     Escaped(panel.title));
  for (std::size_t i = 0; i < panel.bars.size(); ++i)
    WriteBar(panel.bars[i], scale, x, y + kTitleHeight + static_cast<int>(i) * kBarStep, out);
}

}  // namespace

// Two columns, each filled from the top, the next panel in the shorter one.
void WriteChart(const Results& results, std::ostream& out) {
  const std::vector<Panel> panels = PanelsOf(results);
  std::array<int, kColumns> bottoms;
  bottoms.fill(kHeadHeight);
  struct Place {
    int x, y;
  };
  std::vector<Place> places;
  for (const Panel& panel : panels) {
    const auto column = std::min_element(bottoms.begin(), bottoms.end());
    places.push_back({kMargin + static_cast<int>(column - bottoms.begin()) * kPanelWidth, *column});
    *column += panel.Height();
  }
  const int height = *std::max_element(bottoms.begin(), bottoms.end()) + 8;
  const int width = kColumns * kPanelWidth + kMargin;
  out << fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\" "
      "font-family=\"sans-serif\" font-size=\"12\" fill=\"#1f2328\">\n<rect width=\"{0}\" height=\"{1}\" "
      "fill=\"#fff\"/>\n",
      width, height);
  out << fmt::format(
      "<text x=\"{0}\" y=\"30\" font-size=\"18\" font-weight=\"bold\">CPU time of each workload</text>\n<text "
      "x=\"{0}\" y=\"52\">Shorter is better. A bar with a gap is longer than drawn. Limit: digests and bare "
      "system calls, without a store.</text>\n",
      kMargin);
  for (std::size_t i = 0; i < panels.size(); ++i) WritePanel(panels[i], places[i].x, places[i].y, out);
  out << "</svg>\n";
}

}  // namespace bench
