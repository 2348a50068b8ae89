// The codec shares strings between records it reads (short recurring texts, a column that holds
// another field's text, identical property maps). Sharing must never hand a record a value
// that is not its own: these cases read back values that differ only slightly from their
// neighbours, in the order that would expose a stale or confused share.

#include <gtest/gtest.h>

#include <QMap>
#include <QString>
#include <QStringList>

#include "DatabaseBackends.h"
#include "EntryInfoTree.h"
#include "RecordCodec.h"
#include "TransactionalScope.h"

using sync::config::FileConfiguration;
using sync::config::FolderConfiguration;
using sync::database::RecordCodec;
using sync::syncService::EntryInfoTree;
using sync::test::SqliteStore;

namespace {

using Properties = QMap<QString, QString>;

// Null and empty both compare equal in QString; the codec must keep them apart.
std::string Shown(const QString& s) {
    return s.isNull() ? std::string("<null>") : "'" + s.toStdString() + "'";
}

template <typename Map>
std::string ShownMap(const Map& properties) {
    std::string text;
    for (auto it = properties.cbegin(); it != properties.cend(); ++it)
        text += Shown(it.key()) + "=" + Shown(it.value()) + " ";
    return text;
}
std::string Shown(const Properties& properties) {
    return ShownMap(properties);
}
std::string Shown(const sync::config::PropertyMap& properties) {
    return ShownMap(properties);
}

TEST(RecordCodecTest, PropertyMapsDecodeToTheirOwnValuesWhateverCameBefore) {
    const QString longValue(40, QLatin1Char('v'));
    const std::vector<Properties> rows = {
        {{"version", "1"}},
        {{"version", "1"}},  // the same blob again
        {{"version", "2"}},  // same size, one character apart
        {{"version", "1"}, {"versionId", "a"}},
        {{"version", QString()}},               // null value
        {{"version", QString("")}},             // empty value
        {{"version", QString::fromUtf8("ä")}},  // not Latin-1 on the wire
        {{"versionId", longValue}},             // too long to be shared
        {{"version", "1"}},
    };
    // A file's properties are held in their own type; both decoders read the same blobs.
    for (const Properties& row : rows) {
        const QByteArray blob = RecordCodec::EncodeProperties(row);
        EXPECT_EQ(Shown(RecordCodec::DecodeRecordProperties(blob)), Shown(row));
        const sync::config::PropertyMap file = RecordCodec::DecodeFileProperties(blob);
        EXPECT_EQ(Shown(file), Shown(row));
        EXPECT_EQ(RecordCodec::EncodeProperties(file), blob);
    }

    // Short texts share a small table of slots: many distinct values, each read twice far
    // apart, all come back as written.
    QStringList values;
    for (int i = 0; i < 2000; ++i) values << QString::number(i * 7919);
    for (int pass = 0; pass < 2; ++pass)
        for (const QString& value : values) {
            const Properties read = RecordCodec::DecodeRecordProperties(
                RecordCodec::EncodeProperties(Properties{{value, value + QLatin1Char('x')}}));
            ASSERT_EQ(Shown(read), Shown(Properties{{value, value + QLatin1Char('x')}}));
        }

    // A record that changes its map must not change the map of the next record read.
    const QByteArray blob = RecordCodec::EncodeProperties(Properties{{"version", "3"}});
    Properties first = RecordCodec::DecodeRecordProperties(blob);
    first.insert("version", "4");
    EXPECT_EQ(RecordCodec::DecodeRecordProperties(blob).value("version"), QString("3"));
    sync::config::PropertyMap firstFile = RecordCodec::DecodeFileProperties(blob);
    firstFile["version"] = "4";
    EXPECT_EQ(RecordCodec::DecodeFileProperties(blob).value("version"), QString("3"));
}

struct TextRow {
    const char* what;
    QString checksum;
    QString serverChecksum;
    QString contentType;
    QString privilegeInfo;
};

TEST(RecordCodecTest, FileTextsReadBackAsStoredInEveryNeighbourhood) {
    const QString hash64(64, QLatin1Char('a'));
    const TextRow rows[] = {
        {"server hash equal", hash64, hash64, "text/plain", "rw"},
        {"server hash one letter apart", hash64, QString(63, QLatin1Char('a')) + "b", "text/plain",
         "rw"},
        {"server hash in another case", "abc", "ABC", "text/html", "r"},
        {"server hash empty", "abc", "", "", ""},
        {"both empty", "", "", "text/plain", "rw"},
        {"not ASCII, equal", QString::fromUtf8("é1"), QString::fromUtf8("é1"),
         QString::fromUtf8("tëxt/ü"), QString::fromUtf8("ß")},
        {"not ASCII, same length", QString::fromUtf8("é1"), QString::fromUtf8("é2"), "ab", "ab"},
        {"long recurring texts", "x", "x", QString(30, QLatin1Char('t')),
         QString(30, QLatin1Char('p'))},
    };
    SqliteStore store;
    FolderConfiguration root;
    root.localPath = "/home/u/Docs";
    root.serverPath = root.path = "/Docs";
    ASSERT_TRUE(store.folders->AddFolder(root));
    for (const TextRow& row : rows) {
        FileConfiguration file;
        file.rootId = root.id;
        file.name = row.what;
        file.localPath = root.localPath + "/" + row.what;
        file.serverPath = root.serverPath + "/" + row.what;
        file.checksum = row.checksum;
        file.serverChecksum = row.serverChecksum;
        file.contentType = row.contentType;
        file.privilegeInfo = row.privilegeInfo;
        file.serverFileId = "id";
        ASSERT_TRUE(store.files->AddFile(file));
    }
    const QVector<FileConfiguration> read = store.files->GetFilesByRootId(root.id, false);
    ASSERT_EQ(read.size(), int(std::size(rows)));
    for (int i = 0; i < read.size(); ++i) {
        const TextRow& row = rows[i];
        SCOPED_TRACE(row.what);
        EXPECT_EQ(std::make_tuple(Shown(read[i].checksum), Shown(read[i].serverChecksum),
                                  Shown(read[i].contentType), Shown(read[i].privilegeInfo)),
                  std::make_tuple(Shown(row.checksum), Shown(row.serverChecksum),
                                  Shown(row.contentType), Shown(row.privilegeInfo)));
    }
}

// Records read while a planning pass shares texts take the strings of the tree already built
// for the same entry wherever a text is equal, and read exactly as they do without it.
TEST(RecordCodecTest, FilesReadWhileTextsAreSharedTakeTheTreesEqualTexts) {
    SqliteStore store;
    FolderConfiguration root;
    root.localPath = "/home/u/Docs";
    root.serverPath = root.path = "/Docs";
    ASSERT_TRUE(store.folders->AddFolder(root));
    const auto tree = std::make_shared<EntryInfoTree>();
    // What the tree holds of each stored file: the same texts, a changed name, or nothing.
    const struct {
        const char* name;
        const char* treeName;  // nullptr: the tree does not know the file
    } rows[] = {{"same.txt", "same.txt"}, {"Renamed.txt", "renamed.txt"}, {"new.txt", nullptr}};
    for (const auto& row : rows) {
        FileConfiguration file;
        file.rootId = root.id;
        file.name = row.name;
        file.localPath = root.localPath + "/" + row.name;
        file.serverPath = root.serverPath + "/" + row.name;
        file.checksum = QString("sum-") + row.name;
        file.properties.insert("versionId", QString("v-") + row.name);
        ASSERT_TRUE(store.files->AddFile(file));
        if (!row.treeName) continue;
        FileConfiguration known(file);
        known.name = row.treeName;
        tree->fileMap.insert(EntryInfoTree::KeyOf(file.serverPath), known);
    }
    const QVector<FileConfiguration> plain = store.files->GetFilesByRootId(root.id, false);
    QVector<FileConfiguration> shared;
    {
        EntryInfoTree::TextSource source(tree);
        shared = store.files->GetFilesByRootId(root.id, false);
    }
    ASSERT_EQ(shared.size(), int(std::size(rows)));
    ASSERT_EQ(plain.size(), shared.size());
    for (int i = 0; i < shared.size(); ++i) {
        SCOPED_TRACE(rows[i].name);
        const FileConfiguration& read = shared[i];
        EXPECT_EQ(read, plain[i]);
        const auto known = tree->fileMap.constFind(EntryInfoTree::KeyOf(read.serverPath));
        const bool inTree = rows[i].treeName != nullptr;
        ASSERT_EQ(known != tree->fileMap.constEnd(), inTree);
        if (!inTree) continue;
        EXPECT_TRUE(read.localPath.isSharedWith(known->localPath));
        EXPECT_TRUE(read.serverPath.isSharedWith(known->serverPath));
        EXPECT_TRUE(read.checksum.isSharedWith(known->checksum));
        EXPECT_TRUE(read.properties.isSharedWith(known->properties));
        EXPECT_EQ(read.name.isSharedWith(known->name), read.name == known->name);
    }
}

// A large root is read on two threads, each through its own connection, and the halves are
// joined: what comes back must be exactly one root's plain files in id order, with the texts
// shared on both threads, and inside a transaction what is not yet committed as well.
TEST(RecordCodecTest, ALargeRootReadInTwoHalvesComesBackWholeAndInOrder) {
    SqliteStore store;
    FolderConfiguration roots[2];
    for (int r = 0; r < 2; ++r) {
        roots[r].localPath = QString("/home/u/Root%1").arg(r);
        roots[r].serverPath = roots[r].path = QString("/Root%1").arg(r);
        ASSERT_TRUE(store.folders->AddFolder(roots[r]));
    }
    QVector<FileConfiguration> expected;
    const auto tree = std::make_shared<EntryInfoTree>();
    {
        sync::database::TransactionalScope scope;
        // Enough for the split; the other root's files and generated files lie between.
        for (int i = 0; i < 40000; ++i) {
            FileConfiguration file;
            const FolderConfiguration& root = roots[i % 3 == 2 ? 1 : 0];
            file.rootId = root.id;
            file.isGenerated = i % 7 == 3 ? 1 : 0;
            file.name = QString("f%1.txt").arg(i);
            file.localPath = root.localPath + "/d/" + file.name;
            file.serverPath = root.serverPath + "/d/" + file.name;
            file.properties.insert("versionId", QString("v%1").arg(i));
            ASSERT_TRUE(store.files->AddFile(file));
            if (file.rootId != roots[0].id || file.isGenerated) continue;
            expected.append(file);
            tree->fileMap.insert(EntryInfoTree::KeyOf(file.serverPath), file);
        }
    }
    ASSERT_GT(expected.size(), 20000);
    const auto ids = [](const QVector<FileConfiguration>& files) {
        QVector<int> all;
        for (const FileConfiguration& f : files) all.append(f.id);
        return all;
    };
    const QVector<FileConfiguration> plain = store.files->GetFilesByRootId(roots[0].id, false);
    ASSERT_EQ(ids(plain), ids(expected));
    for (int i = 0; i < plain.size(); ++i)
        ASSERT_EQ(plain[i].serverPath, expected[i].serverPath) << i;

    QVector<FileConfiguration> shared;
    {
        EntryInfoTree::TextSource source(tree);
        shared = store.files->GetFilesByRootId(roots[0].id, false);
    }
    ASSERT_EQ(shared.size(), plain.size());
    for (const int i :
         {0, int(shared.size()) / 2 - 1, int(shared.size()) / 2, int(shared.size()) - 1}) {
        SCOPED_TRACE(i);
        EXPECT_EQ(shared[i], plain[i]);
        const auto known = tree->fileMap.constFind(EntryInfoTree::KeyOf(shared[i].serverPath));
        ASSERT_NE(known, tree->fileMap.constEnd());
        EXPECT_TRUE(shared[i].localPath.isSharedWith(known->localPath));
        EXPECT_TRUE(shared[i].properties.isSharedWith(known->properties));
    }

    sync::database::TransactionalScope scope;
    FileConfiguration uncommitted = expected.first();
    uncommitted.id = -1;
    uncommitted.serverPath = roots[0].serverPath + "/late.txt";
    uncommitted.localPath = roots[0].localPath + "/late.txt";
    ASSERT_TRUE(store.files->AddFile(uncommitted));
    const QVector<FileConfiguration> inside = store.files->GetFilesByRootId(roots[0].id, false);
    ASSERT_EQ(inside.size(), plain.size() + 1);
    EXPECT_EQ(inside.last().id, uncommitted.id);
}

struct RangeRow {
    const char* what;
    const char* column;
    int FileConfiguration::*field;
    const char* stored;
    bool refused;
};

// A stored number an int cannot hold is refused: cut to 32 bits an id or a reference would
// name another record, and writing the record back would write over that one.
TEST(RecordCodecTest, StoredNumbersAnIntCannotHoldAreRefusedNotCut) {
    const RangeRow rows[] = {
        {"the largest int", "parent_file_id", &FileConfiguration::parentFileId, "2147483647",
         false},
        {"the smallest int", "privileges", &FileConfiguration::privileges, "-2147483648", false},
        {"one more", "parent_file_id", &FileConfiguration::parentFileId, "2147483648", true},
        {"one less", "privileges", &FileConfiguration::privileges, "-2147483649", true},
        {"a reference that cuts to the root", "folder_id", &FileConfiguration::folderId,
         "4294967296 + root_id", true},
        {"a text of a large number", "inherited_id", &FileConfiguration::inheritedId,
         "'99999999999'", true},
    };
    for (const RangeRow& row : rows) {
        SCOPED_TRACE(row.what);
        SqliteStore store;
        FolderConfiguration root;
        root.localPath = "/home/u/Docs";
        root.serverPath = root.path = "/Docs";
        ASSERT_TRUE(store.folders->AddFolder(root));
        FileConfiguration file;
        file.rootId = file.folderId = root.id;
        file.localPath = root.localPath + "/a.txt";
        file.serverPath = root.serverPath + "/a.txt";
        ASSERT_TRUE(store.files->AddFile(file));
        sync::test::ExecOnFile(store.Path(), QStringLiteral("UPDATE files SET %1 = %2")
                                                 .arg(row.column, row.stored)
                                                 .toUtf8()
                                                 .constData());
        if (row.refused) {
            EXPECT_THROW(store.files->GetFileById(file.id), sync::database::DatabaseException);
            EXPECT_THROW(store.files->GetFilesByRootId(root.id), sync::database::DatabaseException);
        } else {
            EXPECT_EQ(store.files->GetFileById(file.id).*row.field, QString(row.stored).toInt());
        }
    }
}

}  // namespace
