// Output for people (aligned tables) and for scripts (JSON).
#ifndef VBW_CLI_TABLE_H
#define VBW_CLI_TABLE_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace cli {

// A table whose columns are as wide as their widest cell.
class Table {
public:
    struct Column {
        std::string title;
        bool alignRight;
    };
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    bool Empty() const { return rows_.empty(); }
    void Print(std::ostream &out) const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

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

    // A key with its value.
    JsonWriter &Field(const std::string &key, const std::string &value) { return Key(key).String(value); }
    JsonWriter &Field(const std::string &key, uint64_t value) { return Key(key).Number(value); }
    JsonWriter &Field(const std::string &key, int64_t value) { return Key(key).Number(value); }
    JsonWriter &Field(const std::string &key, double value) { return Key(key).Number(value); }

private:
    void Separate();
    std::ostream &out_;
    std::vector<bool> first_;  // per open object or array: nothing written yet
    bool afterKey_ = false;
};

std::string JsonEscape(const std::string &text);

// Speeds in bytes/s as KB/s with one decimal; 0 is "unlimited" for a limit.
std::string KBps(uint64_t bytesPerSecond);
std::string LimitKBps(uint64_t bytesPerSecond);
// Configured rates, already in KB/s.
std::string RateText(uint64_t kbps);
std::string Percent(uint32_t progress);          // 1/10000 units as "42.50%"
std::string Duration(double seconds);            // "1:05", "1:02:03"

}  // namespace cli

#endif
