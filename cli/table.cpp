// Tables, safe terminal text, the status line, JSON and the number formats
// of the tool's output.
#include "table.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace cli {
namespace {

bool g_statusLineOpen = false;

// Length of the valid UTF-8 sequence at text[i], or 0 when it is not one.
size_t Utf8SequenceLength(const std::string &text, size_t i)
{
    unsigned char lead = static_cast<unsigned char>(text[i]);
    size_t length = lead < 0x80                   ? 1
                    : lead >= 0xC2 && lead < 0xE0 ? 2
                    : lead >= 0xE0 && lead < 0xF0 ? 3
                    : lead >= 0xF0 && lead < 0xF5 ? 4
                                                  : 0;
    if (length == 0 || i + length > text.size()) {
        return 0;
    }
    for (size_t k = 1; k < length; ++k) {
        if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

// U+0080 to U+009F: the C1 controls, which some terminals obey (CSI is U+009B).
bool IsC1Control(const std::string &text, size_t i, size_t length)
{
    return length == 2 && static_cast<unsigned char>(text[i]) == 0xC2 && static_cast<unsigned char>(text[i + 1]) < 0xA0;
}

void AppendEscaped(std::string &out, unsigned char c)
{
    const char *named = c == '\n' ? "\\n" : c == '\t' ? "\\t" : c == '\r' ? "\\r" : c == '\\' ? "\\\\" : nullptr;
    if (named != nullptr) {
        out += named;
        return;
    }
    char code[8];
    std::snprintf(code, sizeof code, "\\x%02x", c);
    out += code;
}

bool IsContinuationByte(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

}  // namespace

std::string Printable(const std::string &text)
{
    const bool utf8 = Utf8Locale();
    std::string out;
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t length = utf8 ? Utf8SequenceLength(text, i) : (c < 0x80 ? 1 : 0);
        if (length > 1 && !IsC1Control(text, i, length)) {
            out.append(text, i, length);
        } else if (length == 1 && c >= 0x20 && c != 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            length = std::max<size_t>(length, 1);
            for (size_t k = 0; k < length; ++k) {
                AppendEscaped(out, static_cast<unsigned char>(text[i + k]));
            }
        }
        i += length;
    }
    return out;
}

std::string CutToWidth(const std::string &line, size_t width)
{
    if (width == 0 || DisplayWidth(line) <= width) {
        return line;
    }
    std::string cut;
    size_t columns = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        if (!IsContinuationByte(line[i]) && ++columns == width) {
            break;
        }
        cut += line[i];
    }
    return cut + (Utf8Locale() ? "\u2026" : ">");
}

size_t DisplayWidth(const std::string &text)
{
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return !IsContinuationByte(c); }));
}

bool Utf8Locale()
{
    static const bool utf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    return utf8;
}

size_t TerminalColumns()
{
    struct winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    const char *columns = std::getenv("COLUMNS");
    long value = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
    return value > 0 ? static_cast<size_t>(value) : 0;
}

void DrawStatusLine(const std::string &text)
{
    size_t columns = TerminalColumns();
    std::cout << '\r' << CutToWidth(Printable(text), columns > 0 ? columns - 1 : 0) << "\x1b[K" << std::flush;
    g_statusLineOpen = true;
}

void EndStatusLine()
{
    if (g_statusLineOpen) {
        std::cout << '\n' << std::flush;
        g_statusLineOpen = false;
    }
}

void Warn(const std::string &message)
{
    EndStatusLine();
    std::cerr << "veskbandwidth: warning: " << Printable(message) << '\n';
}

void Table::AddRow(const std::vector<std::string> &cells)
{
    std::vector<std::string> row;
    for (const std::string &cell : cells) {
        row.push_back(Printable(cell));
    }
    rows_.push_back(std::move(row));
}

void Table::Print(std::ostream &out, size_t width) const
{
    std::vector<size_t> widths;
    for (const Column &column : columns_) {
        widths.push_back(DisplayWidth(column.title));
    }
    for (const auto &row : rows_) {
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], DisplayWidth(row[i]));
        }
    }
    auto printRow = [&](auto cellAt) {
        std::string line;
        for (size_t i = 0; i < columns_.size(); ++i) {
            std::string cell = cellAt(i);
            std::string pad(widths[i] - std::min(widths[i], DisplayWidth(cell)), ' ');
            bool last = i + 1 == columns_.size();
            line += columns_[i].alignRight ? pad + cell : (last ? cell : cell + pad);
            line += last ? "" : "  ";
        }
        out << CutToWidth(line, width) << '\n';
    };
    printRow([&](size_t i) { return columns_[i].title; });
    for (const auto &row : rows_) {
        printRow([&](size_t i) { return i < row.size() ? row[i] : std::string(); });
    }
}

