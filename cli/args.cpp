// Argument parsing, suggestions for mistyped words, and the parsers of
// numbers, rates and sizes.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "cli.h"

namespace cli {
namespace {

// The short options of the common long ones.
constexpr std::pair<char, const char *> kShortOptions[] = {{'u', "user"}, {'g', "group"}, {'p', "protocol"}};

const OptionDesc *FindOption(std::initializer_list<OptionDesc> descs, const std::string &name)
{
    for (const OptionDesc &desc : descs) {
        if (name == desc.name) {
            return &desc;
        }
    }
    return nullptr;
}

std::string LongNameOf(char shortName)
{
    for (const auto &option : kShortOptions) {
        if (option.first == shortName) {
            return option.second;
        }
    }
    return "";
}

bool AllDigits(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Edits (insertions, deletions, substitutions, swaps of neighbours) between two words.
size_t EditDistance(const std::string &a, const std::string &b)
{
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

// A number with an optional fraction and unit, in bytes: no unit means
// `defaultUnit` bytes; B is 1; K, KiB, M, MiB, G, GiB, T, TiB are powers of
// 1024 and KB, MB, GB, TB powers of 1000; the case does not matter.
bool ParseAmount(const std::string &text, double defaultUnit, double *bytes)
{
    size_t digits = text.find_first_not_of("0123456789.");
    std::string number = text.substr(0, digits);
    std::string unit = Lower(digits == std::string::npos ? "" : text.substr(digits));
    size_t dot = number.find('.');
    if (number.empty() || !std::isdigit(static_cast<unsigned char>(number[0])) ||
        (dot != std::string::npos && (dot + 1 == number.size() || number.find('.', dot + 1) != std::string::npos))) {
        return false;
    }
    double scale = unit.empty() ? defaultUnit : unit == "b" ? 1 : 0;
    const char kPrefixes[] = "kmgt";
    for (int power = 1; power <= 4 && scale == 0; ++power) {
        char prefix = kPrefixes[power - 1];
        if (unit == std::string(1, prefix) || unit == std::string(1, prefix) + "ib") {
            scale = std::pow(1024.0, power);
        } else if (unit == std::string(1, prefix) + "b") {
            scale = std::pow(1000.0, power);
        }
    }
    *bytes = std::strtod(number.c_str(), nullptr) * scale;
    return scale != 0;
}

}  // namespace

const char kRateHelp[] = "RATE is KiB/s (1 KiB = 1024 bytes) as a plain number, or a number with a unit\n"
                         "as rsync's and rclone's --bwlimit take it: 512K, 1.5M, 10MiB, 2G, 1T are\n"
                         "1024-based, 500KB and 2MB 1000-based, B is bytes; a trailing /s is allowed.\n"
                         "0 or unlimited is no limit in that direction.  Rates are rounded to whole\n"
                         "KiB/s, from 1 KiB/s to 1 TiB/s.\n";

Args::Args(int argc, char **argv, std::initializer_list<OptionDesc> descs)
{
    bool optionsEnd = false;
    for (int i = 0; i < argc; ++i) {
        std::string arg = argv[i];
        if (optionsEnd || arg.size() < 2 || arg[0] != '-') {
            positional_.push_back(arg);  // "-" (standard input or output) is positional
            continue;
        }
        if (arg == "--") {
            optionsEnd = true;
            continue;
        }
        std::string name;
        std::string value;
        bool inlineValue = false;
        std::string spelled = arg;
        if (arg[1] != '-') {  // -u NAME, -uNAME
            name = LongNameOf(arg[1]);
            spelled = arg.substr(0, 2);
            inlineValue = arg.size() > 2;
            value = arg.substr(2);
        } else {
            name = arg.substr(2);
            size_t eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name.resize(eq);
                spelled = "--" + name;
                inlineValue = true;
            }
        }
        const OptionDesc *desc = FindOption(descs, name);
        if (desc == nullptr) {
            std::vector<std::string> known;
            for (const OptionDesc &d : descs) {
                known.push_back(d.name);
            }
            throw UsageError("unknown option " + spelled + DidYouMean(spelled.substr(2), known, "--"));
        }
        if (desc->takesValue && !inlineValue) {
            if (i + 1 >= argc) {
                throw UsageError("option " + spelled + " needs a value");
            }
            value = argv[++i];
        } else if (!desc->takesValue && inlineValue) {
            throw UsageError("option " + spelled + " takes no value");
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

std::string DidYouMean(const std::string &word, const std::vector<std::string> &candidates, const std::string &prefix)
{
    const std::string *best = nullptr;
    size_t bestDistance = std::max<size_t>(1, std::min<size_t>(2, word.size() / 3));
    for (const std::string &candidate : candidates) {
        size_t distance = EditDistance(Lower(word), Lower(candidate));
        bool abbreviation = word.size() >= 2 && candidate.compare(0, word.size(), word) == 0;
        if (distance <= bestDistance || (abbreviation && best == nullptr)) {
            best = &candidate;
            bestDistance = std::min(distance, bestDistance);
        }
    }
    return best == nullptr ? "" : "; did you mean '" + prefix + *best + "'?";
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

uint64_t ParseRateKiB(const std::string &text, const char *what)
{
    std::string amount = text;
    if (amount.size() > 2 && Lower(amount.substr(amount.size() - 2)) == "/s") {
        amount.resize(amount.size() - 2);
    }
    if (Lower(amount) == "unlimited") {
        return 0;
    }
    double bytes = 0;
    if (!ParseAmount(amount, 1024, &bytes)) {
        throw UsageError(std::string(what) + " '" + text +
                         "' is not a rate: give KiB/s (512), a unit (512K, 1.5M, 10MiB, 2G, 500KB) or unlimited");
    }
    double kib = std::round(bytes / 1024);
    if (kib > static_cast<double>(kMaxRateKiB)) {
        throw UsageError(std::string(what) + " '" + text + "' is too large: at most 1T (1 TiB/s)");
    }
    if (kib == 0 && bytes > 0) {
        throw UsageError(std::string(what) + " '" + text + "' is below 1 KiB/s, the smallest limit (0 is no limit)");
    }
    return static_cast<uint64_t>(kib);
}

uint64_t ParseSizeBytes(const std::string &text)
{
    double bytes = 0;
    if (!ParseAmount(text, 1, &bytes)) {
        throw UsageError("size must be a number of bytes with an optional unit (K, M, G, T; KB, MB, GB, TB "
                         "are 1000-based), not '" +
                         text + "'");
    }
    if (bytes >= std::ldexp(1.0, 60)) {
        throw UsageError("size '" + text + "' is too large");
    }
    return static_cast<uint64_t>(std::llround(bytes));
}

int ParseSeconds(const std::string &text, int minimum, int maximum)
{
    uint64_t seconds = ParseUnsigned(text, "seconds");
    if (seconds < static_cast<uint64_t>(minimum) || seconds > static_cast<uint64_t>(maximum)) {
        throw UsageError("seconds must lie between " + std::to_string(minimum) + " and " + std::to_string(maximum) +
                         ", not " + text);
    }
    return static_cast<int>(seconds);
}

}  // namespace cli
