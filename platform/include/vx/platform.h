// The one interface to the operating system. POSIX and Win32 implement it; nothing outside
// platform/ includes OS headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "vx/vxchar.h"

namespace vx::os {

// ---- Files --------------------------------------------------------------------------------
// A file handle is an integer so it can key caches; on Windows it holds the HANDLE value.
using FileHandle = std::intptr_t;
inline constexpr FileHandle kNoFile = -1;  // also INVALID_HANDLE_VALUE's value on Windows

FileHandle OpenRead(const VxChar* path);       // shared read (others may read and write)
FileHandle OpenReadWrite(const VxChar* path);  // existing file, read and write
FileHandle Create(const VxChar* path);         // create or truncate, read and write
// Positioned transfers; the file's own pointer is never used, so threads may share a handle.
// Return false only on an OS error; a transfer cut short by the end of the file is true with
// *done below count.
bool ReadAt(FileHandle f, std::uint64_t offset, void* buf, std::uint32_t count,
            std::uint32_t* done);
bool WriteAt(FileHandle f, std::uint64_t offset, const void* buf, std::uint32_t count,
             std::uint32_t* done);
bool Size(FileHandle f, std::uint64_t* size);
bool Truncate(FileHandle f, std::uint64_t size);
void Close(FileHandle f);
bool IsFile(const VxChar* path);  // exists and is not a directory
bool IsDirectory(const VxChar* path);
// Names (not paths) of the entries of `folder` that are not folders themselves, in no particular
// order; false when the folder cannot be read. Allocation failure throws bad_alloc, as any
// container does: unlike std::filesystem's iterators it never ends the process.
bool ListFiles(const VxChar* folder, std::vector<VxString>* names);
bool Remove(const VxChar* path);
// The C library's stream open with a wide path and mode ("rb", "wb", "r+b"); null on failure.
std::FILE* OpenStdio(const VxChar* path, const VxChar* mode);
// Atomically replaces `to` with `from` (both on one volume).
bool Replace(const VxChar* from, const VxChar* to);
// Exclusive advisory lock on an open file, blocking; released by Unlock or Close.
bool LockFile(FileHandle f);
void UnlockFile(FileHandle f);

// Owns an open file handle and closes it at scope end.
class UniqueFile {
 public:
  UniqueFile() = default;
  explicit UniqueFile(FileHandle f) : f_(f) {}
  ~UniqueFile() { reset(); }
  UniqueFile(const UniqueFile&) = delete;
  UniqueFile& operator=(const UniqueFile&) = delete;
  UniqueFile(UniqueFile&& o) noexcept : f_(o.release()) {}
  UniqueFile& operator=(UniqueFile&& o) noexcept {
    if (this != &o) reset(o.release());
    return *this;
  }
  FileHandle get() const { return f_; }
  explicit operator bool() const { return f_ != kNoFile; }
  FileHandle release() {
    const FileHandle f = f_;
    f_ = kNoFile;
    return f;
  }
  void reset(FileHandle f = kNoFile) {
    if (f_ != kNoFile) Close(f_);
    f_ = f;
  }

