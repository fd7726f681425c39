#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "platform_test_util.h"

using namespace vx::os;
using vxtest::U;
using vxtest::UniqueName;

namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point t0) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

double CpuMs(std::clock_t c0) {
#ifdef _WIN32
  // The Windows C library's clock() counts wall time, so it cannot tell sleeping from spinning.
  (void)c0;
  return 0.0;
#else
  return 1000.0 * static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC;
#endif
}

// The calls below take null handles quietly, so a failed launch or create fails the test's later
// expectations instead of crashing it.
ProcessHandle LaunchChild(const std::string& args) {
  ProcessHandle p = LaunchProcess(vxtest::Wide(vxtest::ChildDir()).c_str(),
                                  VXT("vx_platform_child"), U(args).c_str());
  EXPECT_NE(p, nullptr) << args;
  return p;
}

EventHandle NewEvent(const std::string& name, bool initial = false) {
  EventHandle e = CreateEvent(U(name).c_str(), initial);
  EXPECT_NE(e, nullptr) << name;
  return e;
}

// Waits for the child and hands back its exit code; -1 if it would not end.
int Finish(ProcessHandle p) {
  int code = -1;
  if (WaitProcess(p, 20000) != Wait::Signaled) TerminateProcess(p, -1);
  WaitProcess(p, 5000);
  ProcessExitCode(p, &code);
  CloseProcess(p);
  return code;
}

TEST(SharedMemory, CreateOpenSizesAndRefusals) {
  const std::string name = UniqueName("shm");
  SharedMemory a, b;
  ASSERT_TRUE(CreateSharedMemory(U(name).c_str(), 100, &a));
  EXPECT_TRUE(a.owner);
  EXPECT_EQ(a.size, RoundToPage(100));
  EXPECT_EQ(a.size % PageSize(), 0u);
  // Fresh mappings are zero-filled.
  EXPECT_EQ(static_cast<unsigned char*>(a.view)[a.size - 1], 0);
  ASSERT_TRUE(OpenSharedMemory(U(name).c_str(), 100, &b));
  EXPECT_FALSE(b.owner);
  EXPECT_NE(a.view, b.view);
  std::memcpy(a.view, "hello", 6);
  EXPECT_STREQ(static_cast<char*>(b.view), "hello");

  SharedMemory c;  // Create on an existing name joins it and does not own it
  ASSERT_TRUE(CreateSharedMemory(U(name).c_str(), 100, &c));
  EXPECT_FALSE(c.owner);
  EXPECT_STREQ(static_cast<char*>(c.view), "hello");
  CloseSharedMemory(&c);
  CloseSharedMemory(&b);
  EXPECT_EQ(b.view, nullptr);

  CloseSharedMemory(&a);  // the creator takes the name with it
  SharedMemory d;
  EXPECT_FALSE(OpenSharedMemory(U(name).c_str(), 100, &d));

  // An open without a size takes the whole mapping, one asking for more than there is fails,
  // and so do absent names, empty names and empty mappings.
  const std::string any = UniqueName("any");
  SharedMemory m;  // a and b again, closed above
  ASSERT_TRUE(CreateSharedMemory(U(any).c_str(), 3 * PageSize() + 1, &a));
  ASSERT_TRUE(OpenSharedMemory(U(any).c_str(), 0, &b));
  EXPECT_EQ(b.size, 4 * PageSize());
  static_cast<unsigned char*>(a.view)[a.size - 1] = 0x5A;  // last byte is shared too
  EXPECT_EQ(static_cast<unsigned char*>(b.view)[b.size - 1], 0x5A);
  EXPECT_FALSE(OpenSharedMemory(U(any).c_str(), a.size + 1, &m));
  CloseSharedMemory(&b);
  CloseSharedMemory(&a);
  EXPECT_FALSE(OpenSharedMemory(U(UniqueName("absent")).c_str(), 10, &m));
  EXPECT_FALSE(CreateSharedMemory(VXT(""), 10, &m));
  EXPECT_FALSE(CreateSharedMemory(U(UniqueName("zero")).c_str(), 0, &m));
}

