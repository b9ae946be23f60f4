// Settings objects that save themselves to XML and load themselves back.
//
// A settings class derives from TSerObject and lists its persistent members once, in
// DeclareProperties; saving, loading and AssignTo all walk that list, so the class
// writes no serialization code of its own:
//
//   class TMySettings : public TSerClass<TMySettings> {
//   public:
//     int32_t Count = 3;
//     TColorMode Mode = cmA;
//     TNested Inner;                                        // a TSerObject
//     TSerObjectList Items{SerFactory<TItem>(), true, true}; // owning, Item0, Item1, ...
//     std::vector<std::string> Lines;
//   protected:
//     void DeclareProperties(TPropertyList& AProps) override {
//       TSerClass::DeclareProperties(AProps); // the base's properties come first
//       AProps.Int("Count", &TMySettings::Count).Enum("Mode", &TMySettings::Mode)
//           .Object("Inner", &TMySettings::Inner).List("Items", &TMySettings::Items, "Item")
//           .Strings("Lines", &TMySettings::Lines);
//     }
//   };
//
// The XML form: each property is a child element named as the property.
//   int32, int64, enum (ordinal), bool (0 or 1)  decimal text
//   double          shortest text that reads back to the same value, '.' whatever the
//                   locale ("inf", "-inf" and "nan" for the special values)
//   string          the element's text
//   object          the element holds the nested object's property elements
//   object list     the element holds one element per item: named by the list's item
//                   name, or item name + index (Item0, Item1, ...) with NameNumbers
//   string list     the element holds one <Line> per string
// A file is <?xml version="1.0" encoding="UTF-8"?> with a root element named by the
// caller, carrying version="1" (kSerFormatVersion; readers ignore it for now), whose
// children are the object's properties.
//
// An element that is absent keeps the member's current value (the constructor's
// default), so files written by older versions load into newer classes; elements
// that no property names are ignored.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include <pugixml.hpp>

namespace qvx {

class TSerObject;
class TSerObjectList;

namespace detail {
struct TSerWalker;
}

// The value of the root's "version" attribute in files this code writes.
inline constexpr int kSerFormatVersion = 1;

// A load that fails: unreadable file, not XML, wrong root, or an element whose text
// does not fit its property. The message names the file (when there is one) and the
// element path ("settings.xml: element Settings/Inner/Count: "abc" is not an integer").
class ESerLoadError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// Makes a new default item for a TSerObjectList.
using TSerFactory = std::function<std::unique_ptr<TSerObject>()>;

template <class T> TSerFactory SerFactory() {
  static_assert(std::is_base_of_v<TSerObject, T>);
  return [] { return std::unique_ptr<TSerObject>(std::make_unique<T>()); };
}

enum TPropertyKind { pkInt, pkInt64, pkBool, pkDouble, pkString, pkEnum, pkObject, pkList, pkStrings };

// One persistent property. Field gives the member inside an object of the class that
// declared it (the walkers only ever pass such objects).
struct TPropertyInfo {
  std::string Name;
  TPropertyKind Kind = pkInt;
  std::function<void*(TSerObject&)> Field; // pkObject: a TSerObject*, pkList: a TSerObjectList*
  // pkEnum: the accepted ordinals and the conversions to and from them.
  int64_t Low = 0;
  int64_t High = 0;
  std::function<int64_t(const void*)> GetOrdinal;
  std::function<void(void*, int64_t)> SetOrdinal;
  // pkList: the name of the items' elements.
  std::string ItemName;
};

// The declaration list filled by TSerObject::DeclareProperties; the adders chain.
class TPropertyList {
public:
  template <class C> TPropertyList& Int(const char* AName, int32_t C::*AField) {
    return AddField<C>(AName, pkInt, AField);
  }
  template <class C> TPropertyList& Int64(const char* AName, int64_t C::*AField) {
    return AddField<C>(AName, pkInt64, AField);
  }
  template <class C> TPropertyList& Bool(const char* AName, bool C::*AField) {
    return AddField<C>(AName, pkBool, AField);
  }
  template <class C> TPropertyList& Double(const char* AName, double C::*AField) {
    return AddField<C>(AName, pkDouble, AField);
  }
  template <class C> TPropertyList& String(const char* AName, std::string C::*AField) {
    return AddField<C>(AName, pkString, AField);
  }
  template <class C> TPropertyList& Strings(const char* AName, std::vector<std::string> C::*AField) {
    return AddField<C>(AName, pkStrings, AField);
  }
  // Any ordinal of the enumeration's underlying type is accepted on load.
  template <class C, class E> TPropertyList& Enum(const char* AName, E C::*AField) {
    using U = std::underlying_type_t<E>;
    static_assert(sizeof(U) <= 4, "enumerations wider than 32 bits are not supported");
    return AddEnum<C, E>(AName, AField, std::numeric_limits<U>::min(), std::numeric_limits<U>::max());
  }
  // Only ordinals 0 .. ALast are accepted on load.
  template <class C, class E> TPropertyList& Enum(const char* AName, E C::*AField, E ALast) {
    static_assert(sizeof(std::underlying_type_t<E>) <= 4,
                  "enumerations wider than 32 bits are not supported");
    return AddEnum<C, E>(AName, AField, 0, static_cast<int64_t>(ALast));
  }
  template <class C, class O> TPropertyList& Object(const char* AName, O C::*AField) {
    static_assert(std::is_base_of_v<TSerObject, O>);
    TPropertyInfo& p = Add(AName, pkObject);
    p.Field = [AField](TSerObject& AObj) -> void* {
      return static_cast<TSerObject*>(&(static_cast<C&>(AObj).*AField));
    };
    return *this;
  }
  template <class C>
  TPropertyList& List(const char* AName, TSerObjectList C::*AField, const char* AItemName) {
    AddField<C>(AName, pkList, AField);
    FItems.back().ItemName = AItemName;
    return *this;
  }

