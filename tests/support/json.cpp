// A recursive-descent reader of the JSON the tool writes.
#include "json.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace vbw {
namespace {

class JsonReader {
public:
    explicit JsonReader(const std::string &text) : s_(text) {}
    bool Read(Json *out) { return Value(out) && Skip() == s_.size(); }

private:
    size_t Skip() { return i_ = std::min(s_.find_first_not_of(" \t\r\n", i_), s_.size()); }
    bool Eat(char c) { return Skip() < s_.size() && s_[i_] == c && ++i_ > 0; }
    bool String(std::string *out)
    {
        static const char from[] = "\"\\/bfnrtu", to[] = "\"\\/\b\f\n\r\t";
        bool ok = Eat('"');
        while (ok && i_ < s_.size() && s_[i_] != '"') {
            char c = s_[i_++];
            const char *escape = c == '\\' && i_ < s_.size() ? std::strchr(from, s_[i_++]) : nullptr;
            ok = static_cast<unsigned char>(c) >= 0x20 && (c != '\\' || (escape != nullptr && *escape != '\0'));
            if (ok && escape != nullptr && *escape == 'u') {  // the tool writes \u00XX for control characters
                ok = i_ + 4 <= s_.size();
                c = ok ? static_cast<char>(std::stoul(s_.substr(i_, 4), nullptr, 16)) : c;
                i_ += 4;
            } else if (escape != nullptr) {
                c = to[escape - from];
            }
            *out += c;
        }
        return ok && i_++ < s_.size();
    }
    template <typename Item>
    bool Sequence(char close, Item item)
    {
        if (Eat(close)) {
            return true;
        }
        do {
            if (!item()) {
                return false;
            }
        } while (Eat(','));
        return Eat(close);
    }
    bool Value(Json *out)
    {
        if (Eat('{')) {
            return Sequence('}', [&] {
                std::string key;
                return String(&key) && Eat(':') && Value(&out->fields[key]);
            });
        }
        if (Eat('[')) {
            return Sequence(']', [&] { return out->items.emplace_back(), Value(&out->items.back()); });
        }
        if (Skip() < s_.size() && s_[i_] == '"') {
            return String(&out->text);
        }
        for (const char *word : {"true", "false", "null"}) {
            if (s_.compare(i_, std::strlen(word), word) == 0) {
                out->text = word;
                i_ += std::strlen(word);
                return true;
            }
        }
        char *end = nullptr;
        out->number = std::strtod(s_.c_str() + i_, &end);
        size_t start = i_;
        i_ = static_cast<size_t>(end - s_.c_str());
        return i_ != start;
    }

    const std::string &s_;
    size_t i_ = 0;
};

}  // namespace

const Json &Json::operator[](const std::string &key) const
{
    static const Json missing;
    auto it = fields.find(key);
    return it == fields.end() ? missing : it->second;
}

bool ReadJson(const std::string &text, Json *value)
{
    return JsonReader(text).Read(value);
}

}  // namespace vbw
