// The filter object as JSON, for front ends that take filters from requests.
//
//   {
//     "types": ["error", "warning"],                      // absent: every type
//     "sources":   {"values": ["Disk"], "exclude": false}, // also categories, users, computers
//     "ids": "4624,4625-4630!4627", "idsExcept": false,
//     "descr": {"text": "logon", "regex": false, "exclude": false},
//     "caseSensitive": false,
//     "from": "2024-03-01 00:00:00", "to": "2024-03-02", "dateExclude": false,
//     "last": {"days": 1, "hours": 6, "exclude": false},
//     "params":  [{"name": "TargetUserName", "op": "equals", "value": "bob"}],
//     "columns": [{"number": 1, "op": "contains", "value": "x"}],
//     "minDetectionLevel": "high"                         // or 0..4; events with a Sigma detection
//   }
//
// Every member is optional. Values are only ever data of the filter object: they reach
// SQL through its own quoting, never as text of their own.
#pragma once

#include "filter/event_filter.h"

#include <nlohmann/json_fwd.hpp>

#include <stdexcept>

namespace qvx {

// A member of the wrong type or an unknown name, type or operator: the message names the member.
class EFilterJsonError : public std::invalid_argument {
public:
  using std::invalid_argument::invalid_argument;
};

// The filter a JSON object describes (raises EFilterJsonError).
TEventFilter FilterFromJson(const nlohmann::json& AJson);
// The JSON object of a filter (only the members that restrict something).
nlohmann::json FilterToJson(const TEventFilter& AFilter);

// Operator names of conditions: "equals", "notEqual", "contains", "notContains", "matches",
// "notMatches", "inList", "notInList", "greater", "less".
const char* ConditionOperName(int32_t AOper);

} // namespace qvx
