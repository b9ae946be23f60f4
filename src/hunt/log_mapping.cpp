#include "hunt/log_mapping.h"

#include "hunt/event_fields.h"
#include "hunt/sigma_yaml.h"

#include <algorithm>

namespace qvx::hunt {

extern const char* const kWindowsMappingText; // windows_mapping.yml, generated at build time

namespace {

std::vector<std::string> TextList(const TYamlNode& ANode, const std::string& AFile, const char* AWhat) {
  std::vector<std::string> out;
  if (ANode.IsScalar()) {
    out.push_back(ANode.Text);
    return out;
  }
  if (!ANode.IsList()) RaiseSigmaError(AFile, ANode.Line, std::string(AWhat) + " must be a value or a list");
  for (const TYamlNode& item : ANode.Items) {
    if (!item.IsScalar()) RaiseSigmaError(AFile, item.Line, std::string(AWhat) + " must hold plain values");
    out.push_back(item.Text);
  }
  return out;
}

} // namespace

TLogMapping TLogMapping::Parse(const std::string& AText, const std::string& AFile) {
  const std::vector<TYamlNode> documents = ParseYamlDocuments(AText, AFile);
  if (documents.size() != 1 || !documents[0].IsMap()) RaiseSigmaError(AFile, 0, "a mapping file is one YAML map");
  const TYamlNode& root = documents[0];
  TLogMapping mapping;
  mapping.FProduct = FoldText(root.TextOf("product"));
  if (const TYamlNode* services = root.Find("services")) {
    if (!services->IsMap()) RaiseSigmaError(AFile, services->Line, "'services' must be a map");
    for (const auto& [name, channels] : services->Entries)
      mapping.FServices.emplace_back(FoldText(name), TextList(channels, AFile, "a service's channels"));
  }
  if (const TYamlNode* categories = root.Find("categories")) {
    if (!categories->IsMap()) RaiseSigmaError(AFile, categories->Line, "'categories' must be a map");
    for (const auto& [name, sources] : categories->Entries) {
      if (!sources.IsList()) RaiseSigmaError(AFile, sources.Line, "a category is a list of sources");
      std::vector<TLogSourceVariant> variants;
      for (const TYamlNode& source : sources.Items) {
        if (!source.IsMap()) RaiseSigmaError(AFile, source.Line, "a category's source is a map");
        TLogSourceVariant variant;
        variant.Channel = source.TextOf("channel");
        if (variant.Channel.empty()) RaiseSigmaError(AFile, source.Line, "a source without 'channel'");
        if (const TYamlNode* ids = source.Find("event_ids"))
          for (const std::string& id : TextList(*ids, AFile, "event_ids")) {
            if (id.empty() || id.size() > 5 || id.find_first_not_of("0123456789") != std::string::npos)
              RaiseSigmaError(AFile, ids->Line, "not an event ID: " + id);
            variant.EventIds.insert(static_cast<uint32_t>(std::stoul(id)));
          }
        if (const TYamlNode* fields = source.Find("fields")) {
          if (!fields->IsMap()) RaiseSigmaError(AFile, fields->Line, "'fields' must be a map");
          for (const auto& [from, to] : fields->Entries) {
            if (!to.IsScalar()) RaiseSigmaError(AFile, to.Line, "a field maps to one event field name");
            variant.Fields.emplace_back(from, to.Text);
          }
        }
        if (const TYamlNode* where = source.Find("where")) {
          if (!where->IsMap()) RaiseSigmaError(AFile, where->Line, "'where' must be a map");
          for (const auto& [field, values] : where->Entries)
            variant.Where.emplace_back(field, TextList(values, AFile, "a 'where' value"));
        }
        variants.push_back(std::move(variant));
      }
      mapping.FCategories.emplace_back(FoldText(name), std::move(variants));
    }
  }
  return mapping;
}

const TLogMapping& TLogMapping::Windows() {
  static const TLogMapping mapping = Parse(kWindowsMappingText, "windows_mapping.yml");
  return mapping;
}

std::vector<TLogSourceVariant> TLogMapping::Resolve(const std::string& AProduct, const std::string& ACategory,
                                                    const std::string& AService, std::string& AReason) const {
  if (!AProduct.empty() && AProduct != FProduct) {
    AReason = "the log source product '" + AProduct + "' is not " + FProduct;
    return {};
  }
  if (AProduct.empty() && ACategory.empty() && AService.empty()) {
    AReason = "the rule names no log source";
    return {};
  }
  const std::vector<std::string>* serviceChannels = nullptr;
  if (!AService.empty()) {
    for (const auto& [name, channels] : FServices)
      if (name == AService) serviceChannels = &channels;
    if (!serviceChannels) {
      AReason = "no Windows log is known for the log source service '" + AService + "'";
      return {};
    }
  }
  std::vector<TLogSourceVariant> variants;
  if (!ACategory.empty()) {
    const std::vector<TLogSourceVariant>* found = nullptr;
    for (const auto& [name, sources] : FCategories)
      if (name == ACategory) found = &sources;
    if (!found) {
      AReason = "no Windows log holds the log source category '" + ACategory + "'";
      return {};
    }
    for (const TLogSourceVariant& variant : *found) {
      // A service narrows a category to its own channels.
      if (serviceChannels && std::none_of(serviceChannels->begin(), serviceChannels->end(), [&](const std::string& c) {
            return EqualFolded(c, variant.Channel);
          }))
        continue;
      variants.push_back(variant);
    }
    if (variants.empty())
      AReason = "the log source category '" + ACategory + "' is not in the channels of service '" + AService + "'";
    return variants;
  }
  if (serviceChannels) {
    for (const std::string& channel : *serviceChannels) variants.push_back(TLogSourceVariant{channel, {}, {}, {}});
    return variants;
  }
  variants.push_back(TLogSourceVariant{"*", {}, {}, {}});
  return variants;
}

} // namespace qvx::hunt
