// What the browser's view asks of an event store, answered as JSON: pages of rows of a
// filtered, sorted query, one event's details, distinct values, statistics, bookmarks and
// exports. The handlers of the web server only parse a request and call this.
//
// One store connection serves every request, one request at a time: the query of the
// view (filter and order) stays open between pages, and its row _IDs are read once, so
// a page anywhere in a million rows is a few lookups.
#pragma once

#include "filter/event_filter.h"
#include "view/color_codes.h"
#include "view/evt_lite_adaptor.h"
#include "view/store_rows.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qvx::server {

// A request that cannot be answered as asked: the message is for the user.
class ERequestError : public std::invalid_argument {
public:
  using std::invalid_argument::invalid_argument;
};

// The rows a view shows: its filter (the JSON of filter/filter_json.h), bookmarked rows
// only, rows with a detection of a level, and the order.
struct TViewQuery {
  TEventFilter Filter;
  bool Bookmarked = false;
  std::string Sort;        // a store column; "" keeps the load order
  bool Descending = false;

  // From {"filter": {...}, "bookmarked": true, "detectionLevel": 2, "sort": "EventID",
  // "descending": false}; raises ERequestError naming the member.
  static TViewQuery FromJson(const nlohmann::json& AJson);
};

// A call made while a load runs.
class EStoreBusy : public std::runtime_error {
public:
  EStoreBusy() : std::runtime_error("logs are being loaded; the view follows when they are") {}
};

class TStoreSession {
public:
  // Opens the store (raises EEventStoreError naming it). AShiftMinutes is the time zone
  // offset of the store's times, for "the last N hours".
  TStoreSession(const std::string& AStoreFile, int AShiftMinutes);

  void SetColorCodes(TColorCodes ACodes) { FCodes = std::move(ACodes); }
  void SetTimeZoneName(std::string AName) { FZoneName = std::move(AName); }

  // Time zones. The store holds times as shown in the zone it was loaded in; the page may
  // show them in another. AShiftOf gives a zone's offset in minutes at a UTC day count
  // (raising std::invalid_argument for an unknown zone); AZones lists the known zones.
  using TShiftAt = std::function<int(double AUtcDays)>;
  void SetZones(std::function<TShiftAt(const std::string&)> AShiftOf, nlohmann::json AZones);
  // {"store": zone, "display": zone, "zones": [...]}
  nlohmann::json Zones();
  // Shows times in AName from now on ("" or the store's zone: as stored). Raises
  // ERequestError for an unknown zone.
  void SetDisplayZone(const std::string& AName);

  // {"store", "timeZone", "total", "columns": [{"name", "title", "numeric"}], "logs": [...],
  //  "detections": bool}
  nlohmann::json Info();
  // {"count": rows in view, "offset", "rows": [{...}]}; ACount is capped at 1000.
  nlohmann::json Rows(const TViewQuery& AQuery, int64_t AOffset, int64_t ACount);
  // The position of the row with _ID AId in the view, or -1.
  int64_t IndexOf(const TViewQuery& AQuery, int64_t AId);
  // {"id", "fields": {...}, "description", "data": [{"name", "value"}], "xml", "detections": [...]}.
  // Raises ERequestError for an _ID the store does not have.
  nlohmann::json Event(int64_t AId);
  // [{"value", "count"}] of a text column (Source, CategoryName, UserName, Computer), most first.
  nlohmann::json Distinct(const std::string& AColumn, size_t ALimit = 1000);
  // {"total", "byType": [{"type", "count"}], "topSources": [...], "overTime": [...], "hourly"}.
  nlohmann::json Statistics(const TViewQuery& AQuery);
  // Sets or clears the bookmark of a row; gives the number of bookmarked rows.
  int64_t Bookmark(int64_t AId, bool AOn);
  // Writes the view's rows in AFormat through AWrite, in pieces; AWrite returns false to stop.
  void Export(const TViewQuery& AQuery, TStoreRowFormat AFormat, const std::function<bool(std::string_view)>& AWrite);

  // Runs ALoad on the store with every other call kept out (they raise EStoreBusy
  // meanwhile), then forgets what it knew of the rows.
  void RunLoad(const std::function<void(TEvtLiteAdaptor&)>& ALoad);
  bool Loading() const { return FLoading; }

  // The WHERE text of a view (our own SQL text: the filter object's clauses).
  std::string WhereOf(const TViewQuery& AQuery);

private:
  // Makes AQuery the dataset's query (a no-op when it already is); gives its row count.
  int64_t Select(const TViewQuery& AQuery);
  void AppendRow(nlohmann::json& ARows, const TEventData& ARow) const;
  // A stored time text as the display zone shows it; a day count of the display zone in
  // the store's zone.
  std::string ShownTime(const std::string& AStored) const;
  double StoreDays(double AShownDays) const;

  // Raises EStoreBusy while a load runs.
  void CheckIdle() const {
    if (FLoading) throw EStoreBusy();
  }

  std::recursive_mutex FLock;
  std::atomic<bool> FLoading{false};
  TEvtLiteAdaptor FStore;
  int FShiftMinutes = 0;
  std::string FZoneName;
  std::function<TShiftAt(const std::string&)> FShiftOf;
  nlohmann::json FZones = nlohmann::json::array();
  TShiftAt FStoreShift, FDisplayShift; // FDisplayShift unset: times as stored
  std::string FDisplayName;
  TColorCodes FCodes;
  bool FHasDetections = false;
  // Makes sure the open query can reach row AIndex at once: beyond the rows stepped so far,
  // the query's _IDs are read in one go.
  void Reach(int64_t AIndex);

  std::string FQueryKey; // the WHERE and ORDER BY of the open query
  bool FLazy = false;    // the query is stepped row by row (its _IDs not read yet)
  int64_t FQueryCount = 0;
  // The row _IDs of the last few queries, newest first: going back to an earlier order or
  // filter costs no query. Dropped when rows change (bookmarks of a bookmarked view).
  std::list<std::pair<std::string, std::vector<int64_t>>> FIdCache;
  // Distinct values by column: a scan of the whole table each, kept until the rows change.
  std::map<std::string, nlohmann::json> FDistinct;
  TEventData FRow;
};

} // namespace qvx::server
