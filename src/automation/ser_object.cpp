#include "automation/ser_object.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string_view>

#if defined(__GNUG__)
#include <cxxabi.h>
#endif

namespace qvx {

namespace {

// Whitespace-only text is kept when it is an element's only content, so a string
// property of spaces reads back as written.
constexpr unsigned kParseFlags = pugi::parse_default | pugi::parse_ws_pcdata_single;

// "Settings/Inner/Count": the element names from the document element down.
std::string ElementPath(pugi::xml_node ANode) {
  std::vector<std::string_view> parts;
  for (; ANode && ANode.type() == pugi::node_element; ANode = ANode.parent())
    parts.emplace_back(ANode.name());
  std::string path;
  for (auto it = parts.rbegin(); it != parts.rend(); ++it) {
    if (!path.empty()) path += '/';
    path.append(*it);
  }
  return path;
}

// Every bad value goes through here.
[[noreturn]] void BadValue(pugi::xml_node AElement, std::string_view AText, const char* AProblem) {
  std::string msg("element ");
  msg.append(ElementPath(AElement)).append(": \"").append(AText).append("\" ").append(AProblem);
  throw ESerLoadError(msg);
}

std::string_view Trimmed(const char* AText) {
  std::string_view s(AText);
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r' || s.front() == '\n'))
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return s;
}

int64_t ReadInteger(pugi::xml_node AElement, int64_t ALow, int64_t AHigh) {
  std::string_view s = Trimmed(AElement.text().get());
  int64_t value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec == std::errc::invalid_argument || (ec == std::errc() && end != s.data() + s.size()))
    BadValue(AElement, AElement.text().get(), "is not an integer");
  if (ec == std::errc::result_out_of_range || end != s.data() + s.size() || value < ALow || value > AHigh)
    BadValue(AElement, AElement.text().get(), "is out of range");
  return value;
}

bool ReadBool(pugi::xml_node AElement) {
  std::string_view s = Trimmed(AElement.text().get());
  if (s == "0") return false;
  if (s == "1") return true;
  BadValue(AElement, AElement.text().get(), "is not 0 or 1");
}

double ReadDouble(pugi::xml_node AElement) {
  std::string_view s = Trimmed(AElement.text().get());
  double value = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec == std::errc::invalid_argument || end != s.data() + s.size())
    BadValue(AElement, AElement.text().get(), "is not a number");
  if (ec == std::errc::result_out_of_range) BadValue(AElement, AElement.text().get(), "is out of range");
  return value;
}

std::string DoubleText(double AValue) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof(buf), AValue);
  return std::string(buf, ec == std::errc() ? end : buf);
}

void SetText(pugi::xml_node AElement, const std::string& AText) {
  AElement.text().set(AText.c_str());
}

} // namespace

namespace detail {

struct TSerWalker {
  // Stores that a load makes once every value has been read and checked.
  using TPending = std::vector<std::function<void()>>;

  static std::vector<TPropertyInfo> Properties(const TSerObject& AObj) {
    TPropertyList list;
    // DeclareProperties only takes the members' addresses.
    const_cast<TSerObject&>(AObj).DeclareProperties(list);
    return list.Items();
  }

  static void Save(const TSerObject& AObj, pugi::xml_node ANode) {
    auto& obj = const_cast<TSerObject&>(AObj);
    for (const TPropertyInfo& p : Properties(AObj)) {
      pugi::xml_node e = ANode.append_child(p.Name.c_str());
      void* f = p.Field(obj);
      switch (p.Kind) {
      case pkInt:
        SetText(e, std::to_string(*static_cast<int32_t*>(f)));
        break;
      case pkInt64:
        SetText(e, std::to_string(*static_cast<int64_t*>(f)));
        break;
      case pkBool:
        SetText(e, *static_cast<bool*>(f) ? "1" : "0");
        break;
      case pkDouble:
        SetText(e, DoubleText(*static_cast<double*>(f)));
        break;
      case pkString:
        SetText(e, *static_cast<std::string*>(f));
        break;
      case pkEnum:
        SetText(e, std::to_string(p.GetOrdinal(f)));
        break;
      case pkObject:
        static_cast<TSerObject*>(f)->SaveToXML(e, "");
        break;
      case pkList:
        static_cast<TSerObjectList*>(f)->SaveToXML(e, p.ItemName);
        break;
      case pkStrings:
        for (const std::string& s : *static_cast<std::vector<std::string>*>(f))
          SetText(e.append_child("Line"), s);
        break;
      }
    }
  }