// Names the OS cannot take as they are (slashes, spaces, beyond its length limit) are mapped to
// names it can, without two different names meeting.
TEST(SharedMemory, DistinctNamesStayApart) {
  const std::string base = UniqueName("n"), head = UniqueName(std::string(300, 'q'));
  for (const auto& [one, two] :
       {std::pair{base + "/x y", base + "_x_y"}, {head + "1", head + "2"}}) {
    SharedMemory a, b, c;
    ASSERT_TRUE(CreateSharedMemory(U(one).c_str(), 8, &a));
    ASSERT_TRUE(CreateSharedMemory(U(two).c_str(), 8, &b));
    EXPECT_TRUE(b.owner);  // a different object, not the first one reopened
    ASSERT_TRUE(OpenSharedMemory(U(one).c_str(), 8, &c));
    static_cast<char*>(a.view)[0] = 'a';
    EXPECT_EQ(static_cast<char*>(c.view)[0], 'a');
    EXPECT_EQ(static_cast<char*>(b.view)[0], 0);
    for (SharedMemory* m : {&c, &b, &a}) CloseSharedMemory(m);
  }
}

TEST(Events, AutoResetTakesOneSetPerWait) {
  EventHandle e = NewEvent(UniqueName("ev"));
  EXPECT_EQ(WaitEvent(e, 0), Wait::Timeout);
  ASSERT_TRUE(SetEvent(e));
  ASSERT_TRUE(SetEvent(e));  // sets do not count up
  EXPECT_EQ(WaitEvent(e, 0), Wait::Signaled);
  EXPECT_EQ(WaitEvent(e, 0), Wait::Timeout);
  SetEvent(e);
  ResetEvent(e);
  EXPECT_EQ(WaitEvent(e, 0), Wait::Timeout);
  CloseEvent(e);
  EXPECT_EQ(WaitEvent(nullptr, 0), Wait::Failed);
  EXPECT_FALSE(SetEvent(nullptr));
  EXPECT_FALSE(ResetEvent(nullptr));
  CloseEvent(nullptr);
  EXPECT_EQ(CreateEvent(VXT(""), false), nullptr);
}

TEST(Events, InitialStateAndOpeningByName) {
  const std::string name = UniqueName("ev");
  EXPECT_EQ(OpenEvent(U(name).c_str()), nullptr);
  EventHandle a = NewEvent(name, true);
  EventHandle b = OpenEvent(U(name).c_str());
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(WaitEvent(b, 0), Wait::Signaled);  // the other handle sees the initial set
  EXPECT_EQ(WaitEvent(a, 0), Wait::Timeout);
  // Creating an existing event opens it; its state is not reset by the initial flag.
  EventHandle c = NewEvent(name, true);
  EXPECT_EQ(WaitEvent(a, 0), Wait::Timeout);
  SetEvent(c);
  EXPECT_EQ(WaitEvent(a, 0), Wait::Signaled);
  CloseEvent(a);  // the first handle going does not take the name while others hold it
  EventHandle d = OpenEvent(U(name).c_str());
  EXPECT_NE(d, nullptr);
  for (EventHandle h : {b, c, d}) CloseEvent(h);
  EXPECT_EQ(OpenEvent(U(name).c_str()), nullptr);  // the last handle removed it
}

TEST(Events, OneSetReleasesExactlyOneOfTwoWaiters) {
  EventHandle e = NewEvent(UniqueName("ev"));
  std::atomic<int> signalled{0}, timedOut{0};
  auto waiter = [&] {
    const Wait w = WaitEvent(e, 600);
    if (w == Wait::Signaled) ++signalled;
    if (w == Wait::Timeout) ++timedOut;
  };
  std::thread t1(waiter), t2(waiter);
  SleepMs(100);
  const auto t0 = Clock::now();
  SetEvent(e);
  while (signalled.load() == 0 && MsSince(t0) < 1000) SleepMs(1);
  EXPECT_LT(MsSince(t0), 300);  // the set wakes a blocked waiter at once
  t1.join();
  t2.join();
  EXPECT_EQ(signalled.load(), 1);
  EXPECT_EQ(timedOut.load(), 1);
  CloseEvent(e);
}

