#include "fileio/whole_file.h"

#include <algorithm>
#include <atomic>

#include "base/text.h"
#include "base/worker_pool.h"

namespace vx::fileio {
namespace {

constexpr std::uint64_t kMaxTransfer = 1u << 30;
constexpr std::uint64_t kPieceBytes = 4u << 20;

}  // namespace

bool ReadAll(os::FileHandle f, std::uint64_t offset, void* out, std::uint64_t bytes) {
  auto* to = static_cast<std::uint8_t*>(out);
  for (std::uint64_t at = 0; at < bytes;) {
    const auto want = static_cast<std::uint32_t>(std::min(bytes - at, kMaxTransfer));
    std::uint32_t done = 0;
    if (!os::ReadAt(f, offset + at, to + at, want, &done) || done != want) return false;
    at += want;
  }
  return true;
}

bool WriteAll(os::FileHandle f, std::uint64_t offset, const void* data, std::uint64_t bytes) {
  const auto* from = static_cast<const std::uint8_t*>(data);
  for (std::uint64_t at = 0; at < bytes;) {
    const auto want = static_cast<std::uint32_t>(std::min(bytes - at, kMaxTransfer));
    std::uint32_t done = 0;
    if (!os::WriteAt(f, offset + at, from + at, want, &done) || done != want) return false;
    at += want;
  }
  return true;
}

bool ReadAllParallel(os::FileHandle f, std::uint64_t offset, void* out, std::uint64_t bytes) {
  WorkerPool& pool = WorkerPool::Shared();
  const int pieces = static_cast<int>(
      std::min<std::uint64_t>((bytes + kPieceBytes - 1) / kPieceBytes, pool.Concurrency()));
  if (pieces <= 1) return ReadAll(f, offset, out, bytes);
  auto* to = static_cast<std::uint8_t*>(out);
  std::atomic<bool> ok{true};
  pool.ParallelFor(pieces, [&](int i) {
    const std::uint64_t begin = bytes * static_cast<std::uint64_t>(i) / pieces;
    const std::uint64_t end = bytes * static_cast<std::uint64_t>(i + 1) / pieces;
    if (!ReadAll(f, offset + begin, to + begin, end - begin)) ok = false;
  });
  return ok;
}

bool WriteReplacing(const VxChar* path, const std::function<bool(const VxChar* temp)>& fill) {
  if (!path) return false;
  const VxString temp = TemporaryNameBeside(path);
  if (fill(temp.c_str()) && os::Replace(temp.c_str(), path)) return true;
  os::Remove(temp.c_str());
  return false;
}

bool WriteReplacing(const VxChar* path,
                    std::initializer_list<std::span<const std::uint8_t>> pieces) {
  return WriteReplacing(path, [pieces](const VxChar* temp) {
    os::UniqueFile file(os::Create(temp));
    if (!file) return false;
    std::uint64_t at = 0;
    for (const auto& piece : pieces) {
      if (!WriteAll(file.get(), at, piece.data(), piece.size())) return false;
      at += piece.size();
    }
    return true;
  });
}

}  // namespace vx::fileio