  static void Load(TSerObject& AObj, pugi::xml_node ANode, TPending& APending) {
    for (const TPropertyInfo& p : Properties(AObj)) {
      pugi::xml_node e = ANode.child(p.Name.c_str());
      if (!e) continue; // written by an older version: keep the default
      void* f = p.Field(AObj);
      switch (p.Kind) {
      case pkInt: {
        auto v = static_cast<int32_t>(ReadInteger(e, INT32_MIN, INT32_MAX));
        APending.emplace_back([f, v] { *static_cast<int32_t*>(f) = v; });
        break;
      }
      case pkInt64: {
        int64_t v = ReadInteger(e, INT64_MIN, INT64_MAX);
        APending.emplace_back([f, v] { *static_cast<int64_t*>(f) = v; });
        break;
      }
      case pkBool: {
        bool v = ReadBool(e);
        APending.emplace_back([f, v] { *static_cast<bool*>(f) = v; });
        break;
      }
      case pkDouble: {
        double v = ReadDouble(e);
        APending.emplace_back([f, v] { *static_cast<double*>(f) = v; });
        break;
      }
      case pkString:
        APending.emplace_back([f, v = std::string(e.text().get())] { *static_cast<std::string*>(f) = v; });
        break;
      case pkEnum: {
        int64_t v = ReadInteger(e, p.Low, p.High);
        APending.emplace_back([f, v, set = p.SetOrdinal] { set(f, v); });
        break;
      }
      case pkObject:
        Load(*static_cast<TSerObject*>(f), e, APending);
        break;
      case pkList: {
        auto* list = static_cast<TSerObjectList*>(f);
        auto items =
            std::make_shared<std::vector<std::unique_ptr<TSerObject>>>(list->LoadItems(e, p.ItemName));
        APending.emplace_back([list, items] { list->Replace(std::move(*items)); });
        break;
      }
      case pkStrings: {
        std::vector<std::string> lines;
        for (pugi::xml_node line : e.children("Line"))
          lines.emplace_back(line.text().get());
        APending.emplace_back([f, v = std::move(lines)] { *static_cast<std::vector<std::string>*>(f) = v; });
        break;
      }
      }
    }
  }

  // ADest is of ASource's class or derived from it, so ASource's fields exist in it.
  static void Assign(const TSerObject& ASource, TSerObject& ADest) {
    auto& src = const_cast<TSerObject&>(ASource);
    for (const TPropertyInfo& p : Properties(ASource)) {
      void* s = p.Field(src);
      void* d = p.Field(ADest);
      switch (p.Kind) {
      case pkInt:
        *static_cast<int32_t*>(d) = *static_cast<int32_t*>(s);
        break;
      case pkInt64:
        *static_cast<int64_t*>(d) = *static_cast<int64_t*>(s);
        break;
      case pkBool:
        *static_cast<bool*>(d) = *static_cast<bool*>(s);
        break;
      case pkDouble:
        *static_cast<double*>(d) = *static_cast<double*>(s);
        break;
      case pkString:
        *static_cast<std::string*>(d) = *static_cast<std::string*>(s);
        break;
      case pkEnum:
        p.SetOrdinal(d, p.GetOrdinal(s));
        break;
      case pkObject:
        static_cast<TSerObject*>(s)->AssignTo(*static_cast<TSerObject*>(d));
        break;
      case pkList:
        static_cast<TSerObjectList*>(s)->AssignTo(*static_cast<TSerObjectList*>(d));
        break;
      case pkStrings:
        *static_cast<std::vector<std::string>*>(d) = *static_cast<std::vector<std::string>*>(s);
        break;
      }
    }
  }

  static void BuildDocument(const TSerObject& AObj, pugi::xml_document& ADoc, const std::string& ANodeName) {
    pugi::xml_node decl = ADoc.append_child(pugi::node_declaration);
    decl.append_attribute("version") = "1.0";
    decl.append_attribute("encoding") = "UTF-8";
    pugi::xml_node root = ADoc.append_child(ANodeName.c_str());
    root.append_attribute("version") = kSerFormatVersion;
    AObj.SaveToXML(root, "");
  }

