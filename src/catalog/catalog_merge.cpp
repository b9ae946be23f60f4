// Catalog summaries and merging.
#include "catalog/catalog_file.h"
#include "catalog/catalog_schema.h"
#include "catalog/message_catalog.h"
#include "catalog/sqlite_handle.h"

#include <algorithm>
#include <filesystem>
#include <unordered_map>

namespace qvx {

using namespace catalog;

TCatalogInfo ReadCatalogInfo(const std::string& APath) {
  TSqliteDb db(APath, false);
  CheckCatalog(db);
  TCatalogInfo info;
  info.File = APath;
  TSqliteStatement totals(db, "SELECT (SELECT count(*) FROM message_table), (SELECT count(*) FROM message)");
  if (totals.Step()) {
    info.Tables = totals.Int(0);
    info.Messages = totals.Int(1);
  }
  TSqliteStatement origins(
      db, "SELECT o.name, o.product, o.build, o.created, o.languages, "
          "(SELECT count(*) FROM provider p WHERE p.origin_id = o.id AND p.kind = 0), "
          "(SELECT count(*) FROM provider p WHERE p.origin_id = o.id AND p.kind = 1), "
          "(SELECT count(*) FROM file f WHERE f.origin_id = o.id), "
          "(SELECT count(*) FROM event e JOIN provider p ON p.id = e.provider_id WHERE p.origin_id = o.id) "
          "FROM origin o ORDER BY o.id");
  while (origins.Step()) {
    TCatalogOriginInfo origin;
    origin.Name.assign(origins.Text(0).substr(0, 256));
    origin.Product.assign(origins.Text(1).substr(0, 256));
    origin.Build = origins.Int(2);
    origin.Created.assign(origins.Text(3).substr(0, 64));
    origin.Languages.assign(origins.Text(4).substr(0, 1024));
    origin.Publishers = origins.Int(5);
    origin.ClassicSources = origins.Int(6);
    origin.Files = origins.Int(7);
    origin.Events = origins.Int(8);
    info.Origins.push_back(std::move(origin));
  }
  return info;
}

namespace {

// Copies every origin of one checked catalog into the output, renumbering its rows.
class TMergeInput {
public:
  TMergeInput(TSqliteDb& AIn, TSqliteDb& AOut, std::unordered_map<std::string, int64_t>& ATables)
      : FIn(AIn), FOut(AOut), FTables(ATables) {}

  void Run() {
    CopyOrigins();
    CopyTables();
    CopyFiles();
    CopyProviders();
    CopyProviderRows();
  }

private:
  static int64_t Mapped(const std::unordered_map<int64_t, int64_t>& AMap, int64_t AId) {
    const auto it = AMap.find(AId);
    return it == AMap.end() ? -1 : it->second;
  }

  void CopyOrigins() {
    TSqliteStatement read(FIn, "SELECT id, name, product, build, created, languages FROM origin");
    TSqliteStatement write(FOut, "INSERT INTO origin(name,product,build,created,languages) VALUES(?,?,?,?,?)");
    // An origin already merged (the same catalog given twice, or a catalog merged with one
    // made from it) is kept once: its files and providers are not copied again.
    TSqliteStatement same(FOut, "SELECT id FROM origin WHERE name IS ? AND product IS ? AND build IS ? AND "
                                "created IS ? AND languages IS ?");
    while (read.Step()) {
      same.Bind(1, read.Text(1)).Bind(2, read.Text(2)).Bind(3, read.Int(3)).Bind(4, read.Text(4)).Bind(5, read.Text(5));
      const bool known = same.Step();
      same.Reset();
      if (known) continue;
      write.Bind(1, read.Text(1)).Bind(2, read.Text(2)).Bind(3, read.Int(3)).Bind(4, read.Text(4)).Bind(5, read.Text(5)).Run();
      FOrigins[read.Int(0)] = FOut.LastInsertId();
    }
  }

  // Each table's digest is worked out again from its messages: a stored digest is not trusted.
  void CopyTables() {
    TSqliteStatement tables(FIn, "SELECT id FROM message_table ORDER BY id");
    TSqliteStatement messages(FIn, "SELECT id, text FROM message WHERE table_id = ? ORDER BY id");
    TSqliteStatement insertTable(FOut, "INSERT INTO message_table(digest,messages) VALUES(?,?)");
    TSqliteStatement insertMessage(FOut, "INSERT OR IGNORE INTO message(table_id,id,text) VALUES(?,?,?)");
    std::vector<int64_t> ids;
    while (tables.Step()) ids.push_back(tables.Int(0));
    for (const int64_t id : ids) {
      std::vector<std::pair<uint32_t, std::string>> content;
      messages.Bind(1, id);
      while (messages.Step()) content.emplace_back(static_cast<uint32_t>(messages.Int(0)), std::string(messages.Text(1)));
      messages.Reset();
      const std::string digest = TableDigest(content);
      const auto known = FTables.find(digest);
      if (known != FTables.end()) {
        FTableIds[id] = known->second;
        continue;
      }
      insertTable.Bind(1, digest).Bind(2, static_cast<int64_t>(content.size())).Run();
      const int64_t stored = FOut.LastInsertId();
      for (const auto& [message, text] : content)
        insertMessage.Bind(1, stored).Bind(2, static_cast<int64_t>(message)).Bind(3, text).Run();
      FTables.emplace(digest, stored);
      FTableIds[id] = stored;
    }
  }

