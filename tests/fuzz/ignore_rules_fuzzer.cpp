// A user's ignore file, parsed and then asked about paths made from its own lines (the
// patterns with their wildcards filled in), so that the matcher meets paths near its rules.
// Besides never crashing or stalling, the answers must keep the rules' promises: nothing
// inside an excluded folder comes back, a leading "/" changes nothing, and a last line that
// names a plain file decides for that file.
#include <QByteArray>
#include <QString>
#include <QStringList>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "IgnoreRules.h"

using sync::host::IgnoreRules;

namespace {

[[noreturn]] void Fail(const char* what, const QString& path) {
    std::fprintf(stderr, "ignore rules fuzzer: %s: \"%s\"\n", what, path.toUtf8().constData());
    std::abort();
}

// A name on the disk is at most 255 characters; longer segments are cut to that.
QString PathFrom(const QString& line) {
    QString path;
    for (int i = 0; i < line.size(); ++i) {
        const QChar c = line.at(i);
        if (c == QLatin1Char('*'))
            path += QStringLiteral("ab");
        else if (c == QLatin1Char('?'))
            path += QLatin1Char('c');
        else if (c != QLatin1Char('\\') && c != QLatin1Char('!'))
            path += c;
    }
    QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    while (parts.size() > 32) parts.removeLast();
    for (QString& part : parts) part.truncate(255);
    return parts.join(QLatin1Char('/'));
}

bool Plain(const QByteArray& name) {
    if (name.isEmpty() || name.size() > 255) return false;
    for (const char c : name)
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-'))
            return false;
    return true;
}

void Check(const IgnoreRules& rules, const QString& path) {
    for (const bool folder : {false, true}) {
        const bool excluded = rules.IsExcluded(path, folder);
        if (rules.IsExcluded(QLatin1Char('/') + path, folder) != excluded)
            Fail("a leading slash changed the answer", path);
        // Every folder on the way: an excluded one excludes everything inside it.
        for (int slash = path.indexOf(QLatin1Char('/')); slash > 0;
             slash = path.indexOf(QLatin1Char('/'), slash + 1)) {
            if (rules.IsExcluded(path.left(slash), true) && !excluded)
                Fail("an entry inside an excluded folder came back", path);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray content(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const IgnoreRules rules = IgnoreRules::Parse(content);
    if (rules.RuleCount() > content.count('\n') + 1) Fail("more rules than lines", QString());

    const QList<QByteArray> lines = content.split('\n');
    int asked = 0;
    for (const QByteArray& line : lines) {
        if (line.size() > IgnoreRules::MaxPatternLength) continue;
        if (++asked > 24) break;
        const QString path = PathFrom(QString::fromUtf8(line.trimmed()));
        if (path.isEmpty()) continue;
        Check(rules, path);
        Check(rules, QStringLiteral("x/") + path);
    }

    // The last rule decides for what it names: a plain name is excluded, a plain "!name"
    // re-included, at the top as in any folder (that is not itself excluded).
    if (!rules.Truncated() && !lines.isEmpty()) {
        QByteArray last = lines.last();
        if (last.endsWith('\r')) last.chop(1);
        const bool negated = last.startsWith('!');
        const QByteArray name = negated ? last.mid(1) : last;
        if (Plain(name)) {
            const QString path = QString::fromLatin1(name);
            if (rules.IsExcluded(path, false) == negated)
                Fail(negated ? "a last \"!name\" left the name excluded"
                             : "a last plain name did not exclude it",
                     path);
        }
    }
    return 0;
}
