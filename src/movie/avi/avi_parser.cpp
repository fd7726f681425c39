#include "movie/avi/avi_parser.h"

using vx::ffmedia::VideoCodec;

CVxMediaFileParserAVI::CVxMediaFileParserAVI()
    : CVxMovieParser(vx::movie::Container::kAvi, "avi") {}

const std::vector<CVxMovieParser::CodecName>& CVxMediaFileParserAVI::Codecs() const {
  // The first name of a codec is the one GetCompressionName answers.
  static const std::vector<CodecName> kCodecs = {
      {"rgb", VideoCodec::kBGR24},          {"none", VideoCodec::kBGR24},
      {"bgr", VideoCodec::kBGR24},          {"uncompressed", VideoCodec::kBGR24},
      {"bgra", VideoCodec::kBGRA8},         {"rgba", VideoCodec::kBGRA8},
      {"v210", VideoCodec::kV210},          {"mjpeg", VideoCodec::kMJPEG},
      {"mjpg", VideoCodec::kMJPEG},         {"dnxhr", VideoCodec::kDNxHRHQ},
      {"prores", VideoCodec::kProRes422HQ},
  };
  return kCodecs;
}

VideoCodec CVxMediaFileParserAVI::DefaultCodec(bool alpha) const {
  return alpha ? VideoCodec::kBGRA8 : VideoCodec::kBGR24;
}
