#include <gtest/gtest.h>

#include <QHash>
#include <QRandomGenerator>
#include <QStringList>
#include <QVector>

#include "EntryInfoTree.h"
#include "RecordMap.h"

using sync::syncService::RecordMap;

namespace {

// The map's whole content as text, in its own order; the order must be the order of settling.
QStringList Listing(const RecordMap<QString>& map) {
    QStringList lines;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it)
        lines << it.key() + QLatin1String("=") + *it;
    return lines;
}

// What the map must hold: the same keys and values as a QHash after the same operations, in the
// order in which each key was last put.
struct Model {
    QHash<QString, QString> values;
    QStringList order;

    void Put(const QString& key, const QString& value) {
        order.removeAll(key);
        order.append(key);
        values.insert(key, value);
    }
    void Remove(const QString& key) {
        order.removeAll(key);
        values.remove(key);
    }
    QStringList Listing() const {
        QStringList lines;
        for (const QString& key : order) lines << key + QLatin1String("=") + values.value(key);
        return lines;
    }
};

}  // namespace

// Random inserts, replacements, removals, lookups through [] and adopted listings with records
// left out, across the table's growth and with copies taken on the way: the map always reads
// like the model, and a copy never sees a change made to the map after it was taken.
TEST(RecordMapTest, ReadsLikeAHashThroughRandomChangesAndCopies) {
    for (const quint32 seed : {1u, 2u, 3u, 4u}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        QRandomGenerator random(seed);
        RecordMap<QString> map;
        Model model;
        // Adopted first, as a listing is: some records left out, duplicates replace.
        QVector<QString> listing;
        QStringList keys;
        for (int i = 0; i < 300; ++i) {
            keys << QString("k%1").arg(random.bounded(250));
            listing << QString("listed %1").arg(i);
        }
        int next = 0;
        sync::syncService::EntryInfoTree::AdoptEach(map, std::move(listing), [&](QString& value) {
            const QString key = keys.at(next++);
            if (key.endsWith('7')) return true;  // neither settled nor left: left out
            model.Put(key, value);
            map.Settle(key);
            return true;
        });
        ASSERT_EQ(Listing(map), model.Listing());

        RecordMap<QString> copy;
        QStringList copied;
        for (int step = 0; step < 4000; ++step) {
            const QString key = QString("k%1").arg(random.bounded(400));
            switch (random.bounded(5)) {
                case 0:
                case 1:
                    map.insert(key, QString("put %1").arg(step));
                    model.Put(key, QString("put %1").arg(step));
                    break;
                case 2:
                    EXPECT_EQ(map.remove(key), model.values.contains(key) ? 1 : 0);
                    model.Remove(key);
                    break;
                case 3:
                    if (!model.values.contains(key)) model.Put(key, QString());
                    map[key] += QLatin1String("+");
                    model.values[key] += QLatin1String("+");
                    break;
                default:
                    EXPECT_EQ(map.contains(key), model.values.contains(key));
                    EXPECT_EQ(map.value(key), model.values.value(key));
                    break;
            }
            ASSERT_EQ(map.size(), model.values.size());
            if (step % 500 == 0) {
                EXPECT_EQ(copy.keys().size(), copied.size());
                EXPECT_EQ(Listing(copy), copied);
                copy = map;
                copied = model.Listing();
            }
        }
        EXPECT_EQ(Listing(map), model.Listing());
        EXPECT_EQ(Listing(copy), copied);
    }
}

// A refused record ends the adoption: what was settled stays, the rest is left out.
TEST(RecordMapTest, AnAdoptionStoppedHalfWayKeepsWhatWasSettled) {
    RecordMap<QString> map;
    QVector<QString> listing{"a", "b", "c", "d"};
    int seen = 0;
    const bool all =
        sync::syncService::EntryInfoTree::AdoptEach(map, std::move(listing), [&](QString& value) {
            if (++seen == 3) return false;
            map.Settle(value.toUpper());
            return true;
        });
    EXPECT_FALSE(all);
    EXPECT_FALSE(map.HasPending());
    EXPECT_EQ(Listing(map), (QStringList{"A=a", "B=b"}));
    map.insert("E", "e");
    EXPECT_EQ(Listing(map), (QStringList{"A=a", "B=b", "E=e"}));
    // A second listing adopted by a map that holds records comes after them.
    sync::syncService::EntryInfoTree::AdoptEach(map, QVector<QString>{"a2", "f"},
                                                [&](QString& value) {
                                                    map.Settle(value.left(1).toUpper());
                                                    return true;
                                                });
    EXPECT_EQ(Listing(map), (QStringList{"B=b", "E=e", "A=a2", "F=f"}));
}
