#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QtGlobal>
#include <memory>
#include <utility>
#include <vector>

#include "FileConfiguration.h"
#include "FolderConfiguration.h"
#include "RecordMap.h"
#include "SyncLog.h"

namespace sync {
namespace syncService {

// One source's snapshot of a root folder: every folder and file under its key, the
// lower-case serverPath. Retrievers fill the maps directly; readers use value(), not [],
// so that a lookup never inserts a phantom entry.
class EntryInfoTree : public QObject {
public:
    EntryInfoTree() : QObject(nullptr) {}

    // QString::toLower looks every character up in the Unicode tables; three trees of 100,000
    // paths, nearly all of them ASCII, make that a good part of the pass. ASCII is lowered
    // here, A-Z being its only letters with a lower case; a path already in lower case is
    // returned itself, and shares its text with the record.
    static QString KeyOf(const QString& serverPath) {
        return LowerAscii(serverPath, [](const QString& text) { return text.toLower(); });
    }

    // Lowers A-Z, which for ASCII text is both lowering and case folding; text with any other
    // character goes to `other` (Qt's own, through the Unicode tables). Text with nothing to
    // lower is returned itself, sharing its data.
    template <typename Other>
    static QString LowerAscii(const QString& text, Other other) {
        const QChar* chars = text.constData();
        const qsizetype length = text.size();
        qsizetype firstUpper = -1;
        for (qsizetype i = 0; i < length; ++i) {
            const ushort c = chars[i].unicode();
            if (c >= 0x80) return other(text);
            if (firstUpper < 0 && c >= 'A' && c <= 'Z') firstUpper = i;
        }
        if (firstUpper < 0) return text;
        QString lowered(text);
        QChar* out = lowered.data();
        for (qsizetype i = firstUpper; i < length; ++i) {
            const ushort c = out[i].unicode();
            if (c >= 'A' && c <= 'Z') out[i] = QChar(ushort(c + ('a' - 'A')));
        }
        return lowered;
    }

    // Inserts or replaces without copying the record where the Qt version allows it; trees of
    // 100,000 files are built on every cycle.
    template <typename Record>
    static void Put(QHash<QString, Record>& map, const QString& key, Record&& record) {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        map.emplace(key, std::move(record));
#else
        map.insert(key, record);
#endif
    }
    template <typename Record>
    static void Put(RecordMap<Record>& map, const QString& key, Record&& record) {
        map.insert(key, std::move(record));
    }

    // Makes `records` the storage of `map` (see RecordMap::Adopt) and hands each record to
    // `take` in order while it is pending; `take` settles it under its key or leaves it out,
    // through the map, and a record it does neither with is left out. Stops when `take`
    // returns false, leaving the rest out; returns whether every record was taken. No record
    // is moved: a listing of 100,000 records and the tree made of it are never both in memory.
    template <typename Record, typename Take>
    static bool AdoptEach(RecordMap<Record>& map, QVector<Record>&& records, Take take) {
        map.Adopt(std::move(records));
        while (map.HasPending()) {
            const qsizetype before = map.Settled();
            if (!take(map.Pending())) {
                map.LeaveRest();
                return false;
            }
            if (map.Settled() == before) map.Leave();
        }
        return true;
    }

    // Puts an entry found by a walk under its key. Two names of one folder that differ only in
    // letter case map to one key, and neither could be synchronised without overwriting the
    // other: the key is then excluded and the entry already put is taken out again. Returns the
    // paths (field `path` of the records) that clash, to be reported as filtered out: both on the
    // first clash, which is logged, the newcomer's on any later one; empty when the entry was put.
    template <typename Record>
    QStringList PutWalked(QHash<QString, Record>& map, QSet<QString>& excludedKeys,
                          QSet<QString>& clashingKeys, const QString& key, Record&& record,
                          QString Record::*path) {
        if (clashingKeys.contains(key)) return {record.*path};
        // One lookup for the usual case of a new key: the slot made for it is filled.
        const auto sizeBefore = map.size();
        Record& slot = map[key];
        // The same name listed twice is one entry, not a clash.
        if (map.size() != sizeBefore || slot.*path == record.*path) {
            slot = std::move(record);
            return {};
        }
        const QStringList clash{slot.*path, record.*path};
        _LogClash(clash);
        map.remove(key);
        clashingKeys.insert(key);
        excludedKeys.insert(key);
        return clash;
    }
    template <typename Record>
    QStringList PutWalked(RecordMap<Record>& map, QSet<QString>& excludedKeys,
                          QSet<QString>& clashingKeys, const QString& key, Record&& record,
                          QString Record::*path) {
        map.AppendPending(std::move(record));
        return SettleWalked(map, excludedKeys, clashingKeys, key, path);
    }
    // PutWalked for the map's pending record, which it settles or leaves out.
    template <typename Record>
    QStringList SettleWalked(RecordMap<Record>& map, QSet<QString>& excludedKeys,
                             QSet<QString>& clashingKeys, const QString& key,
                             QString Record::*path) {
        const Record& pending = map.Pending();
        if (clashingKeys.contains(key)) {
            const QStringList newcomer{pending.*path};
            map.Leave();
            return newcomer;
        }
        const auto held = map.constFind(key);
        // The same name listed twice is one entry, not a clash.
        if (held == map.constEnd() || (*held).*path == pending.*path) {
            map.Settle(key);
            return {};
        }
        const QStringList clash{(*held).*path, pending.*path};
        _LogClash(clash);
        map.remove(key);
        map.Leave();
        clashingKeys.insert(key);
        excludedKeys.insert(key);
        return clash;
    }

