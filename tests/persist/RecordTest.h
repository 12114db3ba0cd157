// What every record test shares: COM on the test thread, a fresh memory stream,
// a task-allocator watch that must end at zero, and the code the loaders give
// for records no saver writes.
#pragma once

#include <gmock/gmock.h>
#include <xkcombsd/Persist.h>

#include "HResult.h"
#include "MallocSpy.h"
#include "TestStreams.h"

namespace persisttest {

using xktest::Bytes;

// A record that no saver of the library writes.
constexpr HRESULT kInvalidRecord = static_cast<HRESULT>(0x8007000D);

// Loads one string record, checks that a failure hands out nothing, frees what
// a success handed out and says whether it was a string or null.
template <class Text, class Load, class Free>
HRESULT LoadAndFree(IStream* stream, Load load, Free free, bool* handedOut) {
  Text loaded = reinterpret_cast<Text>(0xDEADBEEF);
  const HRESULT hr = load(stream, &loaded);
  if (handedOut) *handedOut = loaded != nullptr;
  if (FAILED(hr)) {
    EXPECT_EQ(nullptr, loaded) << "a failed load hands out nothing";
    return hr;
  }
  free(loaded);
  return hr;
}

inline HRESULT LoadBstrRecord(IStream* stream, bool* handedOut) {
  return LoadAndFree<BSTR>(stream, BSTR_LoadFromStream, SysFreeString, handedOut);
}
inline HRESULT LoadBstrRecord(IStream* stream) { return LoadBstrRecord(stream, nullptr); }

inline HRESULT LoadOleStringRecord(IStream* stream, bool* handedOut) {
  return LoadAndFree<LPOLESTR>(stream, OleString_LoadFromStream, CoTaskMemFree, handedOut);
}
inline HRESULT LoadOleStringRecord(IStream* stream) { return LoadOleStringRecord(stream, nullptr); }

class RecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_com = CoInitialize(nullptr);
    *stream.put() = xktest::NewMemoryStream();
  }
  void TearDown() override {
    stream.Reset();
    EXPECT_EQ(0, spy.Outstanding())
        << "task-allocator blocks (BSTRs included) left behind";
    if (SUCCEEDED(m_com)) CoUninitialize();
  }

  // Replaces the stream with one that holds content, positioned at its start.
  void Fill(const Bytes& content) { *stream.put() = xktest::NewMemoryStream(content); }
  Bytes Written() const { return xktest::ContentOf(stream.get()); }
  ULONGLONG Position() const { return xktest::PositionOf(stream.get()); }
  void Rewind() { xktest::SeekTo(stream.get(), 0); }

  xktest::MallocSpy spy;
  xktest::ComRef<IStream> stream;

 private:
  HRESULT m_com = E_FAIL;
};

}  // namespace persisttest
