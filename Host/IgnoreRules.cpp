#include "IgnoreRules.h"

#include <cstring>

namespace sync {
namespace host {

struct IgnoreRules::Segment {
    enum Kind : unsigned char { Literal, AnyChar, Star, Class };
    struct Token {
        Kind kind;
        char32_t ch;  // Literal only
        int klass;    // Class only: index into classes
    };
    struct CharClass {
        bool negated = false;
        std::vector<std::pair<char32_t, char32_t>> ranges;
    };
    bool anyFolders = false;  // a whole "**" segment
    std::vector<Token> tokens;
    std::vector<CharClass> classes;
    int minLength = 0;  // characters a match needs at least: a quick reject
};

IgnoreRules::IgnoreRules() = default;
IgnoreRules::~IgnoreRules() = default;
IgnoreRules::IgnoreRules(const IgnoreRules&) = default;
IgnoreRules::IgnoreRules(IgnoreRules&&) noexcept = default;
IgnoreRules& IgnoreRules::operator=(const IgnoreRules&) = default;
IgnoreRules& IgnoreRules::operator=(IgnoreRules&&) noexcept = default;

namespace {

using Segment = IgnoreRules::Segment;

// Code points, not UTF-16 units: "?" must match one character even outside the BMP.
std::u32string ToCodePoints(QStringView text, qsizetype from = 0, qsizetype to = -1) {
    if (to < 0) to = text.size();
    std::u32string out;
    out.reserve(static_cast<size_t>(to - from));
    for (qsizetype i = from; i < to; ++i) {
        const QChar c = text.at(i);
        if (c.isHighSurrogate() && i + 1 < to && text.at(i + 1).isLowSurrogate()) {
            out.push_back(static_cast<char32_t>(QChar::surrogateToUcs4(c, text.at(i + 1))));
            ++i;
        } else {
            out.push_back(c.unicode());
        }
    }
    return out;
}

std::vector<std::u32string> SplitPath(QStringView path) {
    std::vector<std::u32string> segments;
    qsizetype start = 0;
    while (start <= path.size()) {
        qsizetype end = path.indexOf(QLatin1Char('/'), start);
        if (end < 0) end = path.size();
        if (end > start) segments.push_back(ToCodePoints(path, start, end));
        start = end + 1;
    }
    return segments;
}

// Parses "[...]" starting at text[open]; returns the index after "]", or 0 when the class is
// not closed (the "[" is then a plain character).
size_t ParseClass(const std::u32string& text, size_t open, Segment::CharClass& klass) {
    size_t i = open + 1;
    if (i < text.size() && (text[i] == U'!' || text[i] == U'^')) {
        klass.negated = true;
        ++i;
    }
    bool first = true;
    while (i < text.size()) {
        char32_t low = text[i];
        if (low == U']' && !first) return i + 1;
        first = false;
        if (low == U'\\' && i + 1 < text.size()) low = text[++i];
        ++i;
        char32_t high = low;
        if (i + 1 < text.size() && text[i] == U'-' && text[i + 1] != U']') {
            i += 1;
            high = text[i];
            if (high == U'\\' && i + 1 < text.size()) high = text[++i];
            ++i;
        }
        klass.ranges.emplace_back(low, high);
    }
    return 0;
}

Segment CompileSegment(const std::u32string& text) {
    Segment segment;
    if (text == U"**") {
        segment.anyFolders = true;
        return segment;
    }
    // Once a "[" finds no "]", no later one will: they are all plain characters, which keeps
    // a line of many "[" from being scanned once per "[".
    bool classesOpen = true;
    for (size_t i = 0; i < text.size();) {
        const char32_t c = text[i];
        if (c == U'\\' && i + 1 < text.size()) {
            segment.tokens.push_back({Segment::Literal, text[i + 1], -1});
            i += 2;
        } else if (c == U'*') {
            // Runs of stars are one star: it keeps the matcher's work proportional.
            if (segment.tokens.empty() || segment.tokens.back().kind != Segment::Star)
                segment.tokens.push_back({Segment::Star, 0, -1});
            ++i;
        } else if (c == U'?') {
            segment.tokens.push_back({Segment::AnyChar, 0, -1});
            ++i;
        } else if (c == U'[' && classesOpen) {
            Segment::CharClass klass;
            const size_t next = ParseClass(text, i, klass);
            if (next == 0) {
                classesOpen = false;
                segment.tokens.push_back({Segment::Literal, c, -1});
                ++i;
            } else {
                segment.classes.push_back(std::move(klass));
                segment.tokens.push_back(
                    {Segment::Class, 0, static_cast<int>(segment.classes.size()) - 1});
                i = next;
            }
        } else {
            segment.tokens.push_back({Segment::Literal, c, -1});
            ++i;
        }
    }
    for (const auto& token : segment.tokens)
        if (token.kind != Segment::Star) ++segment.minLength;
    return segment;
}

bool MatchesOne(const Segment& segment, const Segment::Token& token, char32_t c) {
    switch (token.kind) {
        case Segment::Literal:
            return token.ch == c;
        case Segment::AnyChar:
            return true;
        case Segment::Class: {
            const auto& klass = segment.classes[static_cast<size_t>(token.klass)];
            bool in = false;
            for (const auto& range : klass.ranges)
                if (c >= range.first && c <= range.second) {
                    in = true;
                    break;
                }
            return in != klass.negated;
        }
        case Segment::Star:
            break;
    }
    return false;
}

// Every token but a star takes exactly one character, so on a mismatch only the latest star
// needs to take one more: O(name x pattern) at worst, with no backtracking beyond it.
bool MatchSegment(const Segment& segment, const std::u32string& name) {
    if (static_cast<int>(name.size()) < segment.minLength) return false;
    const auto& tokens = segment.tokens;
    const size_t none = static_cast<size_t>(-1);
    size_t t = 0, n = 0, starToken = none, starName = 0;
    while (n < name.size()) {
        if (t < tokens.size() && tokens[t].kind == Segment::Star) {
            starToken = t++;
            starName = n;
        } else if (t < tokens.size() && MatchesOne(segment, tokens[t], name[n])) {
            ++t;
            ++n;
        } else if (starToken != none) {
            t = starToken + 1;
            n = ++starName;
        } else {
            return false;
        }
    }
    while (t < tokens.size() && tokens[t].kind == Segment::Star) ++t;
    return t == tokens.size();
}

// The same scheme one level up: "**" is the star, every other segment takes one folder.
bool MatchPath(const std::vector<Segment>& pattern, const std::vector<std::u32string>& path,
               size_t count) {
    const size_t none = static_cast<size_t>(-1);
    size_t p = 0, s = 0, starPattern = none, starPath = 0;
    while (s < count) {
        if (p < pattern.size() && pattern[p].anyFolders) {
            starPattern = p++;
            starPath = s;
        } else if (p < pattern.size() && MatchSegment(pattern[p], path[s])) {
            ++p;
            ++s;
        } else if (starPattern != none) {
            p = starPattern + 1;
            s = ++starPath;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p].anyFolders) ++p;
    return p == pattern.size();
}

// Only what any match needs: a character of the BMP outside the surrogates is one UTF-16
// unit, and a name has at least as many units as characters.
IgnoreRules::Quick QuickOf(const Segment& last) {
    IgnoreRules::Quick quick;
    if (last.anyFolders || last.tokens.empty()) return quick;
    quick.anyName = false;
    quick.minUnits = last.minLength;
    const auto single = [](const Segment::Token& token) -> char16_t {
        const bool plain = token.kind == Segment::Literal && token.ch > 0 && token.ch < 0x10000 &&
                           !QChar::isSurrogate(token.ch);
        return plain ? static_cast<char16_t>(token.ch) : 0;
    };
    quick.first = single(last.tokens.front());
    quick.last = single(last.tokens.back());
    return quick;
}

}  // namespace

IgnoreRules IgnoreRules::Parse(const QByteArray& content) {
    IgnoreRules rules;
    const char* data = content.constData();
    qsizetype size = content.size();
    if (size > MaxFileSize) {
        // Only whole lines: half a pattern could exclude (or re-include) what nobody wrote.
        rules._truncated = true;
        size = MaxFileSize;
        while (size > 0 && data[size - 1] != '\n') --size;
    }
    qsizetype start = 0;
    if (size >= 3 && std::memcmp(data, "\xEF\xBB\xBF", 3) == 0) start = 3;
    while (start < size) {
        const void* newline = std::memchr(data + start, '\n', static_cast<size_t>(size - start));
        const qsizetype end = newline ? static_cast<const char*>(newline) - data : size;
        rules._AddLine(data + start, static_cast<int>(end - start));
        start = end + 1;
    }
    return rules;
}

void IgnoreRules::_AddLine(const char* data, int size) {
    if (size > 0 && data[size - 1] == '\r') --size;
    if (size == 0 || data[0] == '#') return;
    if (size > MaxPatternLength) {
        ++_skippedLongLines;
        return;
    }
    std::u32string text = ToCodePoints(QString::fromUtf8(data, size));
    // A trailing space stays when a backslash escapes it.
    while (!text.empty() && text.back() == U' ') {
        size_t slashes = 0;
        while (slashes + 1 < text.size() && text[text.size() - 2 - slashes] == U'\\') ++slashes;
        if (slashes % 2 == 1) break;
        text.pop_back();
    }
    if (text.empty()) return;

    Rule rule;
    size_t from = 0;
    if (text[0] == U'!') {
        rule.negated = true;
        from = 1;
    }
    // Split at every "/" (an escaped one too: no name holds a "/"); the other escapes stay
    // for CompileSegment.
    std::vector<std::u32string> raw(1);
    for (size_t i = from; i < text.size(); ++i) {
        if (text[i] == U'\\' && i + 1 < text.size() && text[i + 1] == U'/') {
            raw.emplace_back();
            ++i;
        } else if (text[i] == U'\\' && i + 1 < text.size()) {
            raw.back().push_back(text[i]);
            raw.back().push_back(text[++i]);
        } else if (text[i] == U'/') {
            raw.emplace_back();
        } else {
            raw.back().push_back(text[i]);
        }
    }
    const bool leadingSlash = raw.size() > 1 && raw.front().empty();
    rule.foldersOnly = raw.size() > 1 && raw.back().empty();
    std::vector<std::u32string> parts;
    for (auto& part : raw)
        if (!part.empty()) parts.push_back(std::move(part));
    if (parts.empty()) return;

    if (!leadingSlash && parts.size() == 1) rule.segments.push_back(CompileSegment(U"**"));
    for (const auto& part : parts) rule.segments.push_back(CompileSegment(part));
    // "x/**" is everything inside x, not x itself: at least one more name.
    if (parts.size() > 1 && rule.segments.back().anyFolders)
        rule.segments.insert(rule.segments.end() - 1, CompileSegment(U"*"));
    _quick.push_back(QuickOf(rule.segments.back()));
    _quick.back().foldersOnly = rule.foldersOnly;
    _rules.push_back(std::move(rule));
}

bool IgnoreRules::IsExcluded(QStringView path, bool isFolder) const {
    if (_rules.empty()) return false;
    // A rule can only decide about a path whose last name it may match, so a path none of
    // whose names any rule may match is not excluded, without converting or matching it.
    bool mayMatch = false;
    for (qsizetype start = 0; start < path.size() && !mayMatch;) {
        qsizetype end = path.indexOf(QLatin1Char('/'), start);
        if (end < 0) end = path.size();
        if (end > start)
            mayMatch = _MayMatch(path.mid(start, end - start), end < path.size() || isFolder);
        start = end + 1;
    }
    if (!mayMatch) return false;
    const std::vector<std::u32string> segments = SplitPath(path);
    // Each folder on the way is judged first: nothing re-includes an entry of an excluded one.
    for (size_t count = 1; count <= segments.size(); ++count) {
        const bool folder = count < segments.size() || isFolder;
        if (_Decide(segments, count, folder)) return true;
    }
    return false;
}

bool IgnoreRules::_MayMatch(QStringView name, bool isFolder) const {
    for (const Quick& quick : _quick)
        if (quick.Admits(name, isFolder)) return true;
    return false;
}

bool IgnoreRules::_Decide(const std::vector<std::u32string>& segments, size_t count,
                          bool isFolder) const {
    for (auto rule = _rules.rbegin(); rule != _rules.rend(); ++rule) {
        if (rule->foldersOnly && !isFolder) continue;
        if (MatchPath(rule->segments, segments, count)) return !rule->negated;
    }
    return false;
}

}  // namespace host
}  // namespace sync
