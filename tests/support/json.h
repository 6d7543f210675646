// A small strict JSON reader for the tests: strings (and true, false, null)
// keep their text, numbers their value.
#ifndef VBW_JSON_H
#define VBW_JSON_H

#include <map>
#include <string>
#include <vector>

namespace vbw {

struct Json {
    std::string text;
    double number = 0;
    std::vector<Json> items;
    std::map<std::string, Json> fields;

    const Json &operator[](const std::string &key) const;  // an empty value when absent
    const Json &operator[](size_t i) const { return items.at(i); }
};

// The value of a whole document; false when the text is not valid JSON.
bool ReadJson(const std::string &text, Json *value);

}  // namespace vbw

#endif
