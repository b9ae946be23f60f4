// Fuzz target: a filter as a browser request carries it, JSON mapped onto the filter
// object. The mapping either takes the input or refuses it with EFilterJsonError (bad
// JSON is refused by the parser first), and the store refuses a custom column it does not
// have with ESQLNameError; none may crash or hang. A filter it takes must
// give a WHERE text that SQLite compiles as one expression over a store with three custom
// columns, and survive a round trip through its JSON. Seeds: filters written by
// qvx_fuzz_seeds (fuzz/write_seeds.cpp).
#include "filter/filter_json.h"
#include "filter_store.h"

#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const nlohmann::json request = nlohmann::json::parse(AData, AData + ASize, nullptr, false);
  if (request.is_discarded()) return 0;
  try {
    const qvx::TEventFilter filter = qvx::FilterFromJson(request);
    CheckWhereCompiles(filter.CreateSQLWhere(qvx::tfwSQLite, 0, FilterStore().FieldKindOf()));
    const qvx::TEventFilter again = qvx::FilterFromJson(qvx::FilterToJson(filter));
    if (again.CreateSQLWhere(qvx::tfwSQLite, 0, FilterStore().FieldKindOf()) !=
        filter.CreateSQLWhere(qvx::tfwSQLite, 0, FilterStore().FieldKindOf())) {
      std::fprintf(stderr, "a filter's JSON does not give the same filter back\n");
      std::abort();
    }
  } catch (const qvx::EFilterJsonError&) {
  } catch (const qvx::ESQLNameError&) { // a custom column the store does not have
  }
  return 0;
}