 private:
  FileHandle f_ = kNoFile;
};

// ---- Named shared memory ------------------------------------------------------------------
std::size_t PageSize();
std::uint64_t RoundToPage(std::uint64_t bytes);  // sizes of mappings are whole pages

struct SharedMemory {
  std::intptr_t handle = -1;  // OS object
  void* view = nullptr;       // mapped view, whole size
  std::uint64_t size = 0;     // rounded to pages
  bool owner = false;         // created (not opened) by this process
};
// Creates (or opens, when it exists already) a named mapping of at least `size` bytes and maps
// it whole. Names are plain identifiers; the implementation adds what the OS needs. Joining an
// existing mapping smaller than `size` fails.
bool CreateSharedMemory(const VxChar* name, std::uint64_t size, SharedMemory* out);
// Opens an existing mapping of at least `size` bytes (0: any size) and maps it whole.
bool OpenSharedMemory(const VxChar* name, std::uint64_t size, SharedMemory* out);
void CloseSharedMemory(SharedMemory* shm);  // unmaps; the creator also removes the name

// ---- Named auto-reset events --------------------------------------------------------------
// An event exists while any process holds a handle to it; processes that died holding one do
// not count.
using EventHandle = struct EventImpl*;
EventHandle CreateEvent(const VxChar* name, bool initiallySet);  // creates or opens
EventHandle OpenEvent(const VxChar* name);                       // null when absent
bool SetEvent(EventHandle e);
bool ResetEvent(EventHandle e);
void CloseEvent(EventHandle e);

inline constexpr std::uint32_t kInfinite = 0xFFFFFFFFu;
enum class Wait { Signaled, Timeout, ProcessExited, Failed };
// Waits for the event (an auto-reset event is cleared by the wait that takes it).
Wait WaitEvent(EventHandle e, std::uint32_t timeoutMs);

// ---- Processes ----------------------------------------------------------------------------
using ProcessHandle = struct ProcessImpl*;
// Starts `program` found in `folder` (the working directory too) with `commandLine` (arguments
// only, split like a shell: spaces separate, double quotes group), without a window.
ProcessHandle LaunchProcess(const VxChar* folder, const VxChar* program, const VxChar* commandLine);
// Kills the process; ProcessExitCode then reports `exitCode`. False when it has ended already.
bool TerminateProcess(ProcessHandle p, int exitCode);
Wait WaitProcess(ProcessHandle p, std::uint32_t timeoutMs);  // Signaled when it has exited
bool ProcessExitCode(ProcessHandle p, int* code);            // false while it runs
std::uint32_t ProcessIdOf(ProcessHandle p);
void CloseProcess(ProcessHandle p);  // forgets the handle; the process runs on
// First of: the event set (Signaled) or the process gone (ProcessExited).
Wait WaitEventOrProcess(EventHandle e, ProcessHandle p, std::uint32_t timeoutMs);
std::uint32_t CurrentProcessId();
// Whether a process with id `pid` still runs (decoder programs watch their host with it).
bool ProcessIsRunning(std::uint32_t pid);
VxString ExecutablePath();
void SleepMs(std::uint32_t ms);

// ---- Locks, atomics, memory ---------------------------------------------------------------
// Recursive, like a Windows critical section.
class CriticalSection {
 public:
  CriticalSection();
  ~CriticalSection();
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;
  void Enter();
  void Leave();

 private:
  void* impl_;
};

class Lock {
 public:
  explicit Lock(CriticalSection& cs) : cs_(cs) { cs_.Enter(); }
  ~Lock() { cs_.Leave(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  CriticalSection& cs_;
};

std::int32_t AtomicIncrement(volatile std::int32_t* v);                     // returns the new value
std::int32_t AtomicDecrement(volatile std::int32_t* v);                     // returns the new value
std::int32_t AtomicExchange(volatile std::int32_t* v, std::int32_t value);  // returns old
std::int32_t AtomicCompareExchange(volatile std::int32_t* v, std::int32_t exchange,
                                   std::int32_t comparand);  // returns old
std::int32_t AtomicLoad(const volatile std::int32_t* v);

// Zeroed, page-aligned, read-write memory straight from the OS.
void* AllocatePages(std::size_t bytes);
void FreePages(void* p, std::size_t bytes);
// Keeps freed heap memory in the process for the next allocation instead of handing it back
// to the OS. For programs that allocate the same large buffers for every frame, which would
// otherwise be mapped and faulted in afresh each time.
void KeepFreedMemory();

// ---- Modules ------------------------------------------------------------------------------
using ModuleHandle = void*;
ModuleHandle LoadModule(const VxChar* path);  // null on failure; see LastModuleError
std::string LastModuleError();
void* ModuleSymbol(ModuleHandle m, const char* name);
void FreeModule(ModuleHandle m);
// Path of the module that contains `address` (a function or object of it).
VxString ModulePathOf(const void* address);
// File name suffix of loadable modules: ".so" or ".dll".
const char* ModuleSuffix();

// ---- Environment and user interface -------------------------------------------------------
bool GetEnv(const char* name, std::string* value);
// Owner-less modal box with OK where the OS has one; returns false when none could be shown.
bool ShowMessageBox(const VxChar* caption, const VxChar* text);
bool IsTerminal(int fd);  // 1 = standard output, 2 = standard error

// ---- Module start-up ----------------------------------------------------------------------
// What the OS wants done once when the component's module is loaded into a process (Windows:
// no thread notifications, the AVI file library, 2048 stdio streams). `instance` is the module
// handle the loader passed in; a no-op where there is nothing to do.
void ModuleProcessAttach(void* instance);

}  // namespace vx::os
