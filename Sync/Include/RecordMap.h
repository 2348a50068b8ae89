#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QtGlobal>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "SharedText.h"

namespace sync {
namespace syncService {

// The records of a tree by key, with the part of QHash's interface the engine uses. A pass
// holds three trees of 100,000 records at once. A hash table keeps every record in a node of
// its own with up to half as much again in spare room, and a tree built from a listing holds
// the listing and the table at the same time. Here the records lie in one vector in the order
// they were put, the table holds only their positions, and a listing can become that vector
// itself (Adopt) without moving a record.
//
// A record is first pending (adopted or appended) and then settled under its key or left out,
// in order; insert and operator[] do both at once. Copies share everything until one of them
// changes, as Qt's containers do. Inserting invalidates iterators; removing does not, except
// the removed entry's.
template <typename Record>
class RecordMap {
    struct Data {
        QVector<Record> records;
        QVector<QString> keys;       // parallel to records; empty for a pending or removed record
        std::vector<bool> live;      // parallel to records
        std::vector<quint32> table;  // Free, Removed, or a record's position + 1 and hash tag
        qsizetype size = 0;          // live records
        qsizetype settled = 0;       // records before this position are no longer pending
        qsizetype removedSlots = 0;  // Removed marks in the table
    };
    static constexpr quint32 Free = 0;
    static constexpr quint32 Removed = ~quint32(0);
    // An entry keeps 6 bits of its key's hash above the position: a probe then compares the
    // text of about one key in 64 that it passes, not every one (keys of one tree are often
    // paths of the same length).
    static constexpr int PositionBits = 26;
    static constexpr quint32 PositionMask = (quint32(1) << PositionBits) - 1;
    static constexpr qsizetype MaxRecords = PositionMask - 1;  // keeps entries off Removed

public:
    template <bool Const>
    class Iterator {
        using DataPtr = std::conditional_t<Const, const Data*, Data*>;

    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Record;
        using difference_type = qsizetype;
        using reference = std::conditional_t<Const, const Record&, Record&>;
        using pointer = std::conditional_t<Const, const Record*, Record*>;

        Iterator() = default;
        Iterator(DataPtr d, qsizetype i) : _d(d), _i(i) { _SkipRemoved(); }
        // A mutable iterator converts to a read-only one, as QHash's do.
        template <bool C = Const, typename = std::enable_if_t<C>>
        Iterator(const Iterator<false>& other) : _d(other._d), _i(other._i) {}

        const QString& key() const { return _d->keys[_i]; }
        reference value() const { return _d->records[_i]; }
        reference operator*() const { return value(); }
        pointer operator->() const { return &value(); }
        Iterator& operator++() {
            ++_i;
            _SkipRemoved();
            return *this;
        }
        bool operator==(const Iterator& o) const { return _i == o._i; }
        bool operator!=(const Iterator& o) const { return _i != o._i; }

    private:
        friend class RecordMap;
        template <bool>
        friend class Iterator;
        void _SkipRemoved() {
            if (!_d) return;
            const auto settled = _d->settled;
            while (_i < settled && !_d->live[static_cast<std::size_t>(_i)]) ++_i;
            if (_i > settled) _i = settled;
        }

        DataPtr _d = nullptr;
        qsizetype _i = 0;
    };
    using iterator = Iterator<false>;
    using const_iterator = Iterator<true>;

    RecordMap() : _d(std::make_shared<Data>()) {}

    qsizetype size() const { return _d->size; }
    bool isEmpty() const { return _d->size == 0; }

    bool contains(const QString& key) const { return _Find(key) >= 0; }
    Record value(const QString& key) const {
        const qsizetype at = _Find(key);
        return at >= 0 ? _d->records[at] : Record();
    }
    QStringList keys() const {
        QStringList result;
        result.reserve(size());
        for (auto it = constBegin(); it != constEnd(); ++it) result.append(it.key());
        return result;
    }

