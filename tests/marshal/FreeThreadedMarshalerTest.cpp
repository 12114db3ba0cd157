// The library's free-threaded marshaler, aggregated into a counting fake, and
// its unmarshaler, both made through their class objects, also from eight
// threads at once; CreateFTM.
#include <gmock/gmock.h>
#include <xkcombsd/Marshal.h>
#include <xkcombsd/Module.h>

#include <functional>
#include <tuple>

#include "ComTest.h"
#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"
#include "StressHarness.h"
#include "TestStreams.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using xktest::AssertionReport;
using xktest::Bytes;
using xktest::ComRef;
constexpr auto Out = [](auto** p) { return reinterpret_cast<void**>(p); };

HRESULT Create(REFCLSID clsid, IUnknown* outer, REFIID iid, void** ppv) {
  ComRef<IClassFactory> factory;
  DllGetClassObject(clsid, IID_IClassFactory, Out(factory.put()));
  return factory->CreateInstance(outer, iid, ppv);
}

class FreeThreadedMarshalerTest : public xktest::ComTest<> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    ASSERT_HR(S_OK, Create(CLSID_QvFreeThreadedMarshaler, &outer, IID_IUnknown, Out(&inner)));
    ASSERT_HR(S_OK, inner->QueryInterface(IID_IMarshal, Out(&ftm)));
    ASSERT_HR(S_OK, Create(CLSID_QvFreeThreadedUnmarshaler, nullptr, IID_IMarshal, Out(&ftp)));
  }
  void TearDown() override {
    if (ftm) EXPECT_EQ(1u, ftm->Release());  // the outer object's count
    if (inner) EXPECT_EQ(0u, inner->Release());
    if (ftp) EXPECT_EQ(0u, ftp->Release());
    EXPECT_EQ(1, outer.refs);
    ComTest::TearDown();
  }
  HRESULT ClassOf(IMarshal* side, DWORD context, CLSID* cid) {
    return side->GetUnmarshalClass(IID_IUnknown, &outer, context, nullptr, 0, cid);
  }
  HRESULT SizeOf(IMarshal* side, DWORD context, DWORD* size) {
    return side->GetMarshalSizeMax(IID_IUnknown, &outer, context, nullptr, 0, size);
  }
  HRESULT Marshal(IMarshal* side, IStream* stream, DWORD context) {
    return side->MarshalInterface(stream, IID_IUnknown, &outer, context, nullptr, 0);
  }

  xktest::FakeUnknown outer;
  IUnknown* inner = nullptr;
  IMarshal* ftm = nullptr;
  IMarshal* ftp = nullptr;
};

TEST_F(FreeThreadedMarshalerTest, CreationRulesAndInterfaces) {
  const IID* const kUnknown = &IID_IUnknown;
  for (auto [clsid, aggregate, iid, expected] :
       {std::tuple{&CLSID_QvFreeThreadedMarshaler, false, kUnknown, E_POINTER},
        {&CLSID_QvFreeThreadedMarshaler, true, &IID_IMarshal, CLASS_E_NOAGGREGATION},
        {&CLSID_QvFreeThreadedUnmarshaler, true, kUnknown, CLASS_E_NOAGGREGATION},
        {&CLSID_QvFreeThreadedUnmarshaler, false, &IID_IStream, E_NOINTERFACE}}) {
    void* out = &outer;
    EXPECT_HR(expected, Create(*clsid, aggregate ? &outer : nullptr, *iid, &out));
    EXPECT_EQ(nullptr, out);
  }
  for (auto [on, iid, answer] : {std::tuple<IUnknown*, const IID*, void*>{inner, kUnknown, inner},
                                 {inner, &IID_IStream, nullptr},
                                 {ftm, kUnknown, &outer},
                                 {ftp, &IID_IStream, nullptr}}) {
    void* out = this;
    EXPECT_HR(answer ? S_OK : E_NOINTERFACE, on->QueryInterface(*iid, &out));
    EXPECT_EQ(answer, out);
    if (out) static_cast<IUnknown*>(out)->Release();
  }
  EXPECT_EQ(1, outer.queries) << "only through the IMarshal face";
  EXPECT_EQ(2, outer.refs) << "only the IMarshal face holds the outer object";
}

TEST_F(FreeThreadedMarshalerTest, InProcessPacketIsThePointerAndIsConsumedOnce) {
  CLSID unmarshaler = GUID_NULL;
  DWORD size = 0;
  EXPECT_HR(S_OK, ClassOf(ftm, MSHCTX_INPROC, &unmarshaler));
  EXPECT_EQ(CLSID_QvFreeThreadedUnmarshaler, unmarshaler);
  EXPECT_HR(S_OK, SizeOf(ftm, MSHCTX_INPROC, &size));
  EXPECT_EQ(sizeof(void*), size);
  IUnknown* const object = &outer;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&object);
  void* back = nullptr;
  const std::function<HRESULT(IStream*)> consumers[] = {
      [&](IStream* s) { return ftp->UnmarshalInterface(s, IID_IUnknown, &back); },
      [&](IStream* s) { return ftm->ReleaseMarshalData(s); },
      [&](IStream* s) { return ftp->ReleaseMarshalData(s); }};
  for (const auto& consume : consumers) {
    ComRef<IStream> stream(xktest::NewMemoryStream());
    ASSERT_HR(S_OK, Marshal(ftm, stream.get(), MSHCTX_INPROC));
    EXPECT_EQ(Bytes(bytes, bytes + sizeof object), xktest::ContentOf(stream.get()));
    EXPECT_EQ(3, outer.refs) << "the packet's reference";
    xktest::SeekTo(stream.get(), 0);
    EXPECT_HR(S_OK, consume(stream.get()));
    if (&consume == consumers) {
      EXPECT_EQ(object, back);
      EXPECT_EQ(2u, object->Release()) << "the packet's reference became the caller's";
    }
    EXPECT_EQ(2, outer.refs);
    ComRef<IStream> shortPacket(xktest::NewMemoryStream(Bytes(sizeof(void*) - 1, 0xCC)));
    EXPECT_HR(E_FAIL, consume(shortPacket.get())) << "half a pointer is never released";
  }
}

