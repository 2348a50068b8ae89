#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>
#include <QVector>

#include "FileConfiguration.h"
#include "FileLink.h"
#include "FolderConfiguration.h"
#include "ServerConfiguration.h"

namespace sync {
namespace database {

class Query;

// Column lists of the records, in the order RecordCodec binds and reads them. A query selects
// the id first and then the value columns; the prefix qualifies the columns of a query that
// joins another table ("f." for files).
#define SYNC_DB_FOLDER_COLUMNS                                                                    \
    "authentication_id, root_id, inherited_id, name, server_attribute, path, local_path, "        \
    "local_path_key, server_path, parent_id, last_modified_ms, last_modified_zone, "              \
    "sync_scope, server_creation_failed, inherited_value, sync_option, privilege_info, "          \
    "privileges, server_root_path, server_folder_id, properties, last_sync_time_ms, "             \
    "last_sync_time_zone, last_server_sync_request_time_ms, last_server_sync_request_time_zone, " \
    "sync_status, user_flag"
#define SYNC_DB_FILE_COLUMNS(p)                                                               \
    p "folder_id, " p "root_id, " p "name, " p "local_path, " p "local_path_key, " p          \
      "server_path, " p "checksum, " p "content_type, " p "created_ms, " p "created_zone, " p \
      "last_modified_ms, " p "last_modified_zone, " p "size, " p "transfer_direction, " p     \
      "properties, " p "last_transfer_attempt_ms, " p "last_transfer_attempt_zone, " p        \
      "inherited_id, " p "generated_kind, " p "parent_file_id, " p "privilege_info, " p       \
      "privileges, " p "is_generated, " p "server_file_id, " p "server_checksum, " p          \
      "file_links, " p "server_modified_ms, " p "server_modified_zone, " p "sync_status, " p  \
      "references_only, " p "transfer_pending, " p "sync_status_set"
#define SYNC_DB_ACCOUNT_COLUMNS "name, kind, base_url, user_name, settings"

// Records to rows and back. Bind writes a record's values as parameters ?1..?Count (the id is
// not among them); Read takes column 0 as the id and the value columns after it.
//
// Values SQL has no type for:
// - a time is two columns, milliseconds since the epoch (NULL for a null time) and its kind:
//   0 local time, 1 UTC, 2 + 4 * offset seconds for a fixed offset, or the IANA id as text
//   for a named time zone, so that a time comes back in the zone it was stored in;
// - property maps, link lists and string lists are blobs in QDataStream's layout (version
//   5.15), written by hand because a QDataStream per record costs more than the whole row.
// - the lower-case local path is stored beside the path as the key of case-blind lookups.
class RecordCodec {
public:
    static constexpr int FolderValueCount = 27;
    static constexpr int FileValueCount = 32;
    static constexpr int AccountValueCount = 5;

    static void BindFolder(Query& q, const sync::config::FolderConfiguration& folder);
    static sync::config::FolderConfiguration ReadFolder(const Query& q);
    static void BindFile(Query& q, const sync::config::FileConfiguration& file);
    // Fills a record in place: a populated record is expensive to copy.
    static void ReadFile(const Query& q, sync::config::FileConfiguration& file);
    static void BindAccount(Query& q, const sync::config::ServerConfiguration& account);
    static sync::config::ServerConfiguration ReadAccount(const Query& q);

    // Two parameters, index and index + 1.
    static void BindTime(Query& q, int index, const QDateTime& value);
    // Two columns, column and column + 1.
    static QDateTime ReadTime(const Query& q, int column);

    static QByteArray EncodeProperties(const QMap<QString, QString>& properties);
    static QByteArray EncodeProperties(const sync::config::PropertyMap& properties);
    static QMap<QString, QString> DecodeProperties(const QByteArray& blob);
    // The properties of a file or folder record. A tree holds 100,000 records: short texts
    // that recur (names, version numbers) and maps equal to the previous record's are shared
    // instead of decoded anew. Not for account settings, which are kept no longer than asked.
    static QMap<QString, QString> DecodeRecordProperties(const QByteArray& blob);
    static sync::config::PropertyMap DecodeFileProperties(const QByteArray& blob);
    static QByteArray EncodeFileLinks(const QList<sync::config::FileLink>& links);
    static QList<sync::config::FileLink> DecodeFileLinks(const QByteArray& blob);
    static QByteArray EncodeStrings(const QVector<QString>& strings);
    static QVector<QString> DecodeStrings(const QByteArray& blob);

    // The key under which local paths are looked up without regard to case.
    static QString PathKey(const QString& localPath) { return localPath.toLower(); }
};

// The action log's arguments use the string-list layout.
namespace codec {
inline QByteArray EncodeStrings(const QVector<QString>& strings) {
    return RecordCodec::EncodeStrings(strings);
}
inline QVector<QString> DecodeStrings(const QByteArray& blob) {
    return RecordCodec::DecodeStrings(blob);
}
}  // namespace codec

}  // namespace database
}  // namespace sync
