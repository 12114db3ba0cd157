// The library's free-threaded marshaler, aggregated into a counting fake, and
// its unmarshaler, both made through their class objects; CreateFTM.
#include <gmock/gmock.h>
#include <xkcombsd/Marshal.h>
#include <xkcombsd/Module.h>

#include "ComTest.h"
#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"
#include "TestStreams.h"

namespace {

using testing::ElementsAre;
using xktest::AssertionReport;
using xktest::Bytes;
using xktest::ComRef;

template <class T>
void** Out(T** p) {
  return reinterpret_cast<void**>(p);
}

// CreateInstance through the class object's table of functions, so that the
// identifier may be NULL.
HRESULT Create(REFCLSID clsid, IUnknown* outer, const IID* iid, void** ppv) {
  ComRef<IClassFactory> factory;
  DllGetClassObject(clsid, IID_IClassFactory, Out(factory.put()));
  using Slot = HRESULT(STDMETHODCALLTYPE*)(IClassFactory*, IUnknown*, const IID*, void**);
  return reinterpret_cast<Slot>((*reinterpret_cast<void***>(factory.get()))[3])(factory.get(),
                                                                                outer, iid, ppv);
}

class FreeThreadedMarshalerTest : public xktest::ComTest<> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    ASSERT_HR(S_OK, Create(CLSID_QvFreeThreadedMarshaler, &outer, &IID_IUnknown, Out(&inner)));
    ASSERT_HR(S_OK, inner->QueryInterface(IID_IMarshal, Out(&ftm)));
    ASSERT_HR(S_OK, Create(CLSID_QvFreeThreadedUnmarshaler, nullptr, &IID_IMarshal, Out(&ftp)));
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

TEST_F(FreeThreadedMarshalerTest, CreationRulesRefuseWithExactCodes) {
  const struct {
    const CLSID* clsid;
    IUnknown* outer;
    const IID* iid;
    HRESULT expected;
  } rows[] = {{&CLSID_QvFreeThreadedMarshaler, nullptr, &IID_IUnknown, E_POINTER},
              {&CLSID_QvFreeThreadedMarshaler, &outer, &IID_IMarshal, CLASS_E_NOAGGREGATION},
              {&CLSID_QvFreeThreadedMarshaler, &outer, nullptr, E_INVALIDARG},
              {&CLSID_QvFreeThreadedUnmarshaler, &outer, &IID_IUnknown, CLASS_E_NOAGGREGATION},
              {&CLSID_QvFreeThreadedUnmarshaler, nullptr, &IID_IStream, E_NOINTERFACE}};
  for (const auto& row : rows) {
    void* out = &outer;
    EXPECT_HR(row.expected, Create(*row.clsid, row.outer, row.iid, &out));
    EXPECT_EQ(nullptr, out);
  }
  EXPECT_EQ(2, outer.refs);  // only the fixture's IMarshal face holds the outer object
}

TEST_F(FreeThreadedMarshalerTest, InnerUnknownOwnsTheObjectAndTheFaceDelegates) {
  const struct {
    IUnknown* on;
    const IID* iid;
    void* answer;
  } rows[] = {{inner, &IID_IUnknown, inner},  {inner, &IID_IMarshal, ftm},
              {inner, &IID_IStream, nullptr}, {ftm, &IID_IUnknown, &outer},
              {ftp, &IID_IUnknown, ftp},      {ftp, &IID_IStream, nullptr}};
  for (const auto& row : rows) {
    void* out = this;
    EXPECT_HR(row.answer ? S_OK : E_NOINTERFACE, row.on->QueryInterface(*row.iid, &out));
    EXPECT_EQ(row.answer, out);
    if (out) static_cast<IUnknown*>(out)->Release();
  }
  EXPECT_EQ(1, outer.queries);  // only through the IMarshal face
  EXPECT_EQ(3u, ftm->AddRef());
  EXPECT_EQ(2u, ftm->Release());
  EXPECT_HR(E_POINTER, inner->QueryInterface(IID_IUnknown, nullptr));
  EXPECT_HR(S_FALSE, DllCanUnloadNow());  // both objects keep the module loaded
}

TEST_F(FreeThreadedMarshalerTest, InProcessPacketIsThePointerAndComesBackAsTheSameObject) {
  CLSID unmarshaler = GUID_NULL;
  DWORD size = 0;
  EXPECT_HR(S_OK, ClassOf(ftm, MSHCTX_INPROC, &unmarshaler));
  EXPECT_EQ(CLSID_QvFreeThreadedUnmarshaler, unmarshaler);
  EXPECT_HR(S_OK, SizeOf(ftm, MSHCTX_INPROC, &size));
  EXPECT_EQ(sizeof(void*), size);
  ComRef<IStream> stream(xktest::NewMemoryStream());
  ASSERT_HR(S_OK, Marshal(ftm, stream.get(), MSHCTX_INPROC));
  IUnknown* const object = &outer;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&object);
  EXPECT_EQ(Bytes(bytes, bytes + sizeof object), xktest::ContentOf(stream.get()));
  EXPECT_EQ(3, outer.refs);  // the packet's reference
  xktest::SeekTo(stream.get(), 0);
  void* back = nullptr;
  EXPECT_HR(S_OK, ftp->UnmarshalInterface(stream.get(), IID_IUnknown, &back));
  EXPECT_EQ(object, back);
  EXPECT_EQ(2u, object->Release());  // the packet's reference became the caller's
}

