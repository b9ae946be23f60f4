// The message catalog file: one SQLite database, readable by any SQLite tool.
//
// Identification: PRAGMA application_id = 0x51564354 ("QVCT"), and the row
// catalog_info('schema_version') = kCatalogSchemaVersion. A reader refuses a file with
// another application id, another schema version, a missing table or column, or pages
// that fail SQLite's quick check.
//
//   catalog_info   key, value            format ("quorvex message catalog"), schema_version
//   origin         id, name, product, build, created, languages
//                  one installation the catalog was built from; "build" is its build
//                  number (newer installations win), "languages" the message table
//                  languages in order of preference, comma-separated ("de-DE,en-US")
//   provider       id, origin_id, kind (0 publisher, 1 classic source), name, name_key
//                  (name in ASCII lower case), guid ("{…}" or ""), log (classic: its log)
//   file           id, origin_id, path (inside the installation, "\"-separated, lower
//                  case), name, version ("10.0.22621.1" or ""), loaded (1: the module read)
//   provider_file  provider_id, role (0 event, 1 category, 2 parameter), position, file_id
//   message_table  id, digest (of its messages), messages (count); a table is stored once
//                  however many files and languages share it
//   file_table     file_id, language, table_id: the table a file answers with in that
//                  language (its own table, else its language satellite)
//   message        table_id, id, text: the message as the table holds it (UTF-8,
//                  inserts and escapes unformatted)
//   event          provider_id, id, version, channel, level, opcode, task, keywords,
//                  message_id
//   task, level, channel      provider_id, value, message_id, name
//   opcode         provider_id, task, value, message_id, name
//   keyword        provider_id, mask, message_id, name
#pragma once

#include <cstdint>

namespace qvx::catalog {

inline constexpr int64_t kApplicationId = 0x51564354; // "QVCT"
inline constexpr int64_t kCatalogSchemaVersion = 1;
inline constexpr const char* kCatalogFormat = "quorvex message catalog";
// The longest text or blob a reader takes from a catalog (a message table entry holds at
// most 64 KiB; names are far shorter).
inline constexpr int kMaxCatalogValue = 1 << 20;

enum TProviderKind : int { pkPublisher = 0, pkClassic = 1 };
enum TFileRole : int { frEvent = 0, frCategory = 1, frParameter = 2 };

inline constexpr const char* kCatalogSchema = R"sql(
CREATE TABLE catalog_info(key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE origin(id INTEGER PRIMARY KEY, name TEXT NOT NULL, product TEXT NOT NULL, build INTEGER NOT NULL,
                    created TEXT NOT NULL, languages TEXT NOT NULL);
CREATE TABLE provider(id INTEGER PRIMARY KEY, origin_id INTEGER NOT NULL, kind INTEGER NOT NULL, name TEXT NOT NULL,
                      name_key TEXT NOT NULL, guid TEXT NOT NULL, log TEXT NOT NULL);
CREATE INDEX provider_name ON provider(name_key);
CREATE TABLE file(id INTEGER PRIMARY KEY, origin_id INTEGER NOT NULL, path TEXT NOT NULL, name TEXT NOT NULL,
                  version TEXT NOT NULL, loaded INTEGER NOT NULL);
CREATE TABLE provider_file(provider_id INTEGER NOT NULL, role INTEGER NOT NULL, position INTEGER NOT NULL,
                           file_id INTEGER NOT NULL, PRIMARY KEY(provider_id, role, position)) WITHOUT ROWID;
CREATE TABLE message_table(id INTEGER PRIMARY KEY, digest TEXT NOT NULL UNIQUE, messages INTEGER NOT NULL);
CREATE TABLE file_table(file_id INTEGER NOT NULL, language TEXT NOT NULL, table_id INTEGER NOT NULL,
                        PRIMARY KEY(file_id, language)) WITHOUT ROWID;
CREATE TABLE message(table_id INTEGER NOT NULL, id INTEGER NOT NULL, text TEXT NOT NULL,
                     PRIMARY KEY(table_id, id)) WITHOUT ROWID;
CREATE TABLE event(provider_id INTEGER NOT NULL, id INTEGER NOT NULL, version INTEGER NOT NULL,
                   channel INTEGER NOT NULL, level INTEGER NOT NULL, opcode INTEGER NOT NULL, task INTEGER NOT NULL,
                   keywords INTEGER NOT NULL, message_id INTEGER NOT NULL,
                   PRIMARY KEY(provider_id, id, version)) WITHOUT ROWID;
CREATE TABLE task(provider_id INTEGER NOT NULL, value INTEGER NOT NULL, message_id INTEGER NOT NULL,
                  name TEXT NOT NULL, PRIMARY KEY(provider_id, value)) WITHOUT ROWID;
CREATE TABLE opcode(provider_id INTEGER NOT NULL, task INTEGER NOT NULL, value INTEGER NOT NULL,
                    message_id INTEGER NOT NULL, name TEXT NOT NULL, PRIMARY KEY(provider_id, task, value)) WITHOUT ROWID;
CREATE TABLE keyword(provider_id INTEGER NOT NULL, mask INTEGER NOT NULL, message_id INTEGER NOT NULL,
                     name TEXT NOT NULL, PRIMARY KEY(provider_id, mask)) WITHOUT ROWID;
CREATE TABLE level(provider_id INTEGER NOT NULL, value INTEGER NOT NULL, message_id INTEGER NOT NULL,
                   name TEXT NOT NULL, PRIMARY KEY(provider_id, value)) WITHOUT ROWID;
CREATE TABLE channel(provider_id INTEGER NOT NULL, value INTEGER NOT NULL, message_id INTEGER NOT NULL,
                     name TEXT NOT NULL, PRIMARY KEY(provider_id, value)) WITHOUT ROWID;
)sql";

// The columns a reader needs, table by table (checked when a catalog is opened).
inline constexpr const char* kRequiredColumns[][2] = {
    {"catalog_info", "key,value"},
    {"origin", "id,name,product,build,created,languages"},
    {"provider", "id,origin_id,kind,name,name_key,guid,log"},
    {"file", "id,origin_id,path,name,version,loaded"},
    {"provider_file", "provider_id,role,position,file_id"},
    {"message_table", "id,digest,messages"},
    {"file_table", "file_id,language,table_id"},
    {"message", "table_id,id,text"},
    {"event", "provider_id,id,version,channel,level,opcode,task,keywords,message_id"},
    {"task", "provider_id,value,message_id,name"},
    {"opcode", "provider_id,task,value,message_id,name"},
    {"keyword", "provider_id,mask,message_id,name"},
    {"level", "provider_id,value,message_id,name"},
    {"channel", "provider_id,value,message_id,name"},
};

} // namespace qvx::catalog
