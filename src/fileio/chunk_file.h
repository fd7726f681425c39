// Typed positioned reading and writing with a chunk stack for RIFF/IFF files. CChunkFile moves
// values in little-endian order, CReverseChunkFile byte-reversed (big-endian files),
// CProxyChunkFile reads through a host reader instead of a file handle.
//
// Every typed transfer moves the position by exactly what it transferred and not at all when
// the item could not be transferred whole. Strings come back from new[]; free them with
// delete[].
#pragma once

#include <cstdint>

#include "vx/com.h"
#include "vx/parser.h"
#include "vx/platform.h"

namespace vx::fileio {

inline constexpr std::uint32_t kChunkStackDepth = 64;

// Four-character code as read from a file: the first byte is the lowest.
constexpr std::uint32_t FourCC(const char (&s)[5]) {
  return static_cast<std::uint32_t>(static_cast<std::uint8_t>(s[0])) |
         static_cast<std::uint32_t>(static_cast<std::uint8_t>(s[1])) << 8 |
         static_cast<std::uint32_t>(static_cast<std::uint8_t>(s[2])) << 16 |
         static_cast<std::uint32_t>(static_cast<std::uint8_t>(s[3])) << 24;
}

class CChunkFile {
 public:
  // Takes ownership of `file` (0 or os::kNoFile: none). With `cached` every transfer goes
  // through the process-wide block cache.
  CChunkFile(os::FileHandle file, BOOL cached);
  CChunkFile(const CChunkFile&) = delete;
  CChunkFile& operator=(const CChunkFile&) = delete;

  virtual ~CChunkFile();
  virtual BOOL WriteWord(std::uint16_t value);
  virtual BOOL WriteLong(std::uint32_t value);
  virtual BOOL WriteQuad(std::uint64_t value);
  virtual BOOL WriteDouble(double value);
  virtual BOOL WriteExtended(double value);  // 80-bit extended float
  // Arrays return count, or 0 when the whole array could not be written.
  virtual std::uint32_t WriteWords(const std::uint16_t* values, std::uint32_t count);
  virtual std::uint32_t WriteTriples(const std::uint8_t* values, std::uint32_t count);
  virtual std::uint32_t WriteLongs(const std::uint32_t* values, std::uint32_t count);
  // Values read as 0 when they could not be read whole.
  virtual std::uint16_t ReadWord();
  virtual std::uint32_t ReadLong();
  virtual std::uint64_t ReadQuad();
  virtual double ReadDouble();
  virtual double ReadExtended();
  virtual std::uint32_t ReadWords(std::uint16_t* values, std::uint32_t count);
  virtual std::uint32_t ReadTriples(std::uint8_t* values, std::uint32_t count);
  virtual std::uint32_t ReadLongs(std::uint32_t* values, std::uint32_t count);
  // Raw transfers at the current position; they do not move it. Non-zero on success; a
  // transfer cut short by the end of the file succeeds with *done below count.
  virtual BOOL Read(void* buffer, std::uint32_t count, std::uint32_t* done);
  virtual BOOL Write(const void* buffer, std::uint32_t count, std::uint32_t* done);

  // Chunks: identifier, 32-bit size in the class's byte order, data, a pad byte after odd data.
  // Reads the header and pushes the chunk's (padded) end; returns the size. 0 ends a walk: the
  // end of the file, an empty chunk, or 64 chunks already open (then nothing is read).
  std::uint32_t Descend(std::uint32_t* id);
  // Pops the top end and moves there (the next sibling); 0 with an empty stack.
  void Ascend();
  // FALSE, pushing nothing, when 64 entries are on the stack.
  BOOL PushEnd(std::uint64_t end);
  std::uint64_t PopEnd();  // 0 on an empty stack
  // Writes the identifier and a placeholder size and pushes the first data byte's offset. FALSE
  // when a header byte could not be written or 64 chunks are open (then nothing is written).
  BOOL CreateChunk(std::uint32_t id);
  // Patches the size of the innermost created chunk (clamped to 32 bits), moves past its data
  // and pads odd data with one zero byte. Returns the size; 0 when it could not be written, and
  // 0 without writing or moving when no chunk is open or the top entry cannot be a data start
  // (before byte 8, or past the position).
  std::uint32_t CloseChunk();
  BOOL WriteFourCC(std::uint32_t id);
  std::uint32_t Depth() const { return depth_; }