TEST_F(FreeThreadedMarshalerTest, EitherSideReleasesAPacketOnceAndRefusesAShortOne) {
  void* out = nullptr;
  for (IMarshal* side : {ftm, ftp}) {
    ComRef<IStream> stream(xktest::NewMemoryStream());
    ASSERT_HR(S_OK, Marshal(ftm, stream.get(), MSHCTX_INPROC));
    xktest::SeekTo(stream.get(), 0);
    EXPECT_HR(S_OK, side->ReleaseMarshalData(stream.get()));
    EXPECT_EQ(2, outer.refs);
    ComRef<IStream> shortPacket(xktest::NewMemoryStream(Bytes(sizeof(void*) - 1, 0xCC)));
    EXPECT_HR(E_FAIL, side->ReleaseMarshalData(shortPacket.get()));
    xktest::SeekTo(shortPacket.get(), 0);
    if (side == ftp)
      EXPECT_HR(E_FAIL, ftp->UnmarshalInterface(shortPacket.get(), IID_IUnknown, &out));
    EXPECT_HR(S_OK, side->DisconnectObject(0));
  }
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
  for (DWORD context : {MSHCTX_INPROC, MSHCTX_LOCAL, MSHCTX_NOSHAREDMEM, MSHCTX_DIFFERENTMACHINE}) {
    const HRESULT answers[] = {ClassOf(ftm, context, nullptr), SizeOf(ftm, context, nullptr),
                               Marshal(ftm, nullptr, context)};
    EXPECT_THAT(answers, testing::Each(E_POINTER));
  }
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
  EXPECT_THAT(answers, testing::Each(E_NOTIMPL));
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(AssertionReport{"MOFTM", 181, "0"}, AssertionReport{"MOFTP", 63, "0"},
                          AssertionReport{"MOFTP", 70, "0"}, AssertionReport{"MOFTP", 77, "0"}));
}

TEST_F(FreeThreadedMarshalerTest, CreateFtmPrefersThePlatformsMarshaler) {
  ComRef<IUnknown> platform;
  ComRef<IMarshal> face;
  CLSID unmarshaler = GUID_NULL;
  EXPECT_HR(E_POINTER, CreateFTM(&outer, nullptr));
  ASSERT_HR(S_OK, CreateFTM(&outer, platform.put()));
  ASSERT_HR(S_OK, platform->QueryInterface(IID_IMarshal, Out(face.put())));
  EXPECT_HR(S_OK, ClassOf(face.get(), MSHCTX_INPROC, &unmarshaler));
  EXPECT_NE(CLSID_QvFreeThreadedUnmarshaler, unmarshaler);  // the platform names its own
}

}  // namespace
