// The event store read from an existing SQL Server table (read-only). Its rows carry the
// store's columns with the time kept as [time_stamp] in UTC; the view's times are made
// by the server, with a time zone name (servers from version 13 on, which know
// AT TIME ZONE) or with a fixed minute offset.
//
// This build makes the adaptor's SQL texts; it has no server client, so the dataset
// operations raise EEventStoreError.
#pragma once

#include "view/evt_db_adaptor.h"

#include <cstdint>
#include <string>

namespace qvx {

class TEvtMSSQLAdaptor : public TEvtSQLAdaptor {
public:
  static constexpr const char* kServerVersionSQL = "SELECT SERVERPROPERTY('ProductMajorVersion')";
  // The first server major version that knows AT TIME ZONE (SQL Server 2016).
  static constexpr int kTimeZoneVersion = 13;

  // What SERVERPROPERTY('ProductMajorVersion') gave, and the view's zone.
  void SetServerMajorVersion(int AVersion) { FServerVersion = AVersion; }
  void SetTimeZone(const std::string& AZoneName, int32_t AMinuteOffset) {
    FZoneName = AZoneName;
    FMinuteOffset = AMinuteOffset;
  }
  bool UsesTimeZoneName() const { return FServerVersion >= kTimeZoneVersion && !FZoneName.empty(); }

  // The time columns of the select, in the zone form or the minute-offset form.
  std::string TimeColumns() const;
  // The query: "TOP n" in place of LIMIT.
  std::string BuildQuery() const override;
  // The table's row count from the server's partition statistics.
  std::string RowCountSQL() const;
  // True when the current row does not pass the flag filter.
  bool RecordFilteredOut() const { return FieldInt("_Flt") == 0; }

  int FindField(const std::string&) const override { return -1; }
  std::string FieldText(const std::string&) const override { Unavailable(); }
  int64_t FieldInt(const std::string&) const override { Unavailable(); }
  bool FieldIsNull(const std::string&) const override { Unavailable(); }
  void Open() override { Unavailable(); }
  void Close() override {}
  void Requery() override { Unavailable(); }
  void First() override { Unavailable(); }
  void Next() override { Unavailable(); }
  void Prior() override { Unavailable(); }
  void Last() override { Unavailable(); }
  bool Eof() const override { return true; }
  bool Bof() const override { return true; }
  void InitThreadDataSet() override { Unavailable(); }
  void DoneThreadDataSet() override {}
  void AppendEvent(const TLiteRecord&) override { ReadOnly(); }
  void CreateTable() override { ReadOnly(); }
  void EmptyTable() override { ReadOnly(); }
  void DropAllIndexes() override {}
  void Cleanup() override {}
  void PrepareMerge() override { ReadOnly(); }
  void BeginBufferedOperation() override {}
  void EndBufferedOpearion() override {}
  void FlushBufferedOpearion() override {}
  int64_t GetBookmark() const override { return 0; }
  bool BookmarkValid(int64_t) const override { return false; }
  bool GotoBookmark(int64_t) override { Unavailable(); }
  bool Locate(const std::string&, const std::string&, bool) override { Unavailable(); }
  void Loaded() override {}
  void GetEventData(TEventData&) const override { Unavailable(); }
  bool GoToRecNo(int64_t) override { Unavailable(); }
  void ExecSQL(const std::string&) override { Unavailable(); }
  int64_t QueryIntValue(const std::string&) override { Unavailable(); }
  void BreakSQLExec() override {}

protected:
  std::string SelectTemplate() const override;
  void ReopenQuery() override { Unavailable(); }
  void CreateSortIndex(const std::string&) override {} // the server table keeps its own indexes

private:
  [[noreturn]] static void Unavailable();
  [[noreturn]] static void ReadOnly();
  int FServerVersion = 0;
  std::string FZoneName;
  int32_t FMinuteOffset = 0;
};

} // namespace qvx
