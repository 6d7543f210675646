// Argument parsing and the parsers of numbers, rates and sizes.
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cli.h"

namespace cli {
namespace {

const OptionDesc *FindOption(std::initializer_list<OptionDesc> descs, const std::string &name)
{
    for (const OptionDesc &desc : descs) {
        if (name == desc.name) {
            return &desc;
        }
    }
    return nullptr;
}

bool AllDigits(const std::string &text)
{
    if (text.empty()) {
        return false;
    }
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

}  // namespace

Args::Args(int argc, char **argv, std::initializer_list<OptionDesc> descs)
{
    bool optionsEnd = false;
    for (int i = 0; i < argc; ++i) {
        std::string arg = argv[i];
        if (optionsEnd || arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
            positional_.push_back(arg);  // "-" (standard input or output) is positional
            continue;
        }
        if (arg == "--") {
            optionsEnd = true;
            continue;
        }
        std::string name = arg.substr(2);
        std::string value;
        bool inlineValue = false;
        size_t eq = name.find('=');
        if (eq != std::string::npos) {
            value = name.substr(eq + 1);
            name.resize(eq);
            inlineValue = true;
        }
        const OptionDesc *desc = FindOption(descs, name);
        if (desc == nullptr) {
            throw UsageError("unknown option --" + name);
        }
        if (desc->takesValue && !inlineValue) {
            if (i + 1 >= argc) {
                throw UsageError("option --" + name + " needs a value");
            }
            value = argv[++i];
        } else if (!desc->takesValue && inlineValue) {
            throw UsageError("option --" + name + " takes no value");
        }
        if (values_.count(name) != 0) {
            throw UsageError("option --" + name + " given twice");
        }
        values_[name] = value;
    }
}

std::string Args::Get(const std::string &name) const
{
    auto it = values_.find(name);
    return it == values_.end() ? std::string() : it->second;
}

void Args::ExpectPositional(size_t count, const char *what) const
{
    if (positional_.size() < count) {
        throw UsageError(std::string("missing ") + what);
    }
    if (positional_.size() > count) {
        throw UsageError("unexpected argument '" + positional_[count] + "'");
    }
}

uint64_t ParseUnsigned(const std::string &text, const char *what)
{
    if (!AllDigits(text)) {
        throw UsageError(std::string(what) + " must be a whole number, not '" + text + "'");
    }
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE) {
        throw UsageError(std::string(what) + " '" + text + "' is too large");
    }
    return value;
}

uint64_t ParseRateKBps(const std::string &text, const char *what)
{
    if (text == "unlimited") {
        return 0;
    }
    uint64_t rate = ParseUnsigned(text, what);
    // The library multiplies rates by 1024; keep that product in range.
    if (rate > (UINT64_MAX >> 11)) {
        throw UsageError(std::string(what) + " '" + text + "' is too large");
    }
    return rate;
}

uint64_t ParseSizeBytes(const std::string &text)
{
    static const char kUnits[] = "KMGT";
    std::string digits = text;
    int shift = 0;
    if (!digits.empty()) {
        const char *unit = std::strchr(kUnits, std::toupper(static_cast<unsigned char>(digits.back())));
        if (unit != nullptr && *unit != '\0') {
            shift = 10 * static_cast<int>(unit - kUnits + 1);
            digits.pop_back();
        }
    }
    if (!AllDigits(digits)) {
        throw UsageError("size must be a number of bytes with an optional K, M, G or T, not '" + text + "'");
    }
    uint64_t value = ParseUnsigned(digits, "size");
    if (value > (UINT64_MAX >> (shift + 1))) {
        throw UsageError("size '" + text + "' is too large");
    }
    return value << shift;
}

int ParseSeconds(const std::string &text, int minimum, int maximum)
{
    uint64_t seconds = ParseUnsigned(text, "seconds");
    if (seconds < static_cast<uint64_t>(minimum) || seconds > static_cast<uint64_t>(maximum)) {
        throw UsageError("seconds must lie between " + std::to_string(minimum) + " and " +
                         std::to_string(maximum) + ", not " + text);
    }
    return static_cast<int>(seconds);
}

}  // namespace cli