    // The trees of one pass name the same 100,000 paths. While a TextSource lives on a thread,
    // the retrievers and the database reads running there give each record the string that an
    // earlier tree holds for an equal text (ShareTexts), as the record is made: one copy of
    // each text lives instead of three, and the copy read is freed before the next record is
    // read. Only equal texts are exchanged: a record reads exactly as before, whichever tree,
    // if any, is the source. The newest tree added is asked first.
    class TextSource {
    public:
        explicit TextSource(std::shared_ptr<const EntryInfoTree> tree) : _outer(Current()) {
            Current() = this;
            Add(std::move(tree));
        }
        ~TextSource() { Current() = _outer; }
        TextSource(const TextSource&) = delete;
        TextSource& operator=(const TextSource&) = delete;

        // Whether records read on this thread have a source to share with.
        static bool Active() { return Current() != nullptr; }
        // The source of this thread, to lend to a thread that reads part of the same records.
        static const TextSource* OfThisThread() { return Current(); }

        // Makes a source the current one on another thread for the lifetime of the object. The
        // lending thread must not add trees meanwhile: the trees are only read, from both.
        class Lent {
        public:
            explicit Lent(const TextSource* source) : _outer(Current()) { Current() = source; }
            ~Lent() { Current() = _outer; }
            Lent(const Lent&) = delete;
            Lent& operator=(const Lent&) = delete;

        private:
            const TextSource* _outer;
        };

        void Add(std::shared_ptr<const EntryInfoTree> tree) {
            if (tree) _trees.insert(_trees.begin(), std::move(tree));
        }

    private:
        friend class EntryInfoTree;
        static const TextSource*& Current() {
            thread_local const TextSource* current = nullptr;
            return current;
        }
        template <typename Record>
        static const auto& MapOf(const EntryInfoTree& tree);

        const TextSource* _outer;
        // Not owned: a tree its owner lets go of is freed as it would be without the source.
        std::vector<std::weak_ptr<const EntryInfoTree>> _trees;
    };

    // Makes the key and the texts of a record about to be put the strings of the same entry in
    // the current TextSource's trees where they are equal; nothing without a TextSource.
    template <typename Record>
    static void ShareTexts(QString& key, Record& record) {
        const TextSource* source = TextSource::Current();
        if (!source) return;
        for (const auto& weak : source->_trees) {
            const auto tree = weak.lock();
            if (!tree) continue;
            const auto& map = TextSource::MapOf<Record>(*tree);
            const auto same = map.constFind(key);
            if (same == map.constEnd()) continue;
            key = same.key();
            record.ShareTextsWith(*same);
            return;
        }
    }

    // For a server backend listing during a planning pass: the trees already built name the
    // same entries, so a record listed takes their strings for its equal texts at once, on the
    // thread that lists it. Its own copies are then freed where they were made and reused for
    // the next entry instead of lingering until the tree is built.
    template <typename Record>
    static void ShareListedTexts(Record& record) {
        if (!TextSource::Active()) return;
        QString key = KeyOf(record.serverPath);
        ShareTexts(key, record);
    }

    // The key of a file record about to be put, its texts shared as ShareTexts does. A record
    // whose serverPath is already held elsewhere was given an earlier tree's texts as it was
    // read (a reader lending this thread's TextSource does that); a path without capitals is
    // then the very string the earlier tree holds as its key, and a second lookup would find
    // nothing more to share.
    static QString SharedKeyOf(sync::config::FileConfiguration& record) {
        const bool sharedOnRead = !record.serverPath.isDetached();
        QString key = KeyOf(record.serverPath);
        if (!sharedOnRead || !key.isSharedWith(record.serverPath)) ShareTexts(key, record);
        return key;
    }

    static void _LogClash(const QStringList& clash) {
        SYNC_LOG_WARN(
            "Leaving out %1 and %2: their names differ only in letter case, and one would "
            "overwrite the other. Rename one of them to synchronise both.",
            clash.at(0), clash.at(1));
    }

    QHash<QString, sync::config::FolderConfiguration> folderMap;
    RecordMap<sync::config::FileConfiguration> fileMap;

    // Keys of entries that the retriever left out by a rule (a filter, a length limit, two
    // names that differ only in letter case). Such an entry, and for a folder everything below
    // it, is not planned at all: an entry missing from a tree would otherwise look deleted.
    QSet<QString> excludedFolderKeys;
    QSet<QString> excludedFileKeys;
    // The walk never sees hidden entries when the root does not synchronise them, so it cannot
    // name them: every entry with a hidden name somewhere below the root counts as left out.
    bool hiddenEntriesExcluded = false;
    // The keys of excludedFolderKeys and excludedFileKeys that a letter-case clash put there.
    QSet<QString> clashingFolderKeys;
    QSet<QString> clashingFileKeys;
};

template <>
inline const auto& EntryInfoTree::TextSource::MapOf<sync::config::FileConfiguration>(
    const EntryInfoTree& tree) {
    return tree.fileMap;
}

template <>
inline const auto& EntryInfoTree::TextSource::MapOf<sync::config::FolderConfiguration>(
    const EntryInfoTree& tree) {
    return tree.folderMap;
}

}  // namespace syncService
}  // namespace sync
