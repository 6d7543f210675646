// Section files as text.
#include "section_text.h"

#include <string.h>

#include <utility>

namespace vesk_section {
namespace {

// The line without its newline.
std::string_view WithoutNewline(std::string_view line)
{
    if (!line.empty() && line.back() == '\n') {
        line.remove_suffix(1);
    }
    return line;
}

LineKind Classify(std::string_view body)
{
    std::string_view name;
    if (body.empty()) {
        return LineKind::Blank;
    }
    if (body.front() == '#' || body.front() == ';') {
        return LineKind::Comment;
    }
    if (body.front() == '[') {
        return HeaderName(body, &name) ? LineKind::Header : LineKind::Unknown;
    }
    size_t eq = body.find('=');
    return eq != std::string_view::npos && eq > 0 ? LineKind::Pair : LineKind::Unknown;
}

}  // namespace

bool HeaderName(std::string_view line, std::string_view *pName)
{
    std::string_view body = WithoutNewline(line);
    if (body.size() < 2 || body.front() != '[' || body.back() != ']') {
        return false;
    }
    // A name with a NUL byte could never be asked for: such a line is no header.
    std::string_view name = body.substr(1, body.size() - 2);
    if (name.find_first_of(std::string_view("]\n\0", 3)) != std::string_view::npos) {
        return false;
    }
    *pName = name;
    return true;
}

bool IsValidSectionName(const char *szSection)
{
    return strpbrk(szSection, "]\n") == nullptr;
}

bool IsValidKey(const char *szKey)
{
    return szKey[0] != '\0' && strchr("[#;", szKey[0]) == nullptr && strpbrk(szKey, "=\n") == nullptr;
}

void AppendSectionText(std::string &out, const char *szSection, const VLIBC_SZHASH *pHash)
{
    out.append("[").append(szSection).append("]\n");
    int count = VLIBCSzHashCount(pHash);
    for (int i = 0; i < count; ++i) {
        out.append(VLIBCSzHashKeyAt(pHash, i)).append("=");
        size_t start = out.size();
        out.append(VLIBCSzHashValueAt(pHash, i));
        for (size_t j = start; j < out.size(); ++j) {
            if (out[j] == '\n') {
                out[j] = ' ';
            }
        }
        out.append("\n");
    }
}

SectionFile::SectionFile(std::string content) : content_(std::move(content))
{
    for (size_t off = 0; off < content_.size();) {
        size_t nl = content_.find('\n', off);
        size_t cb = (nl == std::string::npos ? content_.size() : nl + 1) - off;
        Line line{off, cb, Classify(WithoutNewline(std::string_view(content_).substr(off, cb)))};
        if (line.kind == LineKind::Header) {
            if (!sections_.empty()) {
                sections_.back().end = lines_.size();
            }
            std::string_view name;
            HeaderName(Body(line), &name);
            sections_.push_back(Section{name, lines_.size(), lines_.size() + 1});
        }
        lines_.push_back(line);
        off += cb;
    }
    if (!sections_.empty()) {
        sections_.back().end = lines_.size();
    }
    for (const Section &section : sections_) {
        if (first_.emplace(section.name, &section).second) {
            distinct_.push_back(&section);
        }
    }
}

const Section *SectionFile::Find(std::string_view name) const
{
    auto found = first_.find(name);
    return found == first_.end() ? nullptr : found->second;
}

std::string_view SectionFile::Text(const Section &section) const
{
    const Line &last = lines_[section.end - 1];
    size_t begin = lines_[section.header].off;
    return std::string_view(content_).substr(begin, last.off + last.cb - begin);
}

std::string_view SectionFile::Body(const Line &line) const
{
    return WithoutNewline(std::string_view(content_).substr(line.off, line.cb));
}

int SectionFile::FillHash(const Section &section, VLIBC_SZHASH **ppHash) const
{
    if (*ppHash == nullptr && (*ppHash = VLIBCSzHashAlloc(0)) == nullptr) {
        return -1;
    }
    for (size_t i = section.header + 1; i < section.end; ++i) {
        if (lines_[i].kind != LineKind::Pair) {
            continue;
        }
        std::string_view body = Body(lines_[i]);
        size_t eq = body.find('=');
        std::string key(body.substr(0, eq));
        std::string value(body.substr(eq + 1));
        if (VLIBCSzHashSetValue(ppHash, key.c_str(), value.c_str()) < 0) {
            return -1;
        }
    }
    return 0;
}

std::string SectionFile::Rewritten(const std::function<bool(std::string_view)> &touched,
                                   const std::string &replacement) const
{
    std::string out;
    out.reserve(content_.size() + replacement.size());
    bool blInTouched = false;
    for (const Line &line : lines_) {
        std::string_view name;
        if (line.kind == LineKind::Header) {
            blInTouched = HeaderName(Body(line), &name) && touched(name);
            if (blInTouched) {
                out.append(replacement);
                continue;
            }
        } else if (blInTouched && line.kind != LineKind::Comment) {
            continue;
        }
        out.append(content_, line.off, line.cb);
    }
    return out;
}

}  // namespace vesk_section