    const_iterator constFind(const QString& key) const {
        const qsizetype at = _Find(key);
        return at >= 0 ? const_iterator(_d.get(), at) : constEnd();
    }
    const_iterator find(const QString& key) const { return constFind(key); }
    iterator find(const QString& key) {
        _Detach();
        const qsizetype at = _Find(key);
        return at >= 0 ? iterator(_d.get(), at) : end();
    }

    const_iterator constBegin() const { return const_iterator(_d.get(), 0); }
    const_iterator constEnd() const { return const_iterator(_d.get(), _d->settled); }
    const_iterator begin() const { return constBegin(); }
    const_iterator end() const { return constEnd(); }
    const_iterator cbegin() const { return constBegin(); }
    const_iterator cend() const { return constEnd(); }
    iterator begin() {
        _Detach();
        return iterator(_d.get(), 0);
    }
    iterator end() {
        _Detach();
        return iterator(_d.get(), _d->settled);
    }

    // Puts `record` under `key`, replacing the record held there.
    template <typename R>
    void insert(const QString& key, R&& record) {
        AppendPending(std::forward<R>(record));
        Settle(key);
    }
    Record& operator[](const QString& key) {
        _Detach();
        const qsizetype at = _Find(key);
        if (at >= 0) return _d->records[at];
        AppendPending(Record());
        Settle(key);
        return _d->records[_d->settled - 1];
    }
    // Returns the number of records removed, 0 or 1.
    qsizetype remove(const QString& key) {
        _Detach();
        const qsizetype slot = _SlotOf(key);
        if (slot < 0) return 0;
        _Drop(_At(_d->table[static_cast<std::size_t>(slot)]));
        _d->table[static_cast<std::size_t>(slot)] = Removed;
        ++_d->removedSlots;
        return 1;
    }

    // Takes `records` as the storage of this map when it holds nothing yet (else they are moved
    // in after what it holds); each of them is pending, to be settled or left out in order.
    void Adopt(QVector<Record>&& records) {
        _Detach();
        Data& d = *_d;
        Q_ASSERT(!HasPending());
        if (d.records.isEmpty()) {
            if (records.size() > MaxRecords) throw std::length_error("too many records in a tree");
            d.records = std::move(records);
            d.keys.resize(d.records.size());
            d.live.assign(static_cast<std::size_t>(d.records.size()), false);
        } else {
            for (Record& record : records) _Append(std::move(record));
            records = QVector<Record>();
        }
        _Reserve(d.size + d.records.size() - d.settled);
    }
    // Adds a pending record after the others; nothing else may be pending.
    void AppendPending(Record&& record) {
        _Detach();
        Q_ASSERT(!HasPending());
        _Append(std::move(record));
    }
    void AppendPending(const Record& record) { AppendPending(Record(record)); }
    bool HasPending() const { return _d->settled < _d->records.size(); }
    // How many records were settled or left out so far.
    qsizetype Settled() const { return _d->settled; }
    // The first pending record, to be read or changed before it is settled.
    Record& Pending() {
        _Detach();
        return _d->records[_d->settled];
    }
    // Puts the first pending record under `key`, replacing the record held there.
    void Settle(const QString& key) {
        _Detach();
        _Reserve(_d->size + 1);
        Data& d = *_d;
        const qsizetype at = d.settled++;
        // One probe finds the record held under the key or the slot for a new one.
        const std::size_t mask = d.table.size() - 1;
        std::size_t reusable = d.table.size();
        const std::size_t hash = _Hash(key);
        const quint32 tag = _Tag(hash);
        std::size_t slot = hash & mask;
        for (;; slot = (slot + 1) & mask) {
            const quint32 entry = d.table[slot];
            if (entry == Free) {
                if (reusable != d.table.size()) {
                    slot = reusable;
                    --d.removedSlots;
                }
                break;
            }
            if (entry == Removed) {
                if (reusable == d.table.size()) reusable = slot;
            } else if ((entry & ~PositionMask) == tag &&
                       sync::config::SameText(d.keys[_At(entry)], key)) {
                _Drop(_At(entry));
                break;
            }
        }
        d.table[slot] = _Entry(at, tag);
        d.keys[at] = key;
        d.live[static_cast<std::size_t>(at)] = true;
        ++d.size;
    }
    // Leaves the first pending record out; its memory is given back at once.
    void Leave() {
        _Detach();
        _d->records[_d->settled] = Record();
        ++_d->settled;
    }
    // Leaves every pending record out.
    void LeaveRest() {
        _Detach();
        _d->records.resize(_d->settled);
        _d->keys.resize(_d->settled);
        _d->live.resize(static_cast<std::size_t>(_d->settled));
    }

private:
    static std::size_t _Hash(const QString& key) {
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
        static const std::size_t seed = QHashSeed::globalSeed();
#else
        static const uint seed = static_cast<uint>(qGlobalQHashSeed());
#endif
        return static_cast<std::size_t>(qHash(key, seed));
    }
    static quint32 _Tag(std::size_t hash) {
        // Bits above those that pick the slot of any table this side of 64 million records;
        // Qt 5's hash has only 32 bits.
        return (static_cast<quint32>(hash >> 26) & 63) << PositionBits;
    }
    static quint32 _Entry(qsizetype at, quint32 tag) {
        return tag | static_cast<quint32>(at + 1);
    }
    static qsizetype _At(quint32 entry) {
        return static_cast<qsizetype>(entry & PositionMask) - 1;
    }

