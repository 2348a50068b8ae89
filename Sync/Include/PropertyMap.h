#pragma once

#include <QAtomicInt>
#include <QMap>
#include <QString>
#include <algorithm>
#include <initializer_list>
#include <new>
#include <utility>
#include <vector>

namespace sync {
namespace config {

// A file record's server-side attributes, with the part of QMap<QString, QString>'s interface
// the code uses and the same order (by key) and equality. A record holds one or two entries
// ("version", "versionId") and a pass holds 100,000 records in each of three trees: a QMap
// keeps every entry in a node of its own behind a shared header, some 160 bytes for one entry.
// Here the map is one pointer, and its entries lie in one implicitly shared block, 64 bytes for
// one entry.
class PropertyMap {
public:
    using Entry = std::pair<QString, QString>;

    class const_iterator {
    public:
        const_iterator() = default;
        explicit const_iterator(const Entry* at) : _at(at) {}
        const QString& key() const { return _at->first; }
        const QString& value() const { return _at->second; }
        const QString& operator*() const { return _at->second; }
        const QString* operator->() const { return &_at->second; }
        const_iterator& operator++() {
            ++_at;
            return *this;
        }
        bool operator==(const const_iterator& o) const { return _at == o._at; }
        bool operator!=(const const_iterator& o) const { return _at != o._at; }

    private:
        const Entry* _at = nullptr;
    };

    PropertyMap() = default;
    PropertyMap(std::initializer_list<Entry> entries) {
        for (const Entry& entry : entries) insert(entry.first, entry.second);
    }
    PropertyMap(const QMap<QString, QString>& map) {  // NOLINT: reads like the map
        std::vector<Entry> entries;
        entries.reserve(static_cast<std::size_t>(map.size()));
        for (auto it = map.cbegin(); it != map.cend(); ++it) entries.emplace_back(it.key(), *it);
        _Take(std::move(entries));
    }
    PropertyMap(const PropertyMap& o) : _b(o._b) {
        if (_b) _b->ref.ref();
    }
    PropertyMap(PropertyMap&& o) noexcept : _b(o._b) { o._b = nullptr; }
    PropertyMap& operator=(const PropertyMap& o) {
        PropertyMap copy(o);
        std::swap(_b, copy._b);
        return *this;
    }
    PropertyMap& operator=(PropertyMap&& o) noexcept {  // leaves o empty, as QMap's does
        if (this != &o) {
            _Release(_b);
            _b = o._b;
            o._b = nullptr;
        }
        return *this;
    }
    ~PropertyMap() { _Release(_b); }

    // The map of the entries in any order; of entries with the same key the last one counts,
    // as with QMap::insert.
    static PropertyMap FromEntries(std::vector<Entry> entries) {
        const auto before = [](const Entry& a, const Entry& b) { return a.first < b.first; };
        PropertyMap map;
        if (std::adjacent_find(entries.begin(), entries.end(), [&](const Entry& a, const Entry& b) {
                return !before(a, b);
            }) == entries.end()) {
            map._Take(std::move(entries));  // as stored: in order, each key once
            return map;
        }
        std::stable_sort(entries.begin(), entries.end(), before);
        std::vector<Entry> unique;
        unique.reserve(entries.size());
        for (Entry& entry : entries) {
            if (!unique.empty() && unique.back().first == entry.first)
                unique.back() = std::move(entry);
            else
                unique.push_back(std::move(entry));
        }
        map._Take(std::move(unique));
        return map;
    }
    QMap<QString, QString> toMap() const {
        QMap<QString, QString> map;
        for (const Entry& entry : *this) map.insert(entry.first, entry.second);
        return map;
    }

    qsizetype size() const { return _b ? _b->count : 0; }
    bool isEmpty() const { return !_b; }
    void clear() { *this = PropertyMap(); }
    bool isSharedWith(const PropertyMap& o) const { return _b == o._b; }

    bool contains(const QString& key) const { return _Find(key) != nullptr; }
    QString value(const QString& key, const QString& otherwise = QString()) const {
        const Entry* entry = _Find(key);
        return entry ? entry->second : otherwise;
    }
    const_iterator constFind(const QString& key) const {
        const Entry* entry = _Find(key);
        return entry ? const_iterator(entry) : cend();
    }
    void insert(const QString& key, const QString& value) { _Slot(key) = value; }
    QString& operator[](const QString& key) { return _Slot(key); }
    int remove(const QString& key) {
        if (!_Find(key)) return 0;
        std::vector<Entry> entries;
        for (const Entry& entry : *this)
            if (entry.first != key) entries.push_back(entry);
        _Take(std::move(entries));
        return 1;
    }

    const_iterator cbegin() const { return const_iterator(_First()); }
    const_iterator cend() const { return const_iterator(_First() + size()); }
    const_iterator constBegin() const { return cbegin(); }
    const_iterator constEnd() const { return cend(); }
    const Entry* begin() const { return _First(); }
    const Entry* end() const { return _First() + size(); }

    bool operator==(const PropertyMap& o) const {
        return isSharedWith(o) || std::equal(begin(), end(), o.begin(), o.end());
    }
    bool operator!=(const PropertyMap& o) const { return !(*this == o); }
    bool operator==(const QMap<QString, QString>& o) const { return *this == PropertyMap(o); }
    bool operator!=(const QMap<QString, QString>& o) const { return !(*this == o); }

private:
    // One allocation: the count and reference count, then the entries in key order. A map
    // that a copy shares is never changed in place; a change builds the entries anew.
    struct Block {
        QAtomicInt ref;
        int count;
    };
    static_assert(sizeof(Block) % alignof(Entry) == 0, "entries follow the block");

    const Entry* _First() const { return _b ? reinterpret_cast<const Entry*>(_b + 1) : nullptr; }
    Entry* _Entries() { return reinterpret_cast<Entry*>(_b + 1); }
    const Entry* _Find(const QString& key) const {
        const Entry* at = std::lower_bound(
            begin(), end(), key, [](const Entry& e, const QString& k) { return e.first < k; });
        return at != end() && at->first == key ? at : nullptr;
    }
    // The value under key in a map of its own, the key added when missing.
    QString& _Slot(const QString& key) {
        const Entry* found = _Find(key);
        if (found && _b->ref.loadRelaxed() == 1) return const_cast<Entry*>(found)->second;
        std::vector<Entry> entries(begin(), end());
        auto at = std::lower_bound(entries.begin(), entries.end(), key,
                                   [](const Entry& e, const QString& k) { return e.first < k; });
        const auto index = at - entries.begin();
        if (!found) entries.insert(at, Entry(key, QString()));
        _Take(std::move(entries));
        return _Entries()[index].second;
    }
    void _Take(std::vector<Entry>&& entries) {
        Block* block = nullptr;
        if (!entries.empty()) {
            void* memory = ::operator new(sizeof(Block) + sizeof(Entry) * entries.size());
            block = new (memory) Block{QAtomicInt(1), static_cast<int>(entries.size())};
            Entry* out = reinterpret_cast<Entry*>(block + 1);
            for (std::size_t i = 0; i < entries.size(); ++i)
                new (out + i) Entry(std::move(entries[i]));
        }
        _Release(_b);
        _b = block;
    }
    static void _Release(Block* block) {
        if (!block || block->ref.deref()) return;
        Entry* entries = reinterpret_cast<Entry*>(block + 1);
        for (int i = 0; i < block->count; ++i) entries[i].~Entry();
        block->~Block();
        ::operator delete(block);
    }

    Block* _b = nullptr;
};

}  // namespace config
}  // namespace sync
