// Host-wide switches, project properties, system strings and message boxes.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "vx/platform.h"
#include "vx/sdk.h"

namespace {

std::atomic<BOOL> g_showParserUI{TRUE};
std::atomic<BOOL> g_videoHAL{FALSE};

std::mutex& PropertyMutex() {
  static std::mutex m;
  return m;
}
std::map<VxString, double>& Properties() {
  static std::map<VxString, double> props;
  return props;
}

void StderrMessageBox(const VxChar* caption, const VxChar* text, void*) {
  const std::string line = vx::ToUtf8(caption ? VxStringView(caption) : VxStringView()) + ": " +
                           vx::ToUtf8(text ? VxStringView(text) : VxStringView()) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

struct HandlerSlot {
  std::mutex m;
  VxMessageBoxHandler handler = &StderrMessageBox;
  void* context = nullptr;
};
HandlerSlot& Handler() {
  static HandlerSlot slot;
  return slot;
}

}  // namespace

// The length travels in front of the text so a string can be freed without knowing its size,
// and so a copy never needs a second scan.
VxChar* VxSysAllocString(const VxChar* s) {
  if (!s) return nullptr;
  const std::size_t n = vx::StrLen(s);
  void* block = std::malloc(sizeof(std::size_t) + (n + 1) * sizeof(VxChar));
  if (!block) return nullptr;
  std::memcpy(block, &n, sizeof n);
  auto* text = reinterpret_cast<VxChar*>(static_cast<char*>(block) + sizeof(std::size_t));
  std::memcpy(text, s, n * sizeof(VxChar));
  text[n] = 0;
  return text;
}

void VxSysFreeString(VxChar* s) {
  if (!s) return;
  std::free(reinterpret_cast<char*>(s) - sizeof(std::size_t));
}

void VxSetShowParserUI(BOOL show) {
  g_showParserUI.store(show ? TRUE : FALSE);
}
BOOL VxGetShowParserUI() {
  return g_showParserUI.load();
}
BOOL VxHWIsVideoHALInstantiated() {
  return g_videoHAL.load();
}
void VxSetVideoHALInstantiated(BOOL up) {
  g_videoHAL.store(up ? TRUE : FALSE);
}

BOOL VxGetProjectProperty(const VxChar* name, double* value) {
  if (!name || !value) return FALSE;
  std::lock_guard<std::mutex> lock(PropertyMutex());
  auto it = Properties().find(VxString(name));
  if (it == Properties().end()) return FALSE;
  *value = it->second;
  return TRUE;
}

void VxSetProjectProperty(const VxChar* name, double value) {
  if (!name) return;
  std::lock_guard<std::mutex> lock(PropertyMutex());
  Properties()[VxString(name)] = value;
}

void VxMessageBox(const VxChar* caption, const VxChar* text) {
#ifdef _WIN32
  if (vx::os::ShowMessageBox(caption ? caption : VXT(""), text ? text : VXT(""))) return;
#endif
  VxMessageBoxHandler handler;
  void* context;
  {
    HandlerSlot& slot = Handler();
    std::lock_guard<std::mutex> lock(slot.m);
    handler = slot.handler;
    context = slot.context;
  }
  handler(caption ? caption : VXT(""), text ? text : VXT(""), context);
}

void VxSetMessageBoxHandler(VxMessageBoxHandler handler, void* context) {
  HandlerSlot& slot = Handler();
  std::lock_guard<std::mutex> lock(slot.m);
  slot.handler = handler ? handler : &StderrMessageBox;
  slot.context = handler ? context : nullptr;
}
