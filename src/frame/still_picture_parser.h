// What most still formats share on top of the still-image base: the source information answered
// from the metadata record, one picture stream of fixed capabilities and no time range. Formats
// with more interfaces or other answers override those methods and fall back to these.
#pragma once

#include <string>

#include "frame/source_info.h"
#include "frame/still_image_parser.h"

class CVxStillPictureParser : public CVxStillImageParser, public CVxSourceInfoFromMetadata {
 public:
  // Answers IVxParserSourceInfo, then what the still-image base answers.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return CVxStillImageParser::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return CVxStillImageParser::Release(); }

  // kPictureCapabilities for the picture stream, 0 for any other kind, whatever the mode.
  HRESULT STDMETHODCALLTYPE GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) override;
  // A single picture has no time: zero times and S_FALSE.
  HRESULT STDMETHODCALLTYPE GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) override;

  static constexpr DWORD kPictureCapabilities = 170;

 protected:
  // A text option "name=value" split at the first '=', both sides trimmed of spaces and in lower
  // case; false without '='.
  static bool SplitTextOption(const void* option, std::string* name, std::string* value);
};