// Eight threads in the multithreaded apartment marshal the object in process,
// up to three packets at a time, and each packet is consumed once by one of the
// three consumers: every unmarshalled pointer is the object, and its count ends
// where it started, no packet's reference left behind.
TEST_F(FreeThreadedMarshalerTest, EightThreadsMarshalAndConsumePacketsAndTheCountComesBack) {
  const long start = outer.refs;
  ComRef<IStream> streams[xktest::kStressThreads];
  for (auto& stream : streams) *stream.put() = xktest::NewMemoryStream();
  const long failures = xktest::RunStress(5000, [&](xktest::StressThread& t, int) {
    IStream* stream = streams[t.index].get();
    const unsigned packets = 1 + t.Next(3);
    xktest::SeekTo(stream, 0);
    for (unsigned i = 0; i < packets; ++i) t.Check(Marshal(ftm, stream, MSHCTX_INPROC) == S_OK);
    xktest::SeekTo(stream, 0);
    for (unsigned i = 0; i < packets; ++i) {
      void* back = nullptr;
      const unsigned consumer = t.Next(3);
      if (consumer == 0)
        t.Check(ftp->UnmarshalInterface(stream, IID_IUnknown, &back) == S_OK && back == &outer &&
                static_cast<IUnknown*>(back)->Release() >= 2);
      else
        t.Check((consumer == 1 ? ftm : ftp)->ReleaseMarshalData(stream) == S_OK);
    }
  });
  EXPECT_EQ(0, failures);
  EXPECT_EQ(start, outer.refs) << "every packet's reference given back";
}

TEST_F(FreeThreadedMarshalerTest, OtherContextsGetTheStandardMarshaler) {
  for (DWORD context : {MSHCTX_LOCAL, MSHCTX_NOSHAREDMEM, MSHCTX_DIFFERENTMACHINE}) {
    CLSID unmarshaler = GUID_NULL;
    EXPECT_HR(S_OK, ClassOf(ftm, context, &unmarshaler));
    EXPECT_EQ(CLSID_StdMarshal, unmarshaler);
    ComRef<IStream> stream(xktest::NewMemoryStream());
    ASSERT_HR(S_OK, Marshal(ftm, stream.get(), context));
    const Bytes objref = xktest::ContentOf(stream.get());
    EXPECT_EQ(Bytes({'M', 'E', 'O', 'W'}), Bytes(objref.begin(), objref.begin() + 4));
    xktest::SeekTo(stream.get(), 0);
    EXPECT_HR(S_OK, CoReleaseMarshalData(stream.get()));
  }
  CoDisconnectObject(&outer, 0);
}

TEST_F(FreeThreadedMarshalerTest, UnsupportedHalvesReportAndAnswerNotImplemented) {
  xktest::DebugOutputCapture capture;
  ComRef<IStream> stream(xktest::NewMemoryStream());
  CLSID unmarshaler;
  DWORD size;
  void* out = nullptr;
  const HRESULT answers[] = {ftm->UnmarshalInterface(stream.get(), IID_IUnknown, &out),
                             ClassOf(ftp, MSHCTX_INPROC, &unmarshaler),
                             SizeOf(ftp, MSHCTX_INPROC, &size),
                             Marshal(ftp, stream.get(), MSHCTX_INPROC)};
  EXPECT_THAT(answers, Each(E_NOTIMPL));
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(AssertionReport{"MOFTM", 181, "0"}, AssertionReport{"MOFTP", 63, "0"},
                          AssertionReport{"MOFTP", 70, "0"}, AssertionReport{"MOFTP", 77, "0"}));
}

TEST_F(FreeThreadedMarshalerTest, CreateFtmPrefersThePlatformsMarshaler) {
  ComRef<IUnknown> platform;
  ComRef<IMarshal> face;
  CLSID unmarshaler = GUID_NULL;
  ASSERT_HR(S_OK, CreateFTM(&outer, platform.put()));
  ASSERT_HR(S_OK, platform->QueryInterface(IID_IMarshal, Out(face.put())));
  EXPECT_HR(S_OK, ClassOf(face.get(), MSHCTX_INPROC, &unmarshaler));
  EXPECT_NE(CLSID_QvFreeThreadedUnmarshaler, unmarshaler) << "the platform names its own";
}

}  // namespace
