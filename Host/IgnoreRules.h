#pragma once

#include <QByteArray>
#include <QString>
#include <QStringView>
#include <string>
#include <vector>

namespace sync {
namespace host {

// The patterns of one ignore file, in the manner of git's ignore files:
//   - one pattern a line; blank lines and lines starting with "#" are skipped ("\#" escapes);
//     unescaped trailing spaces are dropped, a trailing "\r" too;
//   - "!" re-includes what an earlier pattern excluded ("\!" escapes); the last pattern that
//     matches decides;
//   - a trailing "/" makes a pattern match folders only;
//   - a "/" at the start or in the middle anchors the pattern to the root; otherwise it
//     matches a name at any depth;
//   - "*" matches anything but "/", "?" one character but "/", "[a-z]", "[!a-z]", "[^a-z]"
//     one character of (or not of) a class; "**" as a whole segment matches zero or more
//     folders ("**/x", "a/**/b"), and at the end everything inside ("x/**");
//   - an entry inside an excluded folder stays excluded whatever a later "!" says: the
//     engine never looks inside an excluded folder.
// Names are compared case-sensitively. The content comes from a user's file and is taken as
// hostile: malformed patterns are taken literally, nothing in it can crash or stall the
// matcher (matching is polynomial in the pattern and path lengths, never exponential).
class IgnoreRules {
public:
    // Only the first MaxFileSize bytes of a file are read, up to the last whole line in them.
    static constexpr int MaxFileSize = 1024 * 1024;
    // A longer line is skipped: no path on the disk is that long, so it can only be noise.
    static constexpr int MaxPatternLength = 4096;

    IgnoreRules();  // no rules: nothing is excluded
    ~IgnoreRules();
    IgnoreRules(const IgnoreRules&);
    IgnoreRules(IgnoreRules&&) noexcept;
    IgnoreRules& operator=(const IgnoreRules&);
    IgnoreRules& operator=(IgnoreRules&&) noexcept;

    // A pure function of the file's bytes, read as UTF-8 (an invalid sequence becomes U+FFFD).
    static IgnoreRules Parse(const QByteArray& content);

    // path: below the root, with or without a leading "/" ("/sub/a.txt", "sub/a.txt").
    bool IsExcluded(QStringView path, bool isFolder) const;

    int RuleCount() const { return static_cast<int>(_rules.size()); }
    // What Parse left out, for the caller to report.
    bool Truncated() const { return _truncated; }
    int SkippedLongLines() const { return _skippedLongLines; }

    // One path segment of a pattern, compiled; only the source file needs to see into it.
    struct Segment;

    // What a name needs for a rule to match it as the last name of a path, checked on the
    // UTF-16 text before anything is converted: most names already fail on their first or last
    // character, and most paths then need no matching at all.
    struct Quick {
        bool anyName = true;  // the rule ends in "**": any name may do
        bool foldersOnly = false;
        char16_t first = 0;  // 0: any
        char16_t last = 0;   // 0: any
        int minUnits = 0;
        bool Admits(QStringView name, bool isFolder) const {
            if (foldersOnly && !isFolder) return false;
            if (anyName) return true;
            if (name.size() < minUnits || name.isEmpty()) return false;
            if (first != 0 && name.front() != QChar(first)) return false;
            return last == 0 || name.back() == QChar(last);
        }
    };

private:
    struct Rule {
        std::vector<Segment> segments;
        bool negated = false;
        bool foldersOnly = false;
    };

    void _AddLine(const char* data, int size);
    // Whether a rule might decide about an entry whose last name is name.
    bool _MayMatch(QStringView name, bool isFolder) const;
    // The verdict of the rules for one entry, ignoring its parent folders.
    bool _Decide(const std::vector<std::u32string>& segments, size_t count, bool isFolder) const;

    std::vector<Rule> _rules;
    // One a rule, side by side: the pass over them for a name stays within a cache line or two.
    std::vector<Quick> _quick;
    bool _truncated = false;
    int _skippedLongLines = 0;
};

}  // namespace host
}  // namespace sync
