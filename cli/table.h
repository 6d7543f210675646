// Output for people (aligned tables, a redrawn status line, safe text) and
// for scripts (JSON).
#ifndef VBW_CLI_TABLE_H
#define VBW_CLI_TABLE_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace cli {

// Text as it may reach a terminal: control characters (C0, DEL, C1), bytes
// that are not UTF-8 (or any byte above 0x7F when the locale is not UTF-8)
// and the backslash become visible escapes ("\x1b", "\n", "\\"), so a forged
// file name can neither move the cursor nor clear the screen.
std::string Printable(const std::string &text);
// Columns the (printable) text takes on a terminal: one per character.
size_t DisplayWidth(const std::string &text);
// Printable text cut to `width` columns (0: no limit), its last one marking the cut.
std::string CutToWidth(const std::string &text, size_t width);
// Whether the locale's character set is UTF-8 (set once from the environment).
bool Utf8Locale();
// Columns of the terminal on standard output, from TIOCGWINSZ, else $COLUMNS;
// 0 when standard output is no terminal and $COLUMNS is not set.
size_t TerminalColumns();

// A line redrawn in place on the terminal (a progress bar), cut to its width.
// EndStatusLine() finishes it, so that what follows starts on a line of its
// own; Warn() and the error messages of the tool call it first.
void DrawStatusLine(const std::string &text);
void EndStatusLine();
// "veskbandwidth: warning: ..." on stderr, on a line of its own.
void Warn(const std::string &message);

// A table whose columns are as wide as their widest cell; cells are made
// printable as they are added.
class Table {
public:
    struct Column {
        std::string title;
        bool alignRight;
    };
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    void AddRow(const std::vector<std::string> &cells);
    // Lines longer than `width` columns (0: no limit) are cut to it.
    void Print(std::ostream &out, size_t width = 0) const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

// Prints what one of the library's dump functions writes, each line made
// printable; false (and nothing printed) when the dump failed.
bool PrintDump(std::ostream &out, const std::function<int(FILE *)> &dump);

// Compact JSON, written as it goes: the writer places the commas.
class JsonWriter {
public:
    explicit JsonWriter(std::ostream &out) : out_(out) {}
    JsonWriter &BeginObject();
    JsonWriter &EndObject();
    JsonWriter &BeginArray();
    JsonWriter &EndArray();
    JsonWriter &Key(const std::string &key);
    JsonWriter &String(const std::string &value);
    JsonWriter &Number(uint64_t value);
    JsonWriter &Number(int64_t value);
    JsonWriter &Number(double value);
    JsonWriter &Bool(bool value);
    JsonWriter &Null();

    // A key with its value.
    JsonWriter &Field(const std::string &key, const std::string &value) { return Key(key).String(value); }
    JsonWriter &Field(const std::string &key, uint64_t value) { return Key(key).Number(value); }
    JsonWriter &Field(const std::string &key, int64_t value) { return Key(key).Number(value); }
    JsonWriter &Field(const std::string &key, double value) { return Key(key).Number(value); }
    JsonWriter &Field(const std::string &key, bool value) { return Key(key).Bool(value); }

private:
    void Separate();
    std::ostream &out_;
    std::vector<bool> first_;  // per open object or array: nothing written yet
    bool afterKey_ = false;
};

std::string JsonEscape(const std::string &text);

// A speed in bytes/s with a binary unit ("512 KiB/s", "1.5 MiB/s"); 0 is
// "unlimited" (the library's 0 is no limit).
std::string RateText(double bytesPerSecond);
// A configured rate, stored in KiB/s.
std::string KiBRateText(uint64_t kibPerSecond);
std::string Percent(uint32_t progress);                     // 1/10000 units as "42.50%"
std::string Duration(double seconds);                       // "1:05", "1:02:03"
std::string Plural(size_t count, const std::string &noun);  // "1 process", "2 processes"

}  // namespace cli

#endif
