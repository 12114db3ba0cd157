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

class RecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_com = CoInitialize(nullptr);
    *stream.put() = xktest::NewMemoryStream();
  }
  void TearDown() override {
    stream.Reset();
    EXPECT_EQ(0, spy.Outstanding())
        << "task-allocator blocks left behind (BSTRs count only with OANOCACHE=1, as ctest runs it)";
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
