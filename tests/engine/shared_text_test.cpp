#include <gtest/gtest.h>

#include <QString>

#include "SharedText.h"

using sync::config::LastComponentOf;

namespace {

// A name taken from its path must live on its own: each string is changed or dropped while
// the other is still read (under ASan a wrong reference count shows as a use after free).
TEST(SharedTextTest, NameOfAPathOutlivesAndIgnoresChangesToEither) {
    const struct {
        QString path;
        QString name;
    } rows[] = {
        {QStringLiteral("/home/u/Docs/Report 3.pdf"), QStringLiteral("Report 3.pdf")},
        {QStringLiteral("/srv/\u00dcn\u00ef c\u00f4de/f"), QStringLiteral("f")},
        {QStringLiteral("plain"), QStringLiteral("plain")},
        {QStringLiteral("/ends/with/"), QString()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path.toStdString());
        QString path(row.path.constData(), row.path.size());  // an allocated, unshared copy
        QString name = LastComponentOf(path);
        EXPECT_EQ(name, row.name);
        EXPECT_EQ(name.utf16()[name.size()], 0);  // ends where the path ends

        path[0] = QLatin1Char('#');
        EXPECT_EQ(name, row.name);
        name.append(QLatin1String(".bak"));
        EXPECT_EQ(path.mid(1), row.path.mid(1));

        QString other(row.path.constData(), row.path.size());
        QString kept = LastComponentOf(other);
        other = QString();
        kept.prepend(QLatin1Char('~'));
        EXPECT_EQ(kept, QLatin1Char('~') + row.name);
    }
}

}  // namespace
