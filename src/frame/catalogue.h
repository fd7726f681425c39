// The parser catalogue and the other objects the module registers and builds.
#pragma once

#include <cstdint>
#include <new>
#include <span>

#include "vx/parser.h"

namespace vx::frame {

// Builds one object; null when the class is not built yet or allocation failed. `arg` is the
// row's constructor argument (image-kind code or mode). The pointer is the object's IUnknown.
using Constructor = IUnknown* (*)(int arg);

// The usual constructor: `new T(arg)` (or `new T()` when T takes none), seen through its primary
// interface `Primary`. Parsers start with no reference; the factory adds and drops one.
template <class T, class Primary>
IUnknown* Construct(int arg) {
  T* object;
  if constexpr (requires { T(arg); }) {
    object = new (std::nothrow) T(arg);
  } else {
    object = new (std::nothrow) T();
  }
  return object ? static_cast<IUnknown*>(static_cast<Primary*>(object)) : nullptr;
}
// Every parser's primary interface is the media-file parser.
template <class T>
IUnknown* Parser(int arg) {
  return Construct<T, IVxMediaFileParser>(arg);
}

struct CatalogueRow {
  GUID clsid;
  const VxChar* name;  // display name
  DWORD mediaKind;     // 1 still, 2 audio, 3 movie
  DWORD capabilities;  // bit 0 import, bit 1 export, 0x30000 passed through for the host
  std::span<const VxChar* const> extensions;  // upper case, no dot
  int arg;                                    // handed to the class's constructor
  const char* className;                      // picks the constructor (ConstructorFor)
};

// The 31 rows in registration order.
std::span<const CatalogueRow> Catalogue();

// Objects registered outside the catalogue.
enum class ObjectKind : std::uint8_t {
  ComOnly,        // COM object only
  GenericAndCom,  // generic object (with `genericFlag`), then COM object
};
enum class Birth : std::uint8_t {
  Unreferenced,  // built with no reference: the factory adds one around QueryInterface
  Referenced,    // built holding one reference: the factory only drops it after QueryInterface
};

struct ModuleObject {
  GUID clsid;
  ObjectKind kind;
  int genericFlag;
  const VxChar* genericName;
  const VxChar* comName;
  Birth birth;
  const char* className;  // picks the constructor (ConstructorFor)
};

// ADF parser, QuickTime manager, file cache manager, RED helper: registration order.
std::span<const ModuleObject> ModuleObjects();

// Catalogue row numbers (1-based) in the order their registration is undone.
std::span<const int> UnregistrationOrder();

// The constructor of a class by name; null when the class is not built yet. Defined by the
// class table in src/classes, the one place that knows every format's header.
Constructor ConstructorFor(const char* className);

// The row or object for a class id; null when the module knows no such class.
const CatalogueRow* FindRow(const GUID& clsid);
const ModuleObject* FindObject(const GUID& clsid);

}  // namespace vx::frame
