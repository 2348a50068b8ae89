#include <gtest/gtest.h>

#include "FolderUtilities.h"

using sync::core::FolderUtilities;

namespace {

TEST(FolderUtilitiesTest, TruncatedListKeepsTheFirstEntriesAndCountsTheRest) {
    const QStringList three = {"a", "b", "c"};
    EXPECT_EQ(FolderUtilities::GetTruncatedList(three, 3), three);
    EXPECT_EQ(FolderUtilities::GetTruncatedList(three, 2),
              (QStringList{"a", "b", "... and 1 more"}));
}

TEST(FolderUtilitiesTest, ParentFolderPath) {
    const struct {
        const char* path;
        const char* parent;
    } cases[] = {
        {"/home/u/docs/a.txt", "/home/u/docs"},
        {"/home/u/docs/", "/home/u"},
        {"/a", "/"},
        {"a.txt", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(FolderUtilities::GetParentFolderPath(c.path), QString(c.parent)) << c.path;
}

TEST(FolderUtilitiesTest, IsParentMeansAnyAncestor) {
    const struct {
        const char* candidate;
        const char* folder;
        Qt::CaseSensitivity cs;
        bool parent;
    } cases[] = {
        {"/a/b", "/a", Qt::CaseSensitive, true},       {"/a/b/c/d", "/a", Qt::CaseSensitive, true},
        {"/a/b", "/", Qt::CaseSensitive, true},        {"/a/b", "/a/", Qt::CaseSensitive, true},
        {"/a", "/a", Qt::CaseSensitive, false},        {"/ab", "/a", Qt::CaseSensitive, false},
        {"/A/b", "/a", Qt::CaseSensitive, false},      {"/A/b", "/a", Qt::CaseInsensitive, true},
        {"/a/../b/c", "/a", Qt::CaseSensitive, false}, {"a/b", "", Qt::CaseSensitive, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(FolderUtilities::IsParent(c.candidate, c.folder, c.cs), c.parent)
            << c.candidate << " under " << c.folder << " cs=" << c.cs;
}

}  // namespace