  void CopyFiles() {
    TSqliteStatement read(FIn, "SELECT id, origin_id, path, name, version, loaded FROM file");
    TSqliteStatement write(FOut, "INSERT INTO file(origin_id,path,name,version,loaded) VALUES(?,?,?,?,?)");
    while (read.Step()) {
      const int64_t origin = Mapped(FOrigins, read.Int(1));
      if (origin < 0) continue;
      write.Bind(1, origin).Bind(2, read.Text(2)).Bind(3, read.Text(3)).Bind(4, read.Text(4)).Bind(5, read.Int(5)).Run();
      FFiles[read.Int(0)] = FOut.LastInsertId();
    }
    TSqliteStatement tables(FIn, "SELECT file_id, language, table_id FROM file_table");
    TSqliteStatement insert(FOut, "INSERT OR IGNORE INTO file_table(file_id,language,table_id) VALUES(?,?,?)");
    while (tables.Step()) {
      const int64_t file = Mapped(FFiles, tables.Int(0)), table = Mapped(FTableIds, tables.Int(2));
      if (file >= 0 && table >= 0) insert.Bind(1, file).Bind(2, tables.Text(1)).Bind(3, table).Run();
    }
  }

  void CopyProviders() {
    TSqliteStatement read(FIn, "SELECT id, origin_id, kind, name, name_key, guid, log FROM provider");
    TSqliteStatement write(FOut, "INSERT INTO provider(origin_id,kind,name,name_key,guid,log) VALUES(?,?,?,?,?,?)");
    while (read.Step()) {
      const int64_t origin = Mapped(FOrigins, read.Int(1));
      if (origin < 0) continue;
      write.Bind(1, origin).Bind(2, read.Int(2)).Bind(3, read.Text(3)).Bind(4, read.Text(4)).Bind(5, read.Text(5))
          .Bind(6, read.Text(6)).Run();
      FProviders[read.Int(0)] = FOut.LastInsertId();
    }
  }

  // The rows that hang off a provider: its files and its metadata.
  void CopyProviderRows() {
    {
      TSqliteStatement read(FIn, "SELECT provider_id, role, position, file_id FROM provider_file");
      TSqliteStatement write(FOut, "INSERT OR IGNORE INTO provider_file(provider_id,role,position,file_id) VALUES(?,?,?,?)");
      while (read.Step()) {
        const int64_t provider = Mapped(FProviders, read.Int(0)), file = Mapped(FFiles, read.Int(3));
        if (provider >= 0 && file >= 0) write.Bind(1, provider).Bind(2, read.Int(1)).Bind(3, read.Int(2)).Bind(4, file).Run();
      }
    }
    struct TCopy {
      const char* Read;
      const char* Write;
      int Columns; // after provider_id
    };
    static constexpr TCopy kCopies[] = {
        {"SELECT provider_id, id, version, channel, level, opcode, task, keywords, message_id FROM event",
         "INSERT OR IGNORE INTO event VALUES(?,?,?,?,?,?,?,?,?)", 8},
        {"SELECT provider_id, value, message_id, name FROM task", "INSERT OR IGNORE INTO task VALUES(?,?,?,?)", 3},
        {"SELECT provider_id, task, value, message_id, name FROM opcode", "INSERT OR IGNORE INTO opcode VALUES(?,?,?,?,?)", 4},
        {"SELECT provider_id, mask, message_id, name FROM keyword", "INSERT OR IGNORE INTO keyword VALUES(?,?,?,?)", 3},
        {"SELECT provider_id, value, message_id, name FROM level", "INSERT OR IGNORE INTO level VALUES(?,?,?,?)", 3},
        {"SELECT provider_id, value, message_id, name FROM channel", "INSERT OR IGNORE INTO channel VALUES(?,?,?,?)", 3},
    };
    for (const TCopy& copy : kCopies) {
      TSqliteStatement read(FIn, copy.Read);
      TSqliteStatement write(FOut, copy.Write);
      while (read.Step()) {
        const int64_t provider = Mapped(FProviders, read.Int(0));
        if (provider < 0) continue;
        write.Bind(1, provider);
        // The name columns are text, the others integers.
        for (int c = 1; c <= copy.Columns; ++c) {
          if (c == copy.Columns && copy.Columns != 8)
            write.Bind(c + 1, read.Text(c));
          else
            write.Bind(c + 1, read.Int(c));
        }
        write.Run();
      }
    }
  }

  TSqliteDb& FIn;
  TSqliteDb& FOut;
  std::unordered_map<std::string, int64_t>& FTables;
  std::unordered_map<int64_t, int64_t> FOrigins, FTableIds, FFiles, FProviders;
};

} // namespace

void MergeCatalogs(const std::vector<std::string>& AInputs, const std::string& AOutput) {
  namespace fs = std::filesystem;
  // Every input is checked before anything is written.
  for (const std::string& input : AInputs) {
    TSqliteDb db(input, false);
    CheckCatalog(db);
  }
  const std::string partial = AOutput + ".partial";
  std::error_code error;
  fs::remove(partial, error);
  try {
    {
      TSqliteDb out(partial, true);
      WriteCatalogHeader(out);
      out.Exec("BEGIN");
      std::unordered_map<std::string, int64_t> tables;
      for (const std::string& input : AInputs) {
        TSqliteDb in(input, false);
        TMergeInput(in, out, tables).Run();
      }
      out.Exec("COMMIT");
    }
    fs::rename(partial, AOutput, error);
    if (error) RaiseCatalogError(AOutput, "cannot be written: " + error.message());
  } catch (...) {
    fs::remove(partial, error);
    throw;
  }
}

} // namespace qvx
