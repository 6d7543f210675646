// Sparklines and SVG charts of speeds over time.
#include "chart.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "cli.h"
#include "table.h"

namespace cli {
namespace {

// Tableau's ten colours: distinct, and readable on white.
const char *const kPalette[] = {"#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#b07aa1",
                                "#76b7b2", "#edc948", "#ff9da7", "#9c755f", "#bab0ac"};
const char kDark[] = "#333333";
const char kFont[] = "DejaVu Sans, Helvetica, Arial, sans-serif";

// The canvas and, inside it, the plot area; the legend stands right of it.
constexpr double kWidth = 960, kHeight = 540;
constexpr double kLeft = 84, kRight = 740, kTop = 60, kBottom = 470;
constexpr double kLegendX = 764;
constexpr size_t kLegendChars = 24, kTitleChars = 80;

struct Unit {
    double bytes;
    const char *name;
};

Unit UnitFor(double bytesPerSecond)
{
    static const Unit kUnits[] = {{1, "B/s"}, {1024, "KiB/s"}, {1048576, "MiB/s"}, {1073741824, "GiB/s"}};
    const Unit *unit = &kUnits[0];
    for (const Unit &u : kUnits) {
        if (bytesPerSecond >= u.bytes) {
            unit = &u;
        }
    }
    return *unit;
}

// A step of 1, 2, 2.5 or 5 times a power of ten that cuts `range` into about `ticks` parts.
double NiceStep(double range, int ticks)
{
    double raw = range / ticks;
    double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 2.5, 5.0}) {
        if (m * magnitude >= raw) {
            return m * magnitude;
        }
    }
    return 10 * magnitude;
}

std::string Number(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value);
    std::string number = text;
    number.erase(number.find_last_not_of('0') + 1);
    if (number.back() == '.') {
        number.pop_back();
    }
    return number;
}

