// A WebDAV multistatus answer as the server sends it, fed to the listing parser whole and cut
// into pieces: besides never crashing, the parser must hand on the same entries and reach the
// same verdict however the network cut the answer, and a handler that stops it stops it.
#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "WebDavMultistatus.h"

using sync::remote::DavEntry;
using sync::remote::MultistatusParser;

namespace {

struct Outcome {
    QVector<QString> entries;
    bool fed = true;  // every Feed answered true
    bool finished = false;
    bool idMissing = false;
    int counted = 0;
};

// A well-formed answer gives the same entries however it was cut. A broken one is refused
// however it was cut, but where: the reader checks characters a piece at a time, so an entry
// before a broken character may or may not come out first. A refused listing is dropped whole,
// so the entries only have to agree up to where the shorter run stopped. One leniency is the
// reader's own: a "]]>" in text that arrives in two pieces passes, so a cut answer may be
// taken where the whole one was refused for that, but then with the same entries first.
bool Agree(const Outcome& cut, const Outcome& whole) {
    if (cut.finished && whole.finished)
        return cut.entries == whole.entries && cut.idMissing == whole.idMissing;
    if (whole.finished) return false;
    const QVector<QString>& shorter =
        cut.entries.size() < whole.entries.size() ? cut.entries : whole.entries;
    const QVector<QString>& longer =
        cut.entries.size() < whole.entries.size() ? whole.entries : cut.entries;
    return std::equal(shorter.cbegin(), shorter.cend(), longer.cbegin());
}

// Joined, not formatted: a path may hold "%1".
QString Shown(const DavEntry& e) {
    const QString modified = e.modified.isValid() ? QString::number(e.modified.toMSecsSinceEpoch())
                                                  : QStringLiteral("-");
    return QStringList{
        e.path, QString::number(e.collection), QString::number(e.size), modified, e.etag,
        e.id,   QString::number(e.status)}
        .join(QLatin1Char('|'));
}

[[noreturn]] void Fail(const char* what, const QByteArray& detail = QByteArray()) {
    std::fprintf(stderr, "multistatus fuzzer: %s %s\n", what, detail.constData());
    std::abort();
}

// nextPiece(offset) is the size of the piece that starts at offset; stopAt > 0 makes the
// handler refuse that entry.
template <typename Pieces>
Outcome Parse(const QByteArray& body, Pieces nextPiece, int stopAt = 0) {
    Outcome out;
    MultistatusParser parser([&](DavEntry& entry) {
        if (!out.fed) Fail("an entry was handed on after the parse stopped");
        if (entry.path.endsWith(QLatin1Char('/')))
            Fail("an entry path keeps its trailing slash", entry.path.toUtf8());
        out.entries.append(Shown(entry));
        return stopAt <= 0 || out.entries.size() < stopAt;
    });
    for (qsizetype offset = 0; offset < body.size();) {
        const qsizetype size = std::min<qsizetype>(nextPiece(offset), body.size() - offset);
        if (!parser.Feed(body.constData() + offset, static_cast<std::size_t>(size))) {
            out.fed = false;
            if (parser.Error().isEmpty()) Fail("a refused piece left no error");
            // A stopped parser stays stopped.
            if (parser.Feed("<x/>", 4)) Fail("a stopped parser took more input");
            break;
        }
        offset += size;
    }
    out.finished = parser.Finish();
    if (out.finished && !out.fed) Fail("a stopped parse finished well");
    if (!out.finished && parser.Error().isEmpty()) Fail("an unfinished parse left no error");
    out.idMissing = parser.ResourceIdMissing();
    out.counted = parser.Entries();
    if (out.counted != out.entries.size()) Fail("the entry count differs from the entries");
    return out;
}

QByteArray Described(const Outcome& o) {
    QByteArray text = "fed=" + QByteArray::number(o.fed) +
                      " finished=" + QByteArray::number(o.finished) +
                      " idMissing=" + QByteArray::number(o.idMissing) + " entries:";
    for (const QString& e : o.entries) text += "\n  " + e.toUtf8();
    return text;
}

void Compare(const Outcome& cut, const Outcome& whole, const char* what) {
    if (Agree(cut, whole)) return;
    Fail(what, "\nwhole: " + Described(whole) + "\ncut:   " + Described(cut));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray body(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const Outcome whole = Parse(body, [&](qsizetype) { return body.size(); });
    // Every cut position once, then uneven pieces that fall on different offsets.
    if (body.size() <= 4096) {
        const Outcome bytes = Parse(body, [](qsizetype) { return qsizetype(1); });
        Compare(bytes, whole, "byte-by-byte feeding changed the outcome");
    }
    static const qsizetype uneven[] = {7, 1, 2, 64, 3, 1, 13, 500, 5};
    int next = 0;
    const Outcome pieces = Parse(body, [&](qsizetype) { return uneven[next++ % 9]; });
    Compare(pieces, whole, "feeding in pieces changed the outcome");

    if (!whole.entries.isEmpty()) {
        const Outcome stopped = Parse(
            body, [&](qsizetype) { return body.size(); }, 1);
        if (stopped.fed || stopped.finished || stopped.entries.size() != 1 ||
            stopped.entries.first() != whole.entries.first())
            Fail("a handler's refusal did not stop the parse at its entry");
    }
    return 0;
}