bool PrintDump(std::ostream &out, const std::function<int(FILE *)> &dump)
{
    char *buffer = nullptr;
    size_t size = 0;
    FILE *memory = open_memstream(&buffer, &size);
    if (memory == nullptr) {
        return false;
    }
    int result = dump(memory);
    std::fclose(memory);
    std::string text(buffer, size);
    std::free(buffer);
    if (result != 0) {
        return false;
    }
    for (size_t start = 0; start < text.size();) {
        size_t end = std::min(text.find('\n', start), text.size());
        out << Printable(text.substr(start, end - start)) << '\n';
        start = end + 1;
    }
    return true;
}

void JsonWriter::Separate()
{
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) {
            out_ << ',';
        }
        first_.back() = false;
    }
}

JsonWriter &JsonWriter::BeginObject()
{
    Separate();
    out_ << '{';
    first_.push_back(true);
    return *this;
}

JsonWriter &JsonWriter::EndObject()
{
    out_ << '}';
    first_.pop_back();
    if (first_.empty()) {
        out_ << '\n';
    }
    return *this;
}

JsonWriter &JsonWriter::BeginArray()
{
    Separate();
    out_ << '[';
    first_.push_back(true);
    return *this;
}

JsonWriter &JsonWriter::EndArray()
{
    out_ << ']';
    first_.pop_back();
    return *this;
}

JsonWriter &JsonWriter::Key(const std::string &key)
{
    Separate();
    out_ << '"' << JsonEscape(key) << "\":";
    afterKey_ = true;
    return *this;
}

JsonWriter &JsonWriter::String(const std::string &value)
{
    Separate();
    out_ << '"' << JsonEscape(value) << '"';
    return *this;
}

JsonWriter &JsonWriter::Number(uint64_t value)
{
    Separate();
    out_ << value;
    return *this;
}

JsonWriter &JsonWriter::Number(int64_t value)
{
    Separate();
    out_ << value;
    return *this;
}

JsonWriter &JsonWriter::Number(double value)
{
    Separate();
    char text[64];
    std::snprintf(text, sizeof text, "%.1f", std::isfinite(value) ? value : 0.0);
    out_ << text;
    return *this;
}

JsonWriter &JsonWriter::Bool(bool value)
{
    Separate();
    out_ << (value ? "true" : "false");
    return *this;
}

JsonWriter &JsonWriter::Null()
{
    Separate();
    out_ << "null";
    return *this;
}

// File names may hold any byte: control characters are escaped and bytes that
// are not UTF-8 become U+FFFD, so the output stays valid JSON.
std::string JsonEscape(const std::string &text)
{
    std::string escaped;
    for (size_t i = 0; i < text.size();) {
        size_t length = Utf8SequenceLength(text, i);
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (length == 0) {
            escaped += "\\ufffd";
            ++i;
            continue;
        }
        if (length > 1) {
            escaped.append(text, i, length);
        } else if (c == '"' || c == '\\') {
            escaped += '\\';
            escaped += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", c);
            escaped += code;
        } else {
            escaped += static_cast<char>(c);
        }
        i += length;
    }
    return escaped;
}

std::string RateText(double bytesPerSecond)
{
    if (!(bytesPerSecond > 0)) {
        return "unlimited";
    }
    static const char *const kUnits[] = {"B/s", "KiB/s", "MiB/s", "GiB/s", "TiB/s", "PiB/s", "EiB/s"};
    size_t unit = 0;
    double value = bytesPerSecond;
    while (value >= 1023.95 && unit + 1 < sizeof kUnits / sizeof kUnits[0]) {
        value /= 1024;
        ++unit;
    }
    double rounded = std::round(value * 10) / 10;
    char text[48];
    std::snprintf(text, sizeof text, "%.*f %s", rounded == std::floor(rounded) ? 0 : 1, rounded, kUnits[unit]);
    return text;
}

std::string KiBRateText(uint64_t kibPerSecond)
{
    return RateText(static_cast<double>(kibPerSecond) * 1024.0);
}

std::string Percent(uint32_t progress)
{
    char text[16];
    std::snprintf(text, sizeof text, "%.2f%%", progress / 100.0);
    return text;
}

std::string Duration(double seconds)
{
    if (!std::isfinite(seconds) || seconds < 0) {
        return "?";
    }
    uint64_t total = static_cast<uint64_t>(seconds + 0.5);
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%" PRIu64 ":%02u:%02u", total / 3600, static_cast<unsigned>(total / 60 % 60),
                      static_cast<unsigned>(total % 60));
    } else {
        std::snprintf(text, sizeof text, "%u:%02u", static_cast<unsigned>(total / 60),
                      static_cast<unsigned>(total % 60));
    }
    return text;
}

std::string Plural(size_t count, const std::string &noun)
{
    bool sibilant = !noun.empty() && noun.back() == 's';
    return std::to_string(count) + " " + noun + (count == 1 ? "" : sibilant ? "es" : "s");
}

}  // namespace cli
