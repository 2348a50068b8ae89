#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>

#include "IgnoreRules.h"

using sync::host::IgnoreRules;

namespace {

struct Row {
    const char* patterns;
    const char* path;
    bool isFolder;
    bool excluded;
};

const bool F = true;   // folder
const bool f = false;  // file

}  // namespace

TEST(IgnoreRules, Patterns) {
    const Row rows[] = {
        // Lines, comments, escapes, spaces.
        {"# a.txt\n\n   \n", "a.txt", f, false},
        {"\\#a.txt", "#a.txt", f, true},
        {"a.txt", "sub/deep/a.txt", f, true},
        {"a.txt", "xa.txt", f, false},
        {"a.txt   ", "a.txt", f, true},
        {"a\\ ", "a ", f, true},
        {"a\\\\ ", "a\\", f, true},  // an escaped backslash does not escape the space
        {"a.txt\r\n", "a.txt", f, true},
        {"\xEF\xBB\xBF*.log", "x.log", f, true},
        {"\\!a", "!a", f, true},
        {"*.TXT", "a.txt", f, false},
        {"a\\*", "ab", f, false},
        {"/", "a", f, false},
        // The last match decides; nothing inside an excluded folder comes back, but the
        // content of a folder that is itself kept can.
        {"*.log\n!keep.log", "keep.log", f, false},
        {"*.log\n!keep.log", "x.log", f, true},
        {"!keep.log\n*.log", "keep.log", f, true},
        {"build/\n!build/keep.txt", "build/keep.txt", f, true},
        {"build\n!keep.txt", "build/keep.txt", f, true},
        {"build/*\n!build/keep.txt", "build/keep.txt", f, false},
        {"build/*\n!build/keep.txt", "build", F, false},
        // Folders only, anchoring.
        {"build/", "build", F, true},
        {"build/", "build", f, false},
        {"build/", "src/build/deep/x.o", f, true},
        {"/a.txt", "a.txt", f, true},
        {"/a.txt", "sub/a.txt", f, false},
        {"doc/a.txt", "/doc/a.txt", f, true},
        {"doc/a.txt", "x/doc/a.txt", f, false},
        {"doc/*.txt", "doc/sub/a.txt", f, false},  // "*" stops at "/"
        {"doc\\/a", "x/doc/a", f, false},          // an escaped "/" still separates
        {"a/b", "a/b/c", f, true},
        // Wildcards and classes.
        {"a*b", "ab", f, true},
        {"a*b", "axxbc", f, false},
        {"a**b", "ax/yb", f, false},  // not a whole segment: an ordinary star
        {"?.txt", "ab.txt", f, false},
        {"?.txt", ".txt", f, false},
        {"?.txt", "\xF0\x9F\x98\x80.txt", f, true},  // one character outside the BMP
        {"[a-c].txt", "c.txt", f, true},
        {"[a-c].txt", "d.txt", f, false},
        {"[!a-c].txt", "a.txt", f, false},
        {"[^a-c].txt", "d.txt", f, true},
        {"[]].txt", "].txt", f, true},
        {"[a-].txt", "-.txt", f, true},
        {"[\\]]", "]", f, true},
        {"[abc", "[abc", f, true},  // unclosed: taken literally
        {"[abc", "a", f, false},
        // "**" as a whole segment.
        {"**/foo", "a/b/foo", f, true},
        {"**/foo/bar", "foo/x/bar", f, false},
        {"a/**/b", "a/b", f, true},
        {"a/**/b", "a/x/y/b", f, true},
        {"a/**/b", "x/a/b", f, false},
        {"a/**", "a", F, false},  // everything inside, not the folder itself
        {"a/**", "a/x/y", f, true},
        {"a/**/", "a/x", f, false},
        {"a/**/**/b", "a/b", f, true},
        // Names tried on their first and last characters before any matching: characters
        // outside the BMP, lengths in characters, a folder on the way.
        {"\xF0\x9F\x98\x80*", "\xF0\x9F\x98\x80x", f, true},
        {"*\xF0\x9F\x98\x80", "x\xF0\x9F\x98\x80", f, true},
        {"??", "a\xF0\x9F\x98\x80", f, true},
        {"???", "a\xF0\x9F\x98\x80", f, false},
        {"x*", "sub/xy/a.txt", f, true},
        {"x*/", "sub/xy/a.txt", f, true},
        {"*.o\n!x*", "sub/xy/a.o", f, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << "patterns \"" << row.patterns << "\", path \""
                                        << row.path << "\"" << (row.isFolder ? " (folder)" : ""));
        const IgnoreRules rules = IgnoreRules::Parse(QByteArray(row.patterns));
        EXPECT_EQ(rules.IsExcluded(QString::fromUtf8(row.path), row.isFolder), row.excluded);
    }
}

