// AVI files (the "AVI" row): read through the platform's movie backend, written with the codec
// "codec=" names, uncompressed RGB (bottom-up DIB rows) unless told otherwise.
#pragma once

#include <vector>

#include "movie/source/movie_parser.h"

class CVxMediaFileParserAVI final : public CVxMovieParser {
 public:
  CVxMediaFileParserAVI();

 protected:
  const std::vector<CodecName>& Codecs() const override;
  vx::ffmedia::VideoCodec DefaultCodec(bool alpha) const override;
};