  const std::vector<TPropertyInfo>& Items() const { return FItems; }

private:
  TPropertyInfo& Add(const char* AName, TPropertyKind AKind) {
    TPropertyInfo& p = FItems.emplace_back();
    p.Name = AName;
    p.Kind = AKind;
    return p;
  }
  template <class C, class M> TPropertyList& AddField(const char* AName, TPropertyKind AKind, M C::*AField) {
    static_assert(std::is_base_of_v<TSerObject, C>);
    Add(AName, AKind).Field = [AField](TSerObject& AObj) -> void* {
      return &(static_cast<C&>(AObj).*AField);
    };
    return *this;
  }
  template <class C, class E>
  TPropertyList& AddEnum(const char* AName, E C::*AField, int64_t ALow, int64_t AHigh) {
    AddField<C>(AName, pkEnum, AField);
    TPropertyInfo& p = FItems.back();
    p.Low = ALow;
    p.High = AHigh;
    p.GetOrdinal = [](const void* AValue) {
      return static_cast<int64_t>(static_cast<std::underlying_type_t<E>>(*static_cast<const E*>(AValue)));
    };
    p.SetOrdinal = [](void* AValue, int64_t AOrdinal) {
      *static_cast<E*>(AValue) = static_cast<E>(static_cast<std::underlying_type_t<E>>(AOrdinal));
    };
    return *this;
  }

  std::vector<TPropertyInfo> FItems;
};

class TSerObject {
public:
  TSerObject() = default;
  TSerObject(const TSerObject&) = default;
  TSerObject& operator=(const TSerObject&) = default;
  virtual ~TSerObject() = default;

  int32_t Version() const { return FVersion; }
  void SetVersion(int32_t AVersion) { FVersion = AVersion; }

  // The class name for messages: the dynamic type without its namespace.
  virtual std::string ClassName() const;

  // True when ADest is of this object's class or of a class derived from it. Here:
  // the same dynamic type only; TSerClass widens it to derived classes.
  virtual bool IsAssignableTo(const TSerObject& ADest) const;

  // A new object of the same class with the same property values. Raises
  // std::logic_error unless the class derives from TSerClass.
  virtual std::unique_ptr<TSerObject> Clone() const;

  // Copies every property into ADest, nested objects and lists deep. Raises
  // std::invalid_argument("Cannot assign a <A> to a <B>") unless IsAssignableTo(ADest).
  virtual void AssignTo(TSerObject& ADest) const;

  // Writes the properties as child elements of ANode, or of a new child ASubNodeName
  // when that is not empty. Does nothing on a null node.
  virtual void SaveToXML(pugi::xml_node ANode, const std::string& ASubNodeName) const;
  // Reads the properties from the children of ANode (or of its child ASubNodeName,
  // when given; if that child is missing nothing changes). Raises ESerLoadError naming
  // the element path on text that does not fit its property; the object is then
  // unchanged, all values are checked before any is stored.
  virtual void LoadFromXML(pugi::xml_node ANode, const std::string& ASubNodeName);

