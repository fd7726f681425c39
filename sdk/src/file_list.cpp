// Numbered file sequences: expanding a pattern or a member's name into the sorted list of files
// on disk, and naming the file of one frame.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <new>
#include <utility>
#include <vector>

#include "sdk_internal.h"
#include "com_object.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace {

// Longer digit runs (dates, serial numbers) are not taken for frame numbers: they would not fit.
constexpr std::size_t kMaxFrameDigits = 9;

bool IsDigit(VxChar c) {
  return c >= '0' && c <= '9';
}

bool IsSeparator(VxChar c) {
#ifdef _WIN32
  return c == '/' || c == '\\' || c == ':';
#else
  return c == '/';
#endif
}

// How a name marks its frame field.
struct FrameField {
  enum Kind { None, Hashes, Printf, Digits } kind = None;
  std::size_t pos = 0, len = 0;  // the field's text within the whole name
  int width = 0;                 // digits; for printf the minimum width (0 for %d)
  int frame = 0;                 // Digits: the value written there
};

std::size_t FileNameStart(VxStringView name) {
  std::size_t i = name.size();
  while (i > 0 && !IsSeparator(name[i - 1])) --i;
  return i;
}

// Only the file name is searched: a folder like "take2/" must not become the frame field.
// A digit run is looked for before the extension unless the extension is all digits, so
// "clip.mp4" is no sequence but "shot.0001" is.
FrameField FindField(VxStringView name) {
  FrameField f;
  const std::size_t start = FileNameStart(name);
  const VxStringView file = name.substr(start);

  if (std::size_t h = file.rfind('#'); h != VxStringView::npos) {
    std::size_t b = h;
    while (b > 0 && file[b - 1] == '#') --b;
    f.kind = FrameField::Hashes;
    f.pos = start + b;
    f.len = h + 1 - b;
    f.width = static_cast<int>(f.len);
    return f;
  }
  for (std::size_t p = file.rfind('%'); p != VxStringView::npos;
       p = p ? file.rfind('%', p - 1) : VxStringView::npos) {
    std::size_t q = p + 1;
    int width = 0;
    if (q < file.size() && file[q] == '0') {
      ++q;
      const std::size_t digits = q;
      while (q < file.size() && IsDigit(file[q]) && q - digits < 2)
        width = width * 10 + (file[q++] - '0');
      if (q == digits) continue;  // "%0d" is no width
    }
    if (q < file.size() && file[q] == 'd') {
      f.kind = FrameField::Printf;
      f.pos = start + p;
      f.len = q + 1 - p;
      f.width = width;
      return f;
    }
    if (p == 0) break;
  }

  std::size_t end = file.size();
  if (std::size_t dot = file.rfind('.'); dot != VxStringView::npos && dot > 0) {
    const VxStringView ext = file.substr(dot + 1);
    const bool numeric = !ext.empty() && std::all_of(ext.begin(), ext.end(), IsDigit);
    if (!numeric) end = dot;
  }
  std::size_t e = end;
  while (e > 0 && !IsDigit(file[e - 1])) --e;
  if (e == 0) return f;
  std::size_t b = e;
  while (b > 0 && IsDigit(file[b - 1])) --b;
  if (e - b > kMaxFrameDigits) return f;
  f.kind = FrameField::Digits;
  f.pos = start + b;
  f.len = e - b;
  f.width = static_cast<int>(f.len);
  for (std::size_t i = b; i < e; ++i) f.frame = f.frame * 10 + (file[i] - '0');
  return f;
}

// Whether `text` is a frame number the field accepts; the number when it is.
bool MatchDigits(VxStringView text, const FrameField& f, int* frame) {
  if (text.empty() || text.size() > kMaxFrameDigits) return false;
  if (!std::all_of(text.begin(), text.end(), IsDigit)) return false;
  const auto n = static_cast<int>(text.size());
  switch (f.kind) {
    case FrameField::Hashes:
    case FrameField::Digits:
      if (n != f.width) return false;
      break;
    case FrameField::Printf:
      // What printf would have written: at least the width, no extra leading zeros.
      if (n < f.width) return false;
      if (n > std::max(f.width, 1) && text[0] == '0') return false;
      break;
    case FrameField::None:
      return false;
  }
  int v = 0;
  for (VxChar c : text) v = v * 10 + (c - '0');
  *frame = v;
  return true;
}

