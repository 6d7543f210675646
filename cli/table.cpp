// Tables, JSON and the number formats of the tool's output.
#include "table.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace cli {

void Table::Print(std::ostream &out) const
{
    std::vector<size_t> widths;
    for (const Column &column : columns_) {
        widths.push_back(column.title.size());
    }
    for (const auto &row : rows_) {
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    auto printRow = [&](auto cellAt) {
        std::string line;
        for (size_t i = 0; i < columns_.size(); ++i) {
            std::string cell = cellAt(i);
            std::string pad(widths[i] - std::min(widths[i], cell.size()), ' ');
            bool last = i + 1 == columns_.size();
            line += columns_[i].alignRight ? pad + cell : (last ? cell : cell + pad);
            line += last ? "" : "  ";
        }
        out << line << '\n';
    };
    printRow([&](size_t i) { return columns_[i].title; });
    for (const auto &row : rows_) {
        printRow([&](size_t i) { return i < row.size() ? row[i] : std::string(); });
    }
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

namespace {

// Length of the valid UTF-8 sequence at text[i], or 0 when it is not one.
size_t Utf8SequenceLength(const std::string &text, size_t i)
{
    unsigned char lead = static_cast<unsigned char>(text[i]);
    size_t length = lead < 0x80 ? 1 : lead >= 0xC2 && lead < 0xE0 ? 2 : lead >= 0xE0 && lead < 0xF0 ? 3
                                  : lead >= 0xF0 && lead < 0xF5 ? 4 : 0;
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

}  // namespace

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
        } else if (c < 0x20) {
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

std::string KBps(uint64_t bytesPerSecond)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytesPerSecond) / 1024.0);
    return text;
}

std::string LimitKBps(uint64_t bytesPerSecond)
{
    return bytesPerSecond == 0 ? "unlimited" : KBps(bytesPerSecond);
}

std::string RateText(uint64_t kbps)
{
    return kbps == 0 ? "unlimited" : std::to_string(kbps);
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
        std::snprintf(text, sizeof text, "%u:%02u", static_cast<unsigned>(total / 60), static_cast<unsigned>(total % 60));
    }
    return text;
}

}  // namespace cli
