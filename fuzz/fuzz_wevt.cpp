// Fuzz target: a WEVT_TEMPLATE resource (layout in descriptions/provider_metadata.h).
//
// The input is the resource as a provider's module holds it. Every provider GUID its
// header lists (up to 64 of them, as far as the input holds entries) is processed, plus
// one GUID that no entry has, and each table is queried: every event by its identifier
// and version and by a version it lacks, a few fixed identifiers, and every task.
// Seeds: raw resources such as samples/pe/dissect-eventlog/services.wevt.
#include <cstddef>
#include <cstdint>
#include <span>

#include "descriptions/provider_metadata.h"
#include "platform/byte_reader.h"

namespace {

volatile uint32_t GSink;

void Exercise(const qvx::TProviderGuid& AGuid, std::span<const uint8_t> AResource) {
  qvx::TGuidProvider provider;
  provider.SetGuid(AGuid);
  provider.Process(AResource);
  uint32_t sum = 0;
  for (size_t i = 0; i < provider.EventCount(); ++i) {
    const qvx::TEventInfo& ev = provider.GetEvent(i);
    sum += provider.GetFullEventID(ev.Id, ev.Version);
    sum += provider.GetFullEventID(ev.Id, static_cast<uint8_t>(ev.Version + 1));
  }
  for (uint16_t id : {0, 1, 100, 4624, 7036, 0xFFFF}) sum += provider.GetFullEventID(id, 0);
  for (size_t i = 0; i < provider.TaskCount(); ++i)
    sum += provider.GetFullTaskID(provider.GetTask(i).Value);
  sum += provider.GetFullTaskID(0);
  GSink = sum;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::span<const uint8_t> resource(AData, ASize);
  const qvx::TByteReader reader(resource);
  const uint32_t count = reader.ReadU32(qvx::wevt::kOfsProviderCount);
  for (uint64_t i = 0; i < count && i < 64; ++i) {
    const uint64_t entry = qvx::wevt::kResourceHeaderSize + i * qvx::wevt::kProviderEntrySize;
    if (!reader.Fits(entry, qvx::wevt::kProviderEntrySize)) break;
    Exercise(qvx::TProviderGuid::FromBytes(reader.ReadBytes(entry, 16)), resource);
  }
  Exercise(qvx::TProviderGuid{0x0123456789ABCDEFull, 0xFEDCBA9876543210ull}, resource);
  return 0;
}
