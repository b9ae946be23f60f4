#include "view/evt_mssql_adaptor.h"

namespace qvx {

namespace {

// Replaces every "%0:s" or "%0:d" of ATemplate with AValue.
std::string FormatIndexed(std::string ATemplate, const char* AMarker, const std::string& AValue) {
  const std::string marker = AMarker;
  for (size_t at = ATemplate.find(marker); at != std::string::npos;
       at = ATemplate.find(marker, at + AValue.size()))
    ATemplate.replace(at, marker.size(), AValue);
  return ATemplate;
}

} // namespace

void TEvtMSSQLAdaptor::Unavailable() {
  throw EEventStoreError("SQL Server stores cannot be opened: this build has no SQL Server client");
}

void TEvtMSSQLAdaptor::ReadOnly() {
  throw EEventStoreError("a SQL Server event table is read-only");
}

std::string TEvtMSSQLAdaptor::TimeColumns() const {
  if (UsesTimeZoneName())
    return FormatIndexed(
        " [time_stamp] AS [TimeStampUTC] ,  CONVERT(DATETIME, [time_stamp] AT TIME ZONE 'UTC' AT TIME "
        "ZONE %0:s) as [TimeStamp] ,  CONVERT(DATETIME, CONVERT(DATE, [time_stamp] AT TIME ZONE "
        "'UTC' AT TIME ZONE %0:s)) as [Date] ,  CONVERT(DATETIME, CONVERT(TIME, [time_stamp] AT "
        "TIME ZONE 'UTC' AT TIME ZONE %0:s)) as [Time] , ",
        "%0:s", SQLLiteral(FZoneName, tfwMSSQL));
  return FormatIndexed(
      " [time_stamp] AS [TimeStampUTC] ,  DATEADD(minute, %0:d, [time_stamp]) AS [TimeStamp],  "
      "CONVERT(DATETIME, CONVERT(DATE, DATEADD(minute, %0:d, [time_stamp]))) as [Date],  "
      "CONVERT(DATETIME, CONVERT(TIME, DATEADD(minute, %0:d, [time_stamp]))) as [Time], ",
      "%0:d", std::to_string(FMinuteOffset));
}

std::string TEvtMSSQLAdaptor::SelectTemplate() const {
  std::string top;
  if (FLimit > 0) top.append("TOP ").append(std::to_string(FLimit)).append(" ");
  return "Select " + top +
         "[_ID], [Type], Case  WHEN [Type] = 0 THEN '0'              WHEN [Type] = 1 THEN 'Verbose'        "
         "WHEN "
         "[Type] = 2 THEN 'Information'    WHEN [Type] = 3 THEN 'Warning'        WHEN [Type] = 4 THEN "
         "'Error'          "
         "WHEN [Type] = 5 THEN 'Critical'       WHEN [Type] = 12 THEN 'Audit Success'  WHEN [Type] = 13 THEN "
         "'Audit "
         "Failure'  ELSE ''   END as [TypeStr]," +
         TimeColumns() +
         " [EventID], [Source], [CategoryName], [UserName], [Computer], [RecordNumber], [EventLog], "
         "[EvtXML], "
         "[Descr],  %s [_Bmrk], [_Flt]  FROM %s ";
}

std::string TEvtMSSQLAdaptor::BuildQuery() const {
  std::string sql = FormatSQL(SelectTemplate(), {CustomColumnList(), FTableName});
  if (!FWhere.empty()) sql.append(" WHERE ").append(FWhere);
  if (!FOrderBy.empty()) sql.append(" ORDER BY ").append(FOrderBy);
  return sql;
}

std::string TEvtMSSQLAdaptor::RowCountSQL() const {
  return FormatSQL(
      "SELECT SUM(spa.rows) rowcnt FROM sys.tables sta INNER JOIN sys.partitions spa ON spa.OBJECT_ID = "
      "sta.OBJECT_ID WHERE sta.name <> 'sysdiagrams' AND spa.index_id IN (0,1) AND sta.name = %s ",
      {SQLLiteral(FTableName, tfwMSSQL)});
}

} // namespace qvx
