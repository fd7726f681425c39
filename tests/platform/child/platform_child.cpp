// Second process for the platform tests: it opens what the test created and answers.
//   pingpong <prefix> <rounds>   answer each request value v with 2v+1 in the mapping
//   signal-exit <event> <code>   set the event, then exit with code
//   exit <code> [delay ms]       exit with code, optionally after a pause
//   args                         write the arguments, one a line, to args.txt in the cwd
//   stdin                        exit 0 when standard input is at its end at once
//   lock <file> <event> <ms>     lock the file, set the event, hold the lock for ms
//   wait <event> <ready>         set ready, then wait for the event for ever
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vx/platform.h"

using namespace vx::os;

namespace {

VxString W(const std::string& s) {
  return vx::FromUtf8(s);
}

int PingPong(const std::string& prefix, int rounds) {
  SharedMemory shm;
  if (!OpenSharedMemory(W(prefix + "_map").c_str(), 8, &shm)) return 10;
  EventHandle request = OpenEvent(W(prefix + "_req").c_str());
  EventHandle reply = OpenEvent(W(prefix + "_rep").c_str());
  if (!request || !reply) return 11;
  auto* words = static_cast<volatile std::uint32_t*>(shm.view);
  for (int i = 0; i < rounds; ++i) {
    if (WaitEvent(request, 10000) != Wait::Signaled) return 12;  // exiting closes the rest
    words[1] = words[0] * 2 + 1;
    SetEvent(reply);
  }
  CloseEvent(request);
  CloseEvent(reply);
  CloseSharedMemory(&shm);
  return 0;
}

int WriteArgs(int argc, char** argv) {
  std::FILE* f = std::fopen("args.txt", "wb");
  if (!f) return 20;
  for (int i = 2; i < argc; ++i) std::fprintf(f, "%s\n", argv[i]);
  std::fclose(f);
  return 0;
}

int HoldLock(const std::string& file, const std::string& event, int ms) {
  FileHandle f = OpenReadWrite(W(file).c_str());
  EventHandle e = OpenEvent(W(event).c_str());
  if (f == kNoFile || !e) return 30;
  if (!LockFile(f)) return 31;
  SetEvent(e);
  SleepMs(static_cast<std::uint32_t>(ms));
  UnlockFile(f);
  Close(f);
  CloseEvent(e);
  return 0;
}

}  // namespace

int Main(int argc, char** argv) {
  if (argc < 2) return 2;
  const std::string mode = argv[1];
  auto arg = [&](int i) { return i < argc ? std::string(argv[i]) : std::string(); };
  if (mode == "pingpong") return PingPong(arg(2), std::atoi(arg(3).c_str()));
  if (mode == "signal-exit") {
    EventHandle e = OpenEvent(W(arg(2)).c_str());
    if (!e) return 40;
    SetEvent(e);
    CloseEvent(e);
    return std::atoi(arg(3).c_str());
  }
  if (mode == "exit") {
    if (argc > 3) SleepMs(static_cast<std::uint32_t>(std::atoi(arg(3).c_str())));
    return std::atoi(arg(2).c_str());
  }
  if (mode == "args") return WriteArgs(argc, argv);
  if (mode == "stdin") return std::fgetc(stdin) == EOF ? 0 : 1;
  if (mode == "wait") {
    EventHandle e = OpenEvent(W(arg(2)).c_str());
    EventHandle ready = OpenEvent(W(arg(3)).c_str());
    if (!e || !ready) return 50;
    SetEvent(ready);
    return WaitEvent(e, kInfinite) == Wait::Signaled ? 0 : 51;
  }
  if (mode == "lock") return HoldLock(arg(2), arg(3), std::atoi(arg(4).c_str()));
  return 2;
}

#ifdef _WIN32
// The narrow arguments of the Windows C library are in the ANSI code page; take the UTF-16 ones
// and hand UTF-8 on, as on every other system.
int wmain(int argc, wchar_t** wargv) {
  std::vector<std::string> args;
  for (int i = 0; i < argc; ++i) args.push_back(vx::ToUtf8(wargv[i]));
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  return Main(argc, argv.data());
}
#else
int main(int argc, char** argv) {
  return Main(argc, argv);
}
#endif