    void _Detach() {
        if (_d.use_count() > 1) _d = std::make_shared<Data>(*_d);
    }

    // The table slot that holds `key`, or -1.
    qsizetype _SlotOf(const QString& key) const {
        const Data& d = *_d;
        if (d.table.empty()) return -1;
        const std::size_t mask = d.table.size() - 1;
        const std::size_t hash = _Hash(key);
        const quint32 tag = _Tag(hash);
        for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
            const quint32 entry = d.table[slot];
            if (entry == Free) return -1;
            if (entry != Removed && (entry & ~PositionMask) == tag &&
                sync::config::SameText(d.keys[_At(entry)], key))
                return static_cast<qsizetype>(slot);
        }
    }
    qsizetype _Find(const QString& key) const {
        const qsizetype slot = _SlotOf(key);
        return slot < 0 ? -1 : _At(_d->table[static_cast<std::size_t>(slot)]);
    }
    void _Append(Record&& record) {
        if (_d->records.size() >= MaxRecords) throw std::length_error("too many records in a tree");
        _d->records.append(std::move(record));
        _d->keys.append(QString());
        _d->live.push_back(false);
    }
    void _Drop(qsizetype at) {
        Data& d = *_d;
        d.records[at] = Record();
        d.keys[at] = QString();
        d.live[static_cast<std::size_t>(at)] = false;
        --d.size;
    }
    // Keeps the table at most half full, counting removal marks.
    void _Reserve(qsizetype entries) {
        Data& d = *_d;
        const std::size_t needed = static_cast<std::size_t>(entries + d.removedSlots) * 2;
        if (needed <= d.table.size()) return;
        std::size_t capacity = 16;
        while (capacity < static_cast<std::size_t>(entries) * 2) capacity *= 2;
        d.table.assign(capacity, Free);
        d.removedSlots = 0;
        const std::size_t mask = capacity - 1;
        for (qsizetype at = 0; at < d.settled; ++at) {
            if (!d.live[static_cast<std::size_t>(at)]) continue;
            const std::size_t hash = _Hash(d.keys[at]);
            std::size_t slot = hash & mask;
            while (d.table[slot] != Free) slot = (slot + 1) & mask;
            d.table[slot] = _Entry(at, _Tag(hash));
        }
    }

    std::shared_ptr<Data> _d;
};

}  // namespace syncService
}  // namespace sync
