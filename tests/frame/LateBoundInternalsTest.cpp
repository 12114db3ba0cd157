// The late-binding machinery itself: lookups that fail never lead to a call,
// and a first call raced by several threads publishes one address.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>
#include <vector>

#include "frame/LateBinding.h"

using xk::latebound::Entry;
using xk::latebound::EntryName;

namespace {

xk::latebound::SystemLibrary g_missingLibrary{"XKNOSUCHLIBRARY.DLL", nullptr};

constexpr EntryName kMissingRegFunction{&xk::latebound::g_advapi32, "RegNoSuchFunctionA"};
constexpr EntryName kMissingCaseFunction{&xk::latebound::g_user32, "CharNoSuchA"};
constexpr EntryName kMissingCountingFunction{&xk::latebound::g_user32, "LoadNoSuchStringA"};
constexpr EntryName kFunctionOfMissingLibrary{&g_missingLibrary, "RegCloseKey"};
constexpr EntryName kRacedFunction{&xk::latebound::g_user32, "CharUpperBuffA"};
using MissingClose = Entry<kMissingRegFunction, decltype(&RegCloseKey)>;

}  // namespace

TEST(LateBoundEntry, AMissingFunctionAnswersWithAFailureOfItsOwnKindAndIsLookedForOnce) {
  EXPECT_EQ(ERROR_PROC_NOT_FOUND, MissingClose::Call(HKEY_CURRENT_USER));
  EXPECT_NE(nullptr, MissingClose::s_slot) << "the failed lookup is kept";
  EXPECT_EQ(ERROR_PROC_NOT_FOUND, MissingClose::Call(HKEY_CURRENT_USER));
  char text[] = "Abc";
  EXPECT_EQ(nullptr, (Entry<kMissingCaseFunction, decltype(&CharLowerA)>::Call(text)));
  EXPECT_STREQ("Abc", text);
  EXPECT_EQ(0, (Entry<kMissingCountingFunction, decltype(&LoadStringA)>::Call(
                   static_cast<HINSTANCE>(nullptr), 1u, text, 4)));
}

TEST(LateBoundEntry, AMissingLibraryIsLookedForOnceAndNeverCalled) {
  EXPECT_EQ(ERROR_PROC_NOT_FOUND,
            (Entry<kFunctionOfMissingLibrary, decltype(&RegCloseKey)>::Call(HKEY_CURRENT_USER)));
  void* const marked = g_missingLibrary.handle;
  EXPECT_NE(nullptr, marked) << "the failed load is remembered";
  void* slot = nullptr;
  EXPECT_EQ(nullptr, xk::latebound::Resolve(&slot, EntryName{&g_missingLibrary, "RegOpenKeyA"}));
  EXPECT_EQ(marked, g_missingLibrary.handle);
}

TEST(LateBoundEntry, ARacedFirstCallPublishesOneAddressToEveryThreadFromOneLibraryHandle) {
  constexpr int kThreads = 8;
  void* slot = nullptr;
  std::atomic<int> ready{0};
  std::vector<void*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (ready.fetch_add(1); ready.load() < kThreads;) {
      }
      seen[t] = xk::latebound::Resolve(&slot, kRacedFunction);
    });
  for (std::thread& thread : threads) thread.join();
  const HMODULE user32 = GetModuleHandleA("USER32.DLL");
  void* expected = reinterpret_cast<void*>(GetProcAddress(user32, "CharUpperBuffA"));
  ASSERT_NE(nullptr, expected);
  EXPECT_THAT(seen, ::testing::Each(expected));
  EXPECT_EQ(expected, slot);
  EXPECT_EQ(static_cast<void*>(user32), xk::latebound::g_user32.handle);
}