class FileList final : public vx::sdk::ComObject<IVxFileList, IID_IVxFileList> {
 public:
  struct Item {
    VxString name;
    int frame;
  };
  explicit FileList(std::vector<Item> items) : items_(std::move(items)) {}

  HRESULT STDMETHODCALLTYPE GetCount(int* count) override {
    if (!count) return E_POINTER;
    *count = static_cast<int>(items_.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetFileName(int index, VxChar** name) override {
    if (!name) return E_POINTER;
    *name = nullptr;
    if (index < 0 || static_cast<std::size_t>(index) >= items_.size()) return E_INVALIDARG;
    *name = VxSysAllocString(items_[static_cast<std::size_t>(index)].name.c_str());
    return *name ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE GetFrameNumber(int index, int* frame) override {
    if (!frame) return E_POINTER;
    if (index < 0 || static_cast<std::size_t>(index) >= items_.size()) return E_INVALIDARG;
    *frame = items_[static_cast<std::size_t>(index)].frame;
    return S_OK;
  }

 private:
  ~FileList() = default;
  std::vector<Item> items_;
};

HRESULT MakeList(std::vector<FileList::Item> items, IVxFileList** out) {
  auto* list = new (std::nothrow) FileList(std::move(items));
  if (!list) return E_OUTOFMEMORY;
  *out = list;
  return S_OK;
}

// Every file of the folder that fits the name around the frame field, by frame number.
std::vector<FileList::Item> Expand(VxStringView name, const FrameField& f) {
  const std::size_t start = FileNameStart(name);
  const VxStringView folder = name.substr(0, start);
  const VxStringView before = name.substr(start, f.pos - start);
  const VxStringView after = name.substr(f.pos + f.len);

  std::vector<FileList::Item> items;
  std::vector<VxString> files;
  // Not std::filesystem's iterator: it ends the process when an allocation fails inside it.
  const VxString dir = folder.empty() ? VxString(VXT(".")) : VxString(folder);
  if (!vx::os::ListFiles(dir.c_str(), &files)) files.clear();
  for (const VxString& file : files) {
    const VxStringView v(file);
    if (v.size() <= before.size() + after.size()) continue;
    if (v.substr(0, before.size()) != before || v.substr(v.size() - after.size()) != after)
      continue;
    int frame = 0;
    if (!MatchDigits(v.substr(before.size(), v.size() - before.size() - after.size()), f, &frame))
      continue;
    items.push_back({VxString(folder) + file, frame});
  }
  std::sort(items.begin(), items.end(), [](const FileList::Item& a, const FileList::Item& b) {
    return a.frame != b.frame ? a.frame < b.frame : a.name < b.name;
  });
  return items;
}

VxString FormatFrame(int frame, int width) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%0*d", width, frame);
  return VxString(buf, buf + std::char_traits<char>::length(buf));
}

}  // namespace

HRESULT VxGetFileListFromPattern(const VxChar* name, IVxFileList** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (!name) return E_POINTER;
  const VxStringView v(name);
  const FrameField f = FindField(v);
  try {
    if (f.kind == FrameField::None) return MakeList({{VxString(v), 0}}, out);
    std::vector<FileList::Item> items = Expand(v, f);
    // A lone member, or a name of a file that is not there, stands for itself.
    if (f.kind == FrameField::Digits && items.size() <= 1)
      return MakeList({{VxString(v), f.frame}}, out);
    return MakeList(std::move(items), out);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (const std::exception&) {  // a name the file system cannot represent
    return E_INVALIDARG;
  }
}

HRESULT VxCreateFileList(const VxChar* const* names, int count, IVxFileList** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (count < 0) return E_INVALIDARG;
  if (count > 0 && !names) return E_POINTER;
  try {
    std::vector<FileList::Item> items;
    items.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
      if (!names[i]) return E_POINTER;
      const FrameField f = FindField(names[i]);
      items.push_back({VxString(names[i]), f.kind == FrameField::Digits ? f.frame : i});
    }
    return MakeList(std::move(items), out);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

VxString VxFileNameForFrame(const VxChar* pattern, int frame) {
  if (!pattern) return VxString();
  VxString name(pattern);
  const FrameField f = FindField(name);
  if (f.kind == FrameField::None) return name;
  name.replace(f.pos, f.len, FormatFrame(frame, f.width));
  return name;
}