  std::uint8_t ReadByte();
  BOOL WriteByte(std::uint8_t value);
  // Four spaces when the 4 bytes are not there.
  std::uint32_t ReadFourCC();
  // The string readers return a terminated array, or null (and leave the position where it was)
  // when the file ends first.
  char* ReadFixedString(std::uint32_t length);            // length & 0xFFFF bytes
  char* ReadByteCountedString(std::uint8_t* lengthOut);   // count byte, text
  char* ReadWordCountedString(std::uint16_t* lengthOut);  // 16-bit count, text
  // Count byte L, then L+1 bytes (text and pad). The text is terminated after L bytes.
  char* ReadPaddedCountedString(std::uint8_t* lengthOut);
  // Up to 512 bytes including the terminator; null when none comes.
  char* ReadCString();

  os::FileHandle Handle() const { return file_; }
  bool Cached() const { return cached_ != 0; }

  // Byte offset of the next transfer; callers seek by setting it.
  std::uint64_t position = 0;

 protected:
  // Whole-or-nothing transfer that advances the position on success.
  bool ReadExact(void* buffer, std::uint32_t count);
  bool WriteExact(const void* buffer, std::uint32_t count);
  static double DecodeExtended(std::uint16_t exponent, std::uint32_t high, std::uint32_t low);
  static void EncodeExtended(double value, std::uint16_t* exponent, std::uint32_t* high,
                             std::uint32_t* low);
  bool HasFile() const { return file_ != 0 && file_ != os::kNoFile; }

  os::FileHandle file_;
  std::int32_t cached_;
  std::uint64_t stack_[kChunkStackDepth] = {};
  std::uint32_t depth_ = 0;
};

class CReverseChunkFile : public CChunkFile {
 public:
  CReverseChunkFile(os::FileHandle file, BOOL cached);
  ~CReverseChunkFile() override;

  BOOL WriteWord(std::uint16_t value) override;
  BOOL WriteLong(std::uint32_t value) override;
  BOOL WriteQuad(std::uint64_t value) override;
  BOOL WriteDouble(double value) override;
  BOOL WriteExtended(double value) override;
  std::uint32_t WriteWords(const std::uint16_t* values, std::uint32_t count) override;
  std::uint32_t WriteTriples(const std::uint8_t* values, std::uint32_t count) override;
  std::uint32_t WriteLongs(const std::uint32_t* values, std::uint32_t count) override;
  std::uint16_t ReadWord() override;
  std::uint32_t ReadLong() override;
  std::uint64_t ReadQuad() override;
  double ReadDouble() override;
  double ReadExtended() override;
  std::uint32_t ReadWords(std::uint16_t* values, std::uint32_t count) override;
  std::uint32_t ReadTriples(std::uint8_t* values, std::uint32_t count) override;
  std::uint32_t ReadLongs(std::uint32_t* values, std::uint32_t count) override;

 private:
  // Grows only: a larger request frees it and allocates exactly that size.
  std::uint8_t* Scratch(std::uint64_t bytes);

  std::uint8_t* scratch_ = nullptr;
  std::uint32_t scratchSize_ = 0;
};

// Reads through the host's reader object; has no handle and cannot write.
class CProxyChunkFile : public CChunkFile {
 public:
  explicit CProxyChunkFile(IVxHostReader* reader);
  ~CProxyChunkFile() override;

  // Non-zero when the reader's call succeeded.
  BOOL Read(void* buffer, std::uint32_t count, std::uint32_t* done) override;

 private:
  IVxHostReader* reader_;
};

}  // namespace vx::fileio