  // APrefix is "<file>: " or empty.
  static void LoadDocument(TSerObject& AObj, const void* AData, size_t ASize, const std::string& ANodeName,
                           const std::string& APrefix) {
    pugi::xml_document doc;
    pugi::xml_parse_result res = doc.load_buffer(AData, ASize, kParseFlags, pugi::encoding_auto);
    if (!res) {
      std::string msg(APrefix);
      msg.append("not an XML document: ").append(res.description());
      msg.append(" at byte offset ").append(std::to_string(res.offset));
      throw ESerLoadError(msg);
    }
    pugi::xml_node root = doc.document_element();
    if (ANodeName != root.name()) {
      std::string msg(APrefix);
      msg.append("root element is ").append(root.name()).append(", expected ").append(ANodeName);
      throw ESerLoadError(msg);
    }
    // The version attribute is not read yet: every file so far is version 1.
    try {
      AObj.LoadFromXML(root, "");
    } catch (const ESerLoadError& E) {
      if (APrefix.empty()) throw;
      throw ESerLoadError(std::string(APrefix).append(E.what()));
    }
  }
};

} // namespace detail

using detail::TSerWalker;

// --- TSerObject ---------------------------------------------------------------------

void TSerObject::DeclareProperties(TPropertyList& AProps) {
  AProps.Int("Version", &TSerObject::FVersion);
}

std::vector<TPropertyInfo> TSerObject::Properties() const {
  return TSerWalker::Properties(*this);
}

std::string TSerObject::ClassName() const {
  const char* raw = typeid(*this).name();
  std::string name = raw;
#if defined(__GNUG__)
  int status = 0;
  char* demangled = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
  if (status == 0 && demangled) name = demangled;
  std::free(demangled);
#else
  for (std::string_view prefix : {"class ", "struct "})
    if (name.starts_with(prefix)) name.erase(0, prefix.size());
#endif
  // Drop the namespaces, not the "::" inside template arguments.
  size_t cut = 0;
  for (size_t i = 0, depth = 0; i + 1 < name.size(); ++i) {
    if (name[i] == '<')
      ++depth;
    else if (name[i] == '>' && depth > 0)
      --depth;
    else if (depth == 0 && name[i] == ':' && name[i + 1] == ':')
      cut = i + 2;
  }
  return name.substr(cut);
}

bool TSerObject::IsAssignableTo(const TSerObject& ADest) const {
  return typeid(*this) == typeid(ADest);
}

std::unique_ptr<TSerObject> TSerObject::Clone() const {
  std::string msg(ClassName());
  msg.append(" cannot be cloned: derive it from TSerClass");
  throw std::logic_error(msg);
}

void TSerObject::AssignTo(TSerObject& ADest) const {
  if (!IsAssignableTo(ADest)) {
    std::string msg("Cannot assign a ");
    msg.append(ClassName()).append(" to a ").append(ADest.ClassName());
    throw std::invalid_argument(msg);
  }
  if (&ADest == this) return;
  TSerWalker::Assign(*this, ADest);
}

void TSerObject::SaveToXML(pugi::xml_node ANode, const std::string& ASubNodeName) const {
  if (!ANode) return;
  if (!ASubNodeName.empty()) ANode = ANode.append_child(ASubNodeName.c_str());
  TSerWalker::Save(*this, ANode);
}

void TSerObject::LoadFromXML(pugi::xml_node ANode, const std::string& ASubNodeName) {
  if (!ANode) return;
  if (!ASubNodeName.empty()) ANode = ANode.child(ASubNodeName.c_str());
  if (!ANode) return;
  TSerWalker::TPending pending;
  TSerWalker::Load(*this, ANode, pending);
  for (auto& store : pending)
    store();
}

void TSerObject::SaveToXMLFile(const std::string& AFileName, const std::string& ANodeName) const {
  pugi::xml_document doc;
  TSerWalker::BuildDocument(*this, doc, ANodeName);
  errno = 0;
  if (!doc.save_file(AFileName.c_str(), "  ", pugi::format_default, pugi::encoding_utf8)) {
    int err = errno;
    std::string msg(AFileName);
    msg.append(": cannot write: ").append(err ? std::strerror(err) : "write failed");
    throw std::runtime_error(msg);
  }
}

void TSerObject::LoadFromXMLFile(const std::string& AFileName, const std::string& ANodeName) {
  std::string prefix(AFileName);
  prefix.append(": ");
  auto fail = [&prefix](int AErr) {
    throw ESerLoadError(std::string(prefix).append("cannot read: ").append(std::strerror(AErr)));
  };
  std::FILE* f = std::fopen(AFileName.c_str(), "rb");
  if (!f) fail(errno);
  std::string data;
  char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0)
    data.append(buf, n);
  int err = std::ferror(f) ? (errno ? errno : EIO) : 0;
  std::fclose(f);
  if (err) fail(err);
  TSerWalker::LoadDocument(*this, data.data(), data.size(), ANodeName, prefix);
}

