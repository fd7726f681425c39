#include "movie/mxf/mxf_parser.h"

#include "audio/mxf/mxf_audio_parser.h"

using vx::ffmedia::VideoCodec;

CVxMediaFileParserMXF::CVxMediaFileParserMXF()
    : CVxMovieParser(vx::movie::Container::kMxf, "mxf") {}

const std::vector<CVxMovieParser::CodecName>& CVxMediaFileParserMXF::Codecs() const {
  // The first name of a codec is the one GetCompressionName answers.
  static const std::vector<CodecName> kCodecs = {
      {"dnxhr", VideoCodec::kDNxHRHQ},           {"dnxhrhq", VideoCodec::kDNxHRHQ},
      {"dnxhrhqx", VideoCodec::kDNxHRHQX},       {"prores", VideoCodec::kProRes422HQ},
      {"prores422hq", VideoCodec::kProRes422HQ}, {"prores4444", VideoCodec::kProRes4444},
  };
  return kCodecs;
}

VideoCodec CVxMediaFileParserMXF::DefaultCodec(bool alpha) const {
  return alpha ? VideoCodec::kProRes4444 : VideoCodec::kDNxHRHQ;
}

IVxAudioStreamParser* CVxMediaFileParserMXF::MakeSoundStream(
    const std::shared_ptr<vx::movie::MovieSource>& source, const VxString& name, int track) {
  auto* parser = new CVxAudioParserMXF;
  parser->AddRef();
  parser->UseSource(source, track);
  if (FAILED(parser->Open(name.c_str(), 0))) {
    parser->Release();
    return nullptr;  // the base's stream serves the track
  }
  return static_cast<IVxAudioStreamParser*>(parser);
}
