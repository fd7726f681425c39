// The writing half of CVxDPXFileParser. It does not look at the header the reader parsed last:
// what a frame carries beyond its pixels comes from the metadata record the host set (vxhost
// convert copies the source's), and from the rate, field mode, aspect and levels it imposed.
#include <cstdlib>
#include <string>

#include "base/guard.h"
#include "still/dpx/dpx_metadata.h"
#include "still/dpx/dpx_parser.h"
#include "still/dpx/dpx_writer.h"

using namespace vx::dpx;

namespace {

// The record's transfer (DPX code + 1) as the export dialog's transfer choice.
int TransferChoice(std::uint32_t transfer) {
  switch (transfer) {
    case VX_TRANSFER_REC709:
      return 3;
    case VX_TRANSFER_PRINTING_DENSITY:
      return 4;
    case VX_TRANSFER_LINEAR:
      return 0;
    default:
      return 1;
  }
}

DpxWriteInfo WriteInfoFrom(IVxMetadata* md) {
  DpxWriteInfo info;
  if (!md) return info;
  const VxMetadataRecord r = vx::md::GetRecord(md);
  if (r.present & VX_MD_TIMECODE) info.timeCode = r.timeCode;
  if (r.present & VX_MD_FRAMERATE) info.frameRate = r.frameRate.Rate();
  if (r.present & VX_MD_FIELDMODE) info.fieldMode = r.fieldMode;
  if (r.present & VX_MD_ASPECT) {
    info.aspectKnown = true;
    info.pixelAspect = r.pixelAspect;
  }
  if (r.present & VX_MD_LEVELS) info.levels = r.levels;
  if (r.present & VX_MD_TRANSFER) info.transferChoice = TransferChoice(r.transfer);
  std::uint8_t code = 0;
  if ((r.present & VX_MD_TRANSFER) && DpxTransferCode(r.transfer, &code)) info.transferCode = code;
  if ((r.present & VX_MD_COLORIMETRIC) && DpxColorimetricCode(r.colorimetric, &code))
    info.colorimetricCode = code;
  info.metadata = md;
  info.inputDevice = vx::md::GetText(md, vx::md::kInputDevice);
  // What a DPX reader said about the source's layout, so "keep" keeps it.
  const std::string bits = vx::md::GetText(md, "dpx:bits");
  if (!bits.empty()) info.sourceBits = static_cast<std::uint32_t>(std::atoi(bits.c_str()));
  const std::string packing = vx::md::GetText(md, "dpx:packing");
  if (!packing.empty()) info.sourcePacking = std::atoi(packing.c_str());
  DpxExportSettings layout;
  if (ApplyDpxOption(vx::FromUtf8("layout=" + vx::md::GetText(md, "dpx:layout")).c_str(), &layout,
                     nullptr) == S_OK)
    info.sourceLayout = layout.layout;
  return info;
}

}  // namespace

HRESULT CVxDPXFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (!isDpx_) return E_NOTIMPL;  // Cineon is read only
    DpxWriteInfo info = WriteInfoFrom(WriteMetadata());
    if (imposedRate_ > 0.0) info.frameRate = imposedRate_;
    if (imposedField_ >= 0) info.fieldMode = imposedField_;
    if (AspectImposed()) {
      info.aspectKnown = true;
      info.pixelAspect = PixelAspect();
    }
    if (levelsImposed_) info.levels = imposedLevels_;
    return WriteDpxFile(OutputFileName(frame).c_str(), image, export_, info);
  });
}