std::string TSerObject::ToXMLString(const std::string& ANodeName) const {
  pugi::xml_document doc;
  TSerWalker::BuildDocument(*this, doc, ANodeName);
  std::ostringstream out;
  doc.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
  return out.str();
}

void TSerObject::FromXMLString(const std::string& AXml, const std::string& ANodeName) {
  TSerWalker::LoadDocument(*this, AXml.data(), AXml.size(), ANodeName, "");
}

// --- TSerObjectList -----------------------------------------------------------------

TSerObjectList::TSerObjectList(TSerFactory AObjClass, bool AOwnsObjects, bool ANameNumbers)
    : FObjClass(std::move(AObjClass)), FOwnsObjects(AOwnsObjects), FNameNumbers(ANameNumbers) {}

TSerObject& TSerObjectList::Add(std::unique_ptr<TSerObject> AItem) {
  if (!AItem) throw std::invalid_argument("TSerObjectList: cannot add a null item");
  FItems.push_back(AItem.get());
  FHeld.push_back(std::move(AItem));
  return *FItems.back();
}

TSerObject& TSerObjectList::Add(TSerObject* AItem) {
  if (!AItem) throw std::invalid_argument("TSerObjectList: cannot add a null item");
  if (FOwnsObjects) return Add(std::unique_ptr<TSerObject>(AItem));
  FItems.push_back(AItem);
  return *AItem;
}

void TSerObjectList::Delete(size_t AIndex) {
  if (AIndex >= FItems.size()) throw std::out_of_range("TSerObjectList: index out of range");
  TSerObject* item = FItems[AIndex];
  FItems.erase(FItems.begin() + static_cast<ptrdiff_t>(AIndex));
  if (FOwnsObjects)
    std::erase_if(FHeld, [item](const std::unique_ptr<TSerObject>& AHeld) { return AHeld.get() == item; });
}

void TSerObjectList::Clear() {
  FItems.clear();
  if (FOwnsObjects) FHeld.clear();
}

void TSerObjectList::Replace(std::vector<std::unique_ptr<TSerObject>> AItems) {
  Clear();
  for (auto& item : AItems) {
    FItems.push_back(item.get());
    FHeld.push_back(std::move(item));
  }
}

void TSerObjectList::SaveToXML(pugi::xml_node ANode, const std::string& ANodeName) const {
  if (!ANode || ANodeName.empty()) return;
  for (size_t i = 0; i < FItems.size(); ++i) {
    std::string name(ANodeName);
    if (FNameNumbers) name.append(std::to_string(i));
    FItems[i]->SaveToXML(ANode.append_child(name.c_str()), "");
  }
}

std::vector<std::unique_ptr<TSerObject>> TSerObjectList::LoadItems(pugi::xml_node ANode,
                                                                   const std::string& ANodeName) const {
  std::vector<std::unique_ptr<TSerObject>> items;
  auto loadOne = [&](pugi::xml_node AChild) {
    std::unique_ptr<TSerObject> item = FObjClass ? FObjClass() : nullptr;
    if (!item) throw std::logic_error("TSerObjectList: the list has no item class");
    item->LoadFromXML(AChild, "");
    items.push_back(std::move(item));
  };
  if (FNameNumbers) {
    for (size_t i = 0;; ++i) {
      std::string name(ANodeName);
      name.append(std::to_string(i));
      pugi::xml_node child = ANode.child(name.c_str());
      if (!child) break; // the first gap ends the list
      loadOne(child);
    }
  } else {
    for (pugi::xml_node child : ANode.children(ANodeName.c_str()))
      loadOne(child);
  }
  return items;
}

void TSerObjectList::LoadFromXML(pugi::xml_node ANode, const std::string& ANodeName) {
  if (!ANode || ANodeName.empty()) return;
  Replace(LoadItems(ANode, ANodeName));
}

void TSerObjectList::Assign(const TSerObjectList* ASource) {
  if (!ASource) throw std::invalid_argument("Assign error, source is nil");
  ASource->AssignTo(*this);
}

void TSerObjectList::AssignTo(TSerObjectList& ADest) const {
  if (&ADest == this) return;
  const TSerFactory& make = ADest.FObjClass ? ADest.FObjClass : FObjClass;
  std::vector<std::unique_ptr<TSerObject>> copies;
  for (const TSerObject* item : FItems) {
    std::unique_ptr<TSerObject> copy = make ? make() : nullptr;
    if (!copy) throw std::logic_error("TSerObjectList: the list has no item class");
    item->AssignTo(*copy);
    copies.push_back(std::move(copy));
  }
  ADest.Replace(std::move(copies));
}

} // namespace qvx
