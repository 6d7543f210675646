// Pictures of speed over time: sparklines for the terminal and SVG charts.
#ifndef VBW_CLI_CHART_H
#define VBW_CLI_CHART_H

#include <ostream>
#include <string>
#include <vector>

namespace cli {

// The values as a sparkline of `width` block characters (ASCII when the
// locale is not UTF-8), the newest at the right; `full` is the value of a
// full block (the limit), or the largest value when it is 0.
std::string Sparkline(const std::vector<double> &values, double full, size_t width);

// A chart of speeds in bytes/s over seconds: a line per transfer, the total
// of several, and the limits as dashed lines.
class SpeedChart {
public:
    enum class Kind { Transfer, Total, Limit };

    explicit SpeedChart(std::string title) : title_(std::move(title)) {}
    // Adds a point to the series of that label, created on first use; a
    // limit takes the colour of the series `colourOf` names.  A limit of 0
    // (unlimited) leaves a gap in its line.
    void Add(const std::string &label, Kind kind, double seconds, double bytesPerSecond,
             const std::string &colourOf = "");
    void Write(std::ostream &out) const;

private:
    struct Series {
        std::string label;
        Kind kind;
        std::string colour;
        std::vector<std::pair<double, double>> points;  // seconds, bytes/s (NaN: a gap)
    };
    std::string title_;
    std::vector<Series> series_;
    size_t transfers_ = 0;
};

// The SVG file named by --plot, created before the work starts so that a
// path that cannot be written fails at once.
class PlotFile {
public:
    explicit PlotFile(const std::string &path);  // "" is no file; throws Error when it cannot be created
    // A new file "NAME-XXXXXX.svg" in $TMPDIR or /tmp.
    static PlotFile Temporary(const std::string &name);
    PlotFile(PlotFile &&other) noexcept;
    ~PlotFile();
    PlotFile &operator=(const PlotFile &) = delete;

    bool Wanted() const { return fd_ >= 0; }
    const std::string &Path() const { return path_; }
    void Write(const SpeedChart &chart);  // throws Error when writing fails

private:
    PlotFile() = default;
    std::string path_;
    int fd_ = -1;
};

}  // namespace cli

#endif