std::string Coord(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

// Printable text, cut to `chars` characters, escaped for XML.
std::string XmlText(const std::string &text, size_t chars)
{
    std::string printable = CutToWidth(Printable(text), chars);
    std::string escaped;
    for (char c : printable) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

// A darker shade of a "#rrggbb" colour, for the limit drawn over a line of that colour.
std::string Darker(const std::string &colour)
{
    unsigned long rgb = std::strtoul(colour.c_str() + 1, nullptr, 16);
    char text[8];
    std::snprintf(text, sizeof text, "#%02lx%02lx%02lx", (rgb >> 16 & 0xFF) * 3 / 5, (rgb >> 8 & 0xFF) * 3 / 5,
                  (rgb & 0xFF) * 3 / 5);
    return text;
}

const char *ClassOf(SpeedChart::Kind kind)
{
    return kind == SpeedChart::Kind::Transfer ? "series" : kind == SpeedChart::Kind::Total ? "total" : "limit";
}

std::string StrokeOf(SpeedChart::Kind kind, const std::string &colour)
{
    std::string stroke = "fill=\"none\" stroke=\"" + colour + "\" stroke-linejoin=\"round\" stroke-linecap=\"round\"";
    if (kind == SpeedChart::Kind::Limit) {
        return stroke + " stroke-width=\"1.6\" stroke-dasharray=\"7 5\"";
    }
    return stroke + (kind == SpeedChart::Kind::Total ? " stroke-width=\"2.6\"" : " stroke-width=\"2\"");
}

}  // namespace

std::string Sparkline(const std::vector<double> &values, double full, size_t width)
{
    static const char *const kBlocks[] = {"\u2581", "\u2582", "\u2583", "\u2584",
                                          "\u2585", "\u2586", "\u2587", "\u2588"};
    static const char kAscii[] = "_.-:=+*#";
    if (full <= 0 && !values.empty()) {
        full = *std::max_element(values.begin(), values.end());
    }
    std::string line(width > values.size() ? width - values.size() : 0, ' ');
    for (size_t i = values.size() > width ? values.size() - width : 0; i < values.size(); ++i) {
        if (!(values[i] > 0) || !(full > 0)) {
            line += ' ';
            continue;
        }
        int level = std::clamp(static_cast<int>(std::ceil(values[i] / full * 8)), 1, 8) - 1;
        line += Utf8Locale() ? std::string(kBlocks[level]) : std::string(1, kAscii[level]);
    }
    return line;
}

void SpeedChart::Add(const std::string &label, Kind kind, double seconds, double bytesPerSecond,
                     const std::string &colourOf)
{
    auto same = [&label](const Series &s) { return s.label == label; };
    auto series = std::find_if(series_.begin(), series_.end(), same);
    if (series == series_.end()) {
        std::string colour = kDark;
        if (kind == Kind::Transfer) {
            colour = kPalette[transfers_++ % (sizeof kPalette / sizeof kPalette[0])];
        }
        auto source =
            std::find_if(series_.begin(), series_.end(), [&](const Series &s) { return s.label == colourOf; });
        if (source != series_.end()) {
            colour = Darker(source->colour);
        }
        series_.push_back({label, kind, colour, {}});
        series = series_.end() - 1;
    }
    bool gap = kind == Kind::Limit && bytesPerSecond <= 0;
    series->points.emplace_back(seconds, gap ? std::nan("") : bytesPerSecond);
}

void SpeedChart::Write(std::ostream &out) const
{
    double tMax = 1, vMax = 1;
    for (const Series &s : series_) {
        for (const auto &[t, v] : s.points) {
            tMax = std::max(tMax, t);
            vMax = std::isfinite(v) ? std::max(vMax, v) : vMax;
        }
    }
    const Unit unit = UnitFor(vMax);
    const double yStep = NiceStep(vMax / unit.bytes * 1.08, 5);
    const double yTop = std::ceil(vMax / unit.bytes * 1.08 / yStep) * yStep;
    const double xStep = NiceStep(tMax, 8);  // the lines reach the right edge, the ticks stop before it
    auto x = [&](double t) { return Coord(kLeft + t / tMax * (kRight - kLeft)); };
    auto y = [&](double v) { return Coord(kBottom - v / unit.bytes / yTop * (kBottom - kTop)); };

    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << kWidth << "\" height=\"" << kHeight
        << "\" viewBox=\"0 0 " << kWidth << ' ' << kHeight << "\" font-family=\"" << kFont << "\">\n"
        << "<title>" << XmlText(title_, kTitleChars) << "</title>\n"
        << "<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n"
        << "<defs><clipPath id=\"plot\"><rect x=\"" << kLeft << "\" y=\"" << kTop - 4 << "\" width=\"" << kRight - kLeft
        << "\" height=\"" << kBottom - kTop + 4 << "\"/></clipPath></defs>\n"
        << "<text x=\"" << kLeft << "\" y=\"34\" font-size=\"18\" font-weight=\"bold\" fill=\"#222222\">"
        << XmlText(title_, kTitleChars) << "</text>\n";
    for (double v = 0; v <= yTop + yStep / 2; v += yStep) {
        std::string at = y(v * unit.bytes);
        out << "<line x1=\"" << kLeft << "\" x2=\"" << kRight << "\" y1=\"" << at << "\" y2=\"" << at
            << "\" stroke=\"#e6e6e6\"/>\n<text x=\"" << kLeft - 10 << "\" y=\"" << at
            << "\" dy=\"4\" text-anchor=\"end\" font-size=\"12\" fill=\"#444444\">" << Number(v) << "</text>\n";
    }
    for (double t = 0; t <= tMax + xStep * 1e-6; t += xStep) {
        out << "<line x1=\"" << x(t) << "\" x2=\"" << x(t) << "\" y1=\"" << kBottom << "\" y2=\"" << kBottom + 6
            << "\" stroke=\"#888888\"/>\n<text x=\"" << x(t) << "\" y=\"" << kBottom + 22
            << "\" text-anchor=\"middle\" font-size=\"12\" fill=\"#444444\">" << Number(t) << "</text>\n";
    }
    out << "<path d=\"M" << kLeft << ' ' << kTop - 4 << "V" << kBottom << "H" << kRight
        << "\" fill=\"none\" stroke=\"#888888\"/>\n"
        << "<text x=\"" << (kLeft + kRight) / 2 << "\" y=\"" << kBottom + 50
        << "\" text-anchor=\"middle\" font-size=\"13\" fill=\"#333333\">time (s)</text>\n"
        << "<text transform=\"translate(26 " << (kTop + kBottom) / 2
        << ") rotate(-90)\" text-anchor=\"middle\" font-size=\"13\" fill=\"#333333\">speed (" << unit.name
        << ")</text>\n";

    // The transfers, their total, and the limits dashed over them; the legend in the same order.
    std::vector<const Series *> ordered;
    for (Kind kind : {Kind::Transfer, Kind::Total, Kind::Limit}) {
        for (const Series &s : series_) {
            if (s.kind == kind) {
                ordered.push_back(&s);
            }
        }
    }
    for (const Series *s : ordered) {
        std::string d;
        bool pen = false;
        for (const auto &[t, v] : s->points) {
            if (std::isfinite(v)) {
                d += (pen ? "L" : "M") + x(t) + ' ' + y(v);
            }
            pen = std::isfinite(v);
        }
        out << "<path class=\"" << ClassOf(s->kind) << "\" data-label=\"" << XmlText(s->label, 256) << "\" d=\"" << d
            << "\" " << StrokeOf(s->kind, s->colour) << " clip-path=\"url(#plot)\"/>\n";
    }
    double legendY = kTop + 8;
    for (const Series *s : ordered) {
        out << "<line x1=\"" << kLegendX << "\" x2=\"" << kLegendX + 28 << "\" y1=\"" << legendY << "\" y2=\""
            << legendY << "\" " << StrokeOf(s->kind, s->colour) << "/>\n<text x=\"" << kLegendX + 36 << "\" y=\""
            << legendY << "\" dy=\"4\" font-size=\"13\" fill=\"#222222\">" << XmlText(s->label, kLegendChars)
            << "</text>\n";
        legendY += 24;
    }
    out << "</svg>\n";
}

PlotFile::PlotFile(const std::string &path) : path_(path)
{
    if (path.empty()) {
        return;
    }
    fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        throw Error("cannot create the chart " + path + ": " + std::strerror(errno), 1);
    }
}

PlotFile PlotFile::Temporary(const std::string &name)
{
    const char *dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir != nullptr && dir[0] != '\0' ? dir : "/tmp") + "/" + name + "-XXXXXX.svg";
    PlotFile file;
    file.fd_ = mkostemps(&pattern[0], 4, O_CLOEXEC);
    if (file.fd_ < 0) {
        throw Error("cannot create a chart file in " + pattern + ": " + std::strerror(errno), 1);
    }
    file.path_ = pattern;
    return file;
}

PlotFile::PlotFile(PlotFile &&other) noexcept : path_(std::move(other.path_)), fd_(other.fd_)
{
    other.fd_ = -1;
}

PlotFile::~PlotFile()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

void PlotFile::Write(const SpeedChart &chart)
{
    std::ostringstream svg;
    chart.Write(svg);
    const std::string text = svg.str();
    if (!WriteAll(fd_, text.data(), text.size())) {
        throw Error("cannot write the chart " + path_ + ": " + std::strerror(errno), 1);
    }
}

}  // namespace cli
