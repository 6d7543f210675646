// Section files as text: the syntax, a parsed file, and the text of a file
// with sections changed.  Internal to the platform and the bandwidth
// libraries, which both link it in; nothing here is exported.
//
// Syntax, line by line (a line ends at '\n'; the last one may lack it):
//   "[NAME]"     header: '[' first, ']' last, NAME holds no ']', '\n' or NUL.
//                Any other line beginning with '[' is an unknown line.
//   "#..", ";.." comment.
//   ""           blank line.
//   "KEY=VALUE"  pair: KEY is the non-empty text before the first '=', VALUE
//                the rest of the line without its newline.
//   anything else is an unknown line: readers ignore it, writers keep it.
// Only '\n' ends a line: a '\r' is an ordinary character.  A section runs
// from its header to the next header or the end of the file; lines before the
// first header belong to no section.
#ifndef VESK_SECTION_TEXT_H
#define VESK_SECTION_TEXT_H

#include <stddef.h>

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "vesk_hash.h"

namespace vesk_section {

enum class LineKind { Blank, Comment, Header, Pair, Unknown };

struct Line {
    size_t off;  // offset in the content
    size_t cb;   // length, newline included
    LineKind kind;
};

struct Section {
    std::string_view name;  // view into the content
    size_t header;          // index of the header line
    size_t end;             // one past the section's last line
};

// The name of a header line (with or without its newline); false when the
// line is no header.
bool HeaderName(std::string_view line, std::string_view *pName);

// A name and keys that read back as written: a section name without ']' or
// '\n'; a key that is not empty, holds no '=' or '\n' and does not begin
// with '[', '#' or ';'.
bool IsValidSectionName(const char *szSection);
bool IsValidKey(const char *szKey);

// Appends the header and the pairs of a section; a newline in a value
// becomes a blank, so a value never starts a line of its own.
void AppendSectionText(std::string &out, const char *szSection, const VLIBC_SZHASH *pHash);

// The content of a file and its lines and sections, parsed once and never
// changed: the views point into the content.
class SectionFile {
public:
    explicit SectionFile(std::string content);
    SectionFile(const SectionFile &) = delete;
    SectionFile &operator=(const SectionFile &) = delete;

    const std::string &Content() const { return content_; }
    const std::vector<Line> &Lines() const { return lines_; }
    const std::vector<Section> &Sections() const { return sections_; }
    // Sections in file order, each name once, where it first appears.
    const std::vector<const Section *> &Distinct() const { return distinct_; }
    // The first section of that name, or nullptr.
    const Section *Find(std::string_view name) const;
    // The bytes of a section, from its header to its end.
    std::string_view Text(const Section &section) const;
    bool EndsWithNewline() const { return !content_.empty() && content_.back() == '\n'; }

    // Sets the pairs of the section into the hash (allocated when *ppHash is
    // nullptr): 0, or -1 when the hash fails (its error code left).
    int FillHash(const Section &section, VLIBC_SZHASH **ppHash) const;

    // The content with every section whose name `touched` selects replaced by
    // `replacement` (a header and its pairs) or, when it is empty, removed.
    // The comment lines inside such a section stay, after its new pairs;
    // every other byte outside it stays as it is.
    std::string Rewritten(const std::function<bool(std::string_view)> &touched, const std::string &replacement) const;

private:
    std::string_view Body(const Line &line) const;

    const std::string content_;
    std::vector<Line> lines_;
    std::vector<Section> sections_;
    std::vector<const Section *> distinct_;
    std::unordered_map<std::string_view, const Section *> first_;
};

}  // namespace vesk_section

#endif
