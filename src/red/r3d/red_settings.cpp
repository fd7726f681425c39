#include "red/r3d/red_settings.h"

#include <cctype>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "fileio/whole_file.h"
#include "base/text.h"
#include "vx/platform.h"

#if defined(VX_HAVE_TINYXML2)
#include <tinyxml2.h>
#endif

namespace vx::red {

namespace {

// Sidecars are a few kilobytes; anything far beyond is not one.
constexpr long kMaxSidecarBytes = 4 << 20;
constexpr int kBlackLevel = -1;  // not a record field: travels beside it

struct Entry {
  const char* key;
  int field;          // record index, kBlackLevel, or -2 for a constant line
  const char* value;  // the constant value line, when field is -2
};

// The written order: alphabetical with upper case first; the three constants stay constant.
constexpr Entry kWritten[] = {
    {"DRX", RedLook::kDrx, nullptr},
    {"blackLevel", kBlackLevel, nullptr},
    {"blackX", RedLook::kBlackX, nullptr},
    {"blackY", RedLook::kBlackY, nullptr},
    {"blue", RedLook::kBlue, nullptr},
    {"brightness", RedLook::kBrightness, nullptr},
    {"contrast", RedLook::kContrast, nullptr},
    {"curveActive", -2, "<true/>"},
    {"exposure", RedLook::kExposure, nullptr},
    {"green", RedLook::kGreen, nullptr},
    {"inputBlackX", -2, "<real>0.0</real>"},
    {"inputWhiteX", -2, "<real>1</real>"},
    {"kelvin", RedLook::kKelvin, nullptr},
    {"kneeX", RedLook::kKneeX, nullptr},
    {"kneeY", RedLook::kKneeY, nullptr},
    {"midX", RedLook::kMidX, nullptr},
    {"midY", RedLook::kMidY, nullptr},
    {"red", RedLook::kRed, nullptr},
    {"saturation", RedLook::kSaturation, nullptr},
    {"tint", RedLook::kTint, nullptr},
    {"toeX", RedLook::kToeX, nullptr},
    {"toeY", RedLook::kToeY, nullptr},
    {"whiteX", RedLook::kWhiteX, nullptr},
    {"whiteY", RedLook::kWhiteY, nullptr},
};

#if defined(VX_HAVE_TINYXML2)
bool SameKey(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

const Entry* FindKey(std::string_view key) {
  for (const Entry& e : kWritten) {
    if (e.field != -2 && SameKey(e.key, key)) return &e;
  }
  return nullptr;
}
#endif

std::string Document(const RedLook& look, float blackLevel) {
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n"
      "<dict>\n";
  char line[512];
  for (const Entry& e : kWritten) {
    out += "\t<key>";
    out += e.key;
    out += "</key>\n";
    if (e.field == -2) {
      out += '\t';
      out += e.value;
      out += '\n';
      continue;
    }
    const float v = e.field == kBlackLevel ? blackLevel : look.field[e.field];
    std::snprintf(line, sizeof line, "\t<real>%f</real>\n", static_cast<double>(v));
    out += line;
  }
  out += "</dict>\n</plist>\n";
  return out;
}

}  // namespace

bool RedSettingsPrsr::Write(const VxChar* path, const RedLook& look, float blackLevel) const {
  if (!path) return false;
  const std::string text = Document(look, blackLevel);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  if (!fileio::WriteReplacing(path, {{bytes, text.size()}})) return false;
  return true;
}

bool RedSettingsPrsr::Read(const VxChar* path, RedLook* look, float* blackLevel) const {
  if (!path || !look || !blackLevel) return false;
  std::FILE* f = os::OpenStdio(path, VXT("rb"));
  if (!f) return false;
  std::vector<char> text;
  char chunk[16384];
  bool ok = true;
  for (;;) {
    const std::size_t n = std::fread(chunk, 1, sizeof chunk, f);
    if (n == 0) break;
    if (text.size() + n > static_cast<std::size_t>(kMaxSidecarBytes)) {
      ok = false;
      break;
    }
    text.insert(text.end(), chunk, chunk + n);
  }
  if (std::ferror(f)) ok = false;
  std::fclose(f);
  return ok && ReadText(text.data(), text.size(), look, blackLevel);
}

bool RedSettingsPrsr::ReadText(const char* text, std::size_t size, RedLook* look,
                               float* blackLevel) const {
  if (!Supported() || !look || !blackLevel || (!text && size)) return false;
#if defined(VX_HAVE_TINYXML2)
  tinyxml2::XMLDocument doc;
  if (doc.Parse(text ? text : "", size) != tinyxml2::XML_SUCCESS) return false;
  const tinyxml2::XMLElement* plist = doc.FirstChildElement("plist");
  const tinyxml2::XMLElement* dict = plist ? plist->FirstChildElement("dict") : nullptr;
  if (!dict) return false;
  // Values land in a copy first, so a rejected file changes nothing.
  RedLook next = *look;
  float nextBlack = *blackLevel;
  for (const tinyxml2::XMLElement* key = dict->FirstChildElement(); key;
       key = key->NextSiblingElement()) {
    if (std::string_view(key->Name()) != "key") continue;
    const tinyxml2::XMLElement* value = key->NextSiblingElement();
    if (!value) break;
    const char* name = key->GetText();
    const Entry* entry = name ? FindKey(name) : nullptr;
    float v = 0;
    if (entry && value->QueryFloatText(&v) == tinyxml2::XML_SUCCESS) {
      if (entry->field == kBlackLevel) {
        nextBlack = v;
      } else {
        next.field[entry->field] = v;
      }
    }
    key = value;  // the value is not a key
  }
  *look = next;
  *blackLevel = nextBlack;
  return true;
#else
  (void)size;
  return false;
#endif
}

std::unique_ptr<RedSettingsPrsr> RedSettingsPrsr::ForPath(const VxChar* path) {
  if (!path) return nullptr;
  const VxStringView p(path);
  const std::size_t dot = p.rfind(VXT('.'));
  if (dot == VxStringView::npos || p.size() - dot != 4) return nullptr;
  char ext[3];
  for (int i = 0; i < 3; ++i) {
    const VxChar c = p[dot + 1 + i];
    ext[i] = c < 128 ? static_cast<char>(std::tolower(static_cast<int>(c))) : '?';
  }
  const std::string_view e(ext, 3);
  if (e == "rlx") return std::make_unique<RedRLX>();
  if (e == "rsx") return std::make_unique<RedRSX>();
  if (e == "rmd") return std::make_unique<RedRMD>();
  return nullptr;
}

}  // namespace vx::red