// Every kind of wait honours its timeout and sleeps in the kernel meanwhile.
TEST(Events, TimeoutsAreHonouredAsleep) {
  EventHandle e = NewEvent(UniqueName("ev"));
  ProcessHandle p = LaunchChild("exit 0 5000");
  const std::pair<const char*, std::function<Wait()>> waits[] = {
      {"event", [&] { return WaitEvent(e, 200); }},
      {"process", [&] { return WaitProcess(p, 200); }},
      {"event or process", [&] { return WaitEventOrProcess(e, p, 200); }},
  };
  for (const auto& [what, wait] : waits) {
    SCOPED_TRACE(what);
    const auto t0 = Clock::now();
    const std::clock_t c0 = std::clock();
    EXPECT_EQ(wait(), Wait::Timeout);
    const double cpu = CpuMs(c0);
    EXPECT_GE(MsSince(t0), 195);
    EXPECT_LT(MsSince(t0), 1500);
    EXPECT_LT(cpu, 50.0);
  }
  TerminateProcess(p, 0);
  Finish(p);
  CloseEvent(e);
}

TEST(Processes, ExitAndTerminationCodesAreReportedOnlyAfterTheEnd) {
  ProcessHandle p = LaunchChild("exit 7 150");
  EXPECT_NE(ProcessIdOf(p), 0u);
  EXPECT_NE(ProcessIdOf(p), CurrentProcessId());
  int code = -1;
  EXPECT_FALSE(ProcessExitCode(p, &code));
  EXPECT_EQ(WaitProcess(p, 10), Wait::Timeout);
  EXPECT_EQ(WaitProcess(p, 10000), Wait::Signaled);
  ASSERT_TRUE(ProcessExitCode(p, &code));
  EXPECT_EQ(code, 7);
  EXPECT_EQ(WaitProcess(p, 0), Wait::Signaled);  // stays signalled
  CloseProcess(p);

  // A terminated process reports the given code.
  p = LaunchChild("exit 0 30000");
  const auto t0 = Clock::now();
  ASSERT_TRUE(TerminateProcess(p, 3));
  EXPECT_EQ(WaitProcess(p, 5000), Wait::Signaled);
  EXPECT_LT(MsSince(t0), 5000);
  ASSERT_TRUE(ProcessExitCode(p, &code));
  EXPECT_EQ(code, 3);
  EXPECT_FALSE(TerminateProcess(p, 4));  // already gone
  CloseProcess(p);
  EXPECT_EQ(Finish(LaunchChild("stdin")), 0);  // a child's standard input is at its end at once
}

