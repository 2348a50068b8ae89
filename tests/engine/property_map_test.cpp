#include <gtest/gtest.h>

#include <QMap>
#include <QRandomGenerator>
#include <QStringList>

#include "PropertyMap.h"

using sync::config::PropertyMap;

namespace {

QStringList Listing(const PropertyMap& map) {
    QStringList lines;
    for (auto it = map.cbegin(); it != map.cend(); ++it) lines << it.key() + "=" + it.value();
    return lines;
}

QStringList Listing(const QMap<QString, QString>& map) {
    QStringList lines;
    for (auto it = map.cbegin(); it != map.cend(); ++it) lines << it.key() + "=" + it.value();
    return lines;
}

// Random changes to a few maps that copy each other, each checked against a QMap doing the same:
// a change through one copy must never show in another, and order and lookups stay QMap's.
TEST(PropertyMapTest, ReadsLikeAQMapThroughRandomChangesAndCopies) {
    QRandomGenerator random(20261124);
    const QStringList keys{"version", "versionId", "color", "", "\u00e4"};
    PropertyMap maps[3];
    QMap<QString, QString> models[3];
    for (int step = 0; step < 4000; ++step) {
        const int i = int(random.bounded(3));
        const QString key = keys.at(int(random.bounded(keys.size())));
        const QString value = QString::number(random.bounded(5));
        switch (random.bounded(7)) {
            case 0:
                maps[i].insert(key, value);
                models[i].insert(key, value);
                break;
            case 1:
                maps[i][key] = value;
                models[i][key] = value;
                break;
            case 2:
                EXPECT_EQ(maps[i].remove(key), int(models[i].remove(key)));
                break;
            case 3: {
                const int from = int(random.bounded(3));
                maps[i] = maps[from];
                models[i] = models[from];
                break;
            }
            case 4:
                maps[i] = PropertyMap(models[i]);  // from a QMap
                break;
            case 5: {
                // Moved from, a map is left empty, as a QMap is.
                const int from = int(random.bounded(3));
                PropertyMap moved = maps[from];
                maps[i] = std::move(moved);
                models[i] = models[from];
                ASSERT_TRUE(moved.isEmpty());
                break;
            }
            default:
                if (random.bounded(10) == 0) {
                    maps[i].clear();
                    models[i].clear();
                }
        }
        for (int m = 0; m < 3; ++m) {
            ASSERT_EQ(Listing(maps[m]), Listing(models[m])) << "step " << step << " map " << m;
            ASSERT_EQ(maps[m].size(), models[m].size());
            ASSERT_EQ(maps[m].isEmpty(), models[m].isEmpty());
            ASSERT_EQ(maps[m].contains(key), models[m].contains(key));
            ASSERT_EQ(maps[m].value(key, "none"), models[m].value(key, "none"));
            ASSERT_EQ(maps[m].constFind(key) != maps[m].constEnd(), models[m].contains(key));
            for (int n = 0; n < 3; ++n)
                ASSERT_EQ(maps[m] == maps[n], models[m] == models[n]) << m << " vs " << n;
            ASSERT_EQ(Listing(PropertyMap(maps[m].toMap())), Listing(models[m]));
        }
    }
}

// A stored map may list its entries in any order and a key twice; it reads as QMap::insert
// would have built it.
TEST(PropertyMapTest, EntriesInAnyOrderReadAsInsertedOneByOne) {
    const PropertyMap map = PropertyMap::FromEntries(
        {{"versionId", "a"}, {"version", "1"}, {"versionId", "b"}, {"color", "red"}});
    EXPECT_EQ(Listing(map), (QStringList{"color=red", "version=1", "versionId=b"}));
    EXPECT_TRUE(PropertyMap::FromEntries({}).isEmpty());
}

}  // namespace
