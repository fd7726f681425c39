// Builds with neither FFmpeg nor Video for Windows: the movie parsers open nothing.
#include "movie/source/movie_source.h"

namespace vx::movie {

std::unique_ptr<MovieSource> MakeMovieSource(Container) {
  return nullptr;
}

std::unique_ptr<MovieSink> MakeMovieSink(Container) {
  return nullptr;
}

}  // namespace vx::movie