// Content from a user's file: nothing in it may crash the parser or stall the matcher.
TEST(IgnoreRules, HostileContent) {
    const QByteArray withNul("a\0b\n*.txt\n", 10);
    const IgnoreRules nul = IgnoreRules::Parse(withNul);
    EXPECT_TRUE(nul.IsExcluded(QStringLiteral("x.txt"), false));
    EXPECT_FALSE(nul.IsExcluded(QStringLiteral("a"), false));

    const IgnoreRules invalid = IgnoreRules::Parse(QByteArray("\xff\xfe*\n\xc3\n*.log\n"));
    EXPECT_TRUE(invalid.IsExcluded(QStringLiteral("x.log"), false));
    EXPECT_FALSE(invalid.IsExcluded(QStringLiteral("x.txt"), false));

    const QByteArray longLine = QByteArray(100000, 'a') + "\n*.tmp\n";
    const IgnoreRules longRules = IgnoreRules::Parse(longLine);
    EXPECT_EQ(longRules.SkippedLongLines(), 1);
    EXPECT_TRUE(longRules.IsExcluded(QStringLiteral("x.tmp"), false));

    const QByteArray brackets = QByteArray(4000, '[') + "\n" + QByteArray(4000, '\\');
    const IgnoreRules bracketRules = IgnoreRules::Parse(brackets);
    EXPECT_FALSE(bracketRules.IsExcluded(QStringLiteral("a"), false));
    EXPECT_TRUE(bracketRules.IsExcluded(QString(4000, QLatin1Char('[')), false));
}

// These only have to return: an exponential matcher would not within the test's lifetime.
TEST(IgnoreRules, PathologicalPatternsStayPolynomial) {
    const IgnoreRules stars = IgnoreRules::Parse("*a*a*a*a*a*a*a*a*a*a*a*b");
    EXPECT_FALSE(stars.IsExcluded(QString(20000, QLatin1Char('a')), false));

    QString deep;
    for (int i = 0; i < 1000; ++i) deep += QStringLiteral("a/");
    deep += QStringLiteral("c");
    const IgnoreRules folders = IgnoreRules::Parse("**/a/**/a/**/a/**/a/**/a/**/b");
    EXPECT_FALSE(folders.IsExcluded(deep, false));
    const IgnoreRules matching = IgnoreRules::Parse("**/a/**/a/**/a/**/a/**/a/**/c");
    EXPECT_TRUE(matching.IsExcluded(deep, false));
}

TEST(IgnoreRules, LargeFileKeepsOnlyWholeLinesWithinTheCap) {
    // A comment fills the cap so that the last pattern straddles it.
    QByteArray content("*.log\n");
    content += '#';
    content += QByteArray(IgnoreRules::MaxFileSize - content.size() - 5, 'x');
    content += "\n*.l";  // cut here: "*.l" alone must not become a rule
    content += "og\n!keep.log\n";
    ASSERT_GT(content.size(), IgnoreRules::MaxFileSize);

    const IgnoreRules rules = IgnoreRules::Parse(content);
    EXPECT_TRUE(rules.Truncated());
    EXPECT_EQ(rules.RuleCount(), 1);
    EXPECT_TRUE(rules.IsExcluded(QStringLiteral("keep.log"), false));
    EXPECT_FALSE(rules.IsExcluded(QStringLiteral("x.l"), false));
}
