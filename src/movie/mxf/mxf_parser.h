// MXF files (the "MXF" row): OP1a and OP-Atom read through the platform's movie backend, their
// sound through the MXF sound parser; written as OP1a with DNxHR HQ unless "codec=" says
// otherwise, PCM sound and the start time code.
#pragma once

#include <vector>

#include "movie/source/movie_parser.h"

class CVxMediaFileParserMXF final : public CVxMovieParser {
 public:
  CVxMediaFileParserMXF();

 protected:
  const std::vector<CodecName>& Codecs() const override;
  vx::ffmedia::VideoCodec DefaultCodec(bool alpha) const override;
  IVxAudioStreamParser* MakeSoundStream(const std::shared_ptr<vx::movie::MovieSource>& source,
                                        const VxString& name, int track) override;
};