  // Writes a UTF-8 file whose root element is ANodeName. Raises std::runtime_error
  // naming the file when it cannot be written.
  void SaveToXMLFile(const std::string& AFileName, const std::string& ANodeName) const;
  // Reads a file written by SaveToXMLFile. Raises ESerLoadError naming the file when
  // it cannot be read, is not XML, has another root, or holds a bad value; the object
  // is then unchanged.
  void LoadFromXMLFile(const std::string& AFileName, const std::string& ANodeName);

  // The same with the document in a string (messages name no file).
  std::string ToXMLString(const std::string& ANodeName) const;
  void FromXMLString(const std::string& AXml, const std::string& ANodeName);

  // The declared properties, in declaration order.
  std::vector<TPropertyInfo> Properties() const;

protected:
  // Adds this class's persistent properties; overrides call their base first.
  virtual void DeclareProperties(TPropertyList& AProps);

private:
  friend struct detail::TSerWalker;
  int32_t FVersion = 0;
};

// Base for settings classes that can be cloned and assigned to derived classes:
//   class TMySettings : public TSerClass<TMySettings> { ... };
//   class TMore : public TSerClass<TMore, TMySettings> { ... };
// TSelf must be default-constructible for Clone.
template <class TSelf, class TBase = TSerObject> class TSerClass : public TBase {
public:
  static_assert(std::is_base_of_v<TSerObject, TBase>);
  using TBase::TBase;

  bool IsAssignableTo(const TSerObject& ADest) const override {
    // A class below TSelf that does not derive through TSerClass keeps the exact test.
    if (typeid(*this) != typeid(TSelf)) return TBase::IsAssignableTo(ADest);
    return dynamic_cast<const TSelf*>(&ADest) != nullptr;
  }
  std::unique_ptr<TSerObject> Clone() const override {
    if (typeid(*this) != typeid(TSelf)) return TBase::Clone();
    auto copy = std::make_unique<TSelf>();
    this->AssignTo(*copy);
    return copy;
  }
};

// A list of settings objects, saved as one element per item.
class TSerObjectList {
public:
  // AObjClass makes the items that LoadFromXML and AssignTo create. A list that does
  // not own its objects never deletes items given to it as pointers; items it made
  // itself, or received as unique_ptr, live until the list is destroyed.
  explicit TSerObjectList(TSerFactory AObjClass, bool AOwnsObjects = true, bool ANameNumbers = false);
  TSerObjectList(const TSerObjectList&) = delete;
  TSerObjectList& operator=(const TSerObjectList&) = delete;
  ~TSerObjectList() = default;

  const TSerFactory& ObjClass() const { return FObjClass; }
  bool OwnsObjects() const { return FOwnsObjects; }
  bool NameNumbers() const { return FNameNumbers; }
  void SetNameNumbers(bool AValue) { FNameNumbers = AValue; }

  size_t Count() const { return FItems.size(); }
  bool Empty() const { return FItems.empty(); }
  TSerObject& operator[](size_t AIndex) const { return *FItems[AIndex]; }

  TSerObject& Add(std::unique_ptr<TSerObject> AItem);
  // Takes ownership of AItem when the list owns its objects.
  TSerObject& Add(TSerObject* AItem);
  // Removes item AIndex (deleted if the list owns its objects).
  void Delete(size_t AIndex);
  void Clear();

  // One element per item under ANode: ANodeName, or ANodeName + index with
  // NameNumbers. Does nothing unless both are given.
  void SaveToXML(pugi::xml_node ANode, const std::string& ANodeName) const;
  // Replaces the items with those under ANode (see SaveToXML); with NameNumbers the
  // list ends at the first missing index. Does nothing unless both are given. On
  // ESerLoadError the list is unchanged.
  void LoadFromXML(pugi::xml_node ANode, const std::string& ANodeName);

  // Raises std::invalid_argument("Assign error, source is nil") on null.
  void Assign(const TSerObjectList* ASource);
  // Replaces ADest's items with deep copies of these, made by ADest's factory (this
  // list's when ADest has none) and filled by AssignTo.
  void AssignTo(TSerObjectList& ADest) const;

private:
  friend struct detail::TSerWalker;
  // The items under ANode as new objects, loaded; nothing changes here.
  std::vector<std::unique_ptr<TSerObject>> LoadItems(pugi::xml_node ANode,
                                                     const std::string& ANodeName) const;
  void Replace(std::vector<std::unique_ptr<TSerObject>> AItems);

  TSerFactory FObjClass;
  bool FOwnsObjects;
  bool FNameNumbers;
  std::vector<TSerObject*> FItems;
  std::vector<std::unique_ptr<TSerObject>> FHeld; // the items the list keeps alive
};

} // namespace qvx