TEST(Processes, ArgumentsFolderAndMissingPrograms) {
  vxtest::TempDir dir;
  const std::string child = std::string("vx_platform_child") + vxtest::kExeSuffix;
  std::filesystem::copy_file(vxtest::ChildDir() / child, dir / child);
  ProcessHandle p = LaunchProcess(vxtest::Wide(dir.path()).c_str(), VXT("vx_platform_child"),
                                  VXT("args  one \"two words\" \"\" th\"re\"e \u00e9"));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(Finish(p), 0);
  std::ifstream in(dir / "args.txt");
  std::string all((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(all, "one\ntwo words\n\nthree\n\xC3\xA9\n");

  // A missing program or folder launches nothing.
  EXPECT_EQ(
      LaunchProcess(vxtest::Wide(vxtest::ChildDir()).c_str(), VXT("no-such-program"), VXT("")),
      nullptr);
  EXPECT_EQ(LaunchProcess(VXT("/nonexistent-folder"), VXT("vx_platform_child"), VXT("")), nullptr);
}

TEST(CrossProcess, PingPongThroughSharedMemoryAndEvents) {
  const std::string prefix = UniqueName("pp");
  SharedMemory shm;
  ASSERT_TRUE(CreateSharedMemory(U(prefix + "_map").c_str(), 8, &shm));
  EventHandle request = NewEvent(prefix + "_req");
  EventHandle reply = NewEvent(prefix + "_rep");
  constexpr int kRounds = 300;
  ProcessHandle p = LaunchChild("pingpong " + prefix + " " + std::to_string(kRounds));
  auto* words = static_cast<volatile std::uint32_t*>(shm.view);
  int good = 0;
  for (int i = 0; i < kRounds; ++i) {
    const std::uint32_t v = 0x10000u * static_cast<std::uint32_t>(i) + 17u;
    words[0] = v;
    SetEvent(request);
    const Wait w = WaitEventOrProcess(reply, p, 10000);
    if (w != Wait::Signaled) {
      ADD_FAILURE() << "round " << i << " got no reply";
      break;
    }
    if (words[1] == v * 2 + 1) ++good;
  }
  EXPECT_EQ(good, kRounds);
  EXPECT_EQ(Finish(p), 0);
  for (EventHandle h : {request, reply}) CloseEvent(h);
  CloseSharedMemory(&shm);
}

TEST(CrossProcess, EventSetBeforeExitWinsAndExitEndsTheWait) {
  const std::string name = UniqueName("ev");
  EventHandle e = NewEvent(name);
  ProcessHandle p = LaunchChild("signal-exit " + name + " 5");
  ASSERT_EQ(WaitProcess(p, 10000), Wait::Signaled);
  EXPECT_EQ(WaitEventOrProcess(e, p, 1000), Wait::Signaled);
  EXPECT_EQ(WaitEventOrProcess(e, p, 1000), Wait::ProcessExited);
  EXPECT_EQ(Finish(p), 5);
  // A child that ends while the wait is on ends it.
  p = LaunchChild("exit 0 100");
  const auto t0 = Clock::now();
  EXPECT_EQ(WaitEventOrProcess(e, p, kInfinite), Wait::ProcessExited);
  EXPECT_LT(MsSince(t0), 5000);
  Finish(p);
  CloseEvent(e);
}

TEST(CrossProcess, FileLockExcludesAnotherProcess) {
  vxtest::TempDir dir;
  vxtest::WriteFile(dir / "lock", {0});
  const std::string name = UniqueName("locked");
  EventHandle locked = NewEvent(name);
  ProcessHandle p = LaunchChild("lock " + (dir / "lock").string() + " " + name + " 500");
  ASSERT_EQ(WaitEventOrProcess(locked, p, 10000), Wait::Signaled);
  FileHandle f = OpenReadWrite(vxtest::Wide(dir / "lock").c_str());
  ASSERT_NE(f, kNoFile);
  const auto t0 = Clock::now();
  ASSERT_TRUE(LockFile(f));
  EXPECT_GE(MsSince(t0), 100);  // had to wait for the child to let go
  UnlockFile(f);
  Close(f);
  EXPECT_EQ(Finish(p), 0);
  CloseEvent(locked);
}

TEST(CrossProcess, AWaiterKilledMidWaitNeitherSwallowsSetsNorKeepsTheName) {
  const std::string name = UniqueName("ev");
  const std::string readyName = UniqueName("ready");
  EventHandle e = NewEvent(name);
  EventHandle ready = NewEvent(readyName);
  ProcessHandle p = LaunchChild("wait " + name + " " + readyName);
  ASSERT_EQ(WaitEventOrProcess(ready, p, 10000), Wait::Signaled);
  SleepMs(100);  // let it settle inside the wait
  ASSERT_TRUE(TerminateProcess(p, 9));
  ASSERT_EQ(WaitProcess(p, 5000), Wait::Signaled);
  CloseProcess(p);

  std::atomic<int> result{-1};
  std::thread waiter([&] { result = static_cast<int>(WaitEvent(e, 3000)); });
  SleepMs(100);
  const auto t0 = Clock::now();
  SetEvent(e);
  waiter.join();
  EXPECT_EQ(result.load(), static_cast<int>(Wait::Signaled));
  EXPECT_LT(MsSince(t0), 500);  // woken by the set, not by a later poll

  for (EventHandle h : {e, ready}) CloseEvent(h);
  // The dead child's handle does not keep the object alive.
  EXPECT_EQ(OpenEvent(U(name).c_str()), nullptr);
  EXPECT_EQ(OpenEvent(U(readyName).c_str()), nullptr);
}

}  // namespace
