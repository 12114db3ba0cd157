// The data object over global memory as IDataObject clients and the
// platform's clipboard see it, who owns which block, and the drop handle
// taken out of any data object and read by the shell.
#include <gmock/gmock.h>
#include <xkcombsd/DataObject.h>

// After the platform headers above, which the shell's need.
#include <shellapi.h>
#include <shlobj.h>

#include <string>
#include <tuple>

#include "ComTest.h"
#include "DebugOutput.h"

namespace {

constexpr CLIPFORMAT kFormat = 0xC0DE;
const std::string kData = "ten bytes!";

FORMATETC Format(CLIPFORMAT cf = kFormat, DWORD aspect = DVASPECT_CONTENT, LONG lindex = -1,
                 DWORD tymed = TYMED_HGLOBAL, DVTARGETDEVICE* ptd = nullptr) {
  return FORMATETC{cf, ptd, aspect, lindex, tymed};
}

auto Fields(const FORMATETC& f) {
  return std::tuple(f.cfFormat, f.ptd, f.dwAspect, f.lindex, f.tymed);
}

std::string BytesOf(HGLOBAL block) {
  const std::string bytes(static_cast<const char*>(GlobalLock(block)), GlobalSize(block));
  GlobalUnlock(block);
  return bytes;
}

HGLOBAL MoveableBlock(const std::string& bytes) {
  HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, bytes.size());
  memcpy(GlobalLock(block), bytes.data(), bytes.size());
  GlobalUnlock(block);
  return block;
}

// What GetData hands out, or what GetDataHere writes into a block of "----".
std::string Read(IDataObject* object, FORMATETC format, HRESULT expected, bool here = false) {
  STGMEDIUM medium = {TYMED_HGLOBAL};
  if (here) medium.hGlobal = MoveableBlock("----");
  EXPECT_HR(expected,
            here ? object->GetDataHere(&format, &medium) : object->GetData(&format, &medium));
  EXPECT_EQ(nullptr, medium.pUnkForRelease);
  const std::string bytes = medium.hGlobal ? BytesOf(medium.hGlobal) : "(none)";
  ReleaseStgMedium(&medium);
  return bytes;
}

class DataObjectTest : public xktest::ComTest<> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    ASSERT_HR(S_OK, GetDataObjectFromMemory(kData.data(), 10, &object, kFormat));
  }
  void TearDown() override {
    EXPECT_EQ(0u, object->Release());
    ComTest::TearDown();
  }
  IDataObject* object = nullptr;
};

// Exact in aspect and medium; any negative lindex; the target device is not looked at.
DVTARGETDEVICE device = {sizeof device};
const std::pair<FORMATETC, bool> kRequests[] = {
    {Format(), true},
    {Format(CF_TEXT), false},
    {Format(kFormat, DVASPECT_THUMBNAIL), false},
    {Format(kFormat, DVASPECT_CONTENT | DVASPECT_THUMBNAIL), false},
    {Format(kFormat, 1, 0), false},
    {Format(kFormat, 1, -7), true},
    {Format(kFormat, 1, -1, TYMED_HGLOBAL | TYMED_ISTREAM), false},
    {Format(kFormat, 1, -1, TYMED_HGLOBAL, &device), true},
};

TEST_F(DataObjectTest, EachRequestIsAnsweredByTheExactFormatRule) {
  for (auto [format, matches] : kRequests) {
    SCOPED_TRACE(testing::Message() << format.cfFormat << " " << format.dwAspect << " "
                                    << format.lindex << " " << format.tymed);
    EXPECT_EQ(matches ? kData : "(none)", Read(object, format, matches ? S_OK : DV_E_FORMATETC));
    EXPECT_EQ(matches ? "ten " : "----",
              Read(object, format, matches ? S_OK : DV_E_FORMATETC, true));
    EXPECT_HR(matches ? S_OK : S_FALSE, object->QueryGetData(&format));
  }
  FORMATETC format = Format();
  STGMEDIUM stream = {TYMED_ISTREAM};
  EXPECT_HR(DV_E_TYMED, object->GetDataHere(&format, &stream));
  EXPECT_EQ(0, InitialiseQvDataObject()) << "the object above needed no preparation";
}

TEST_F(DataObjectTest, TheEnumeratorListsTheOneFormatAndTheRestIsRefused) {
  IEnumFORMATETC *formats = nullptr, *clone = nullptr;
  EXPECT_HR(E_NOTIMPL, object->EnumFormatEtc(DATADIR_SET, &formats));
  ASSERT_HR(S_OK, object->EnumFormatEtc(DATADIR_GET, &formats));
  FORMATETC got[3] = {}, offered = Format(), out;
  ULONG fetched = 77;
  EXPECT_HR(S_OK, formats->Next(1, got, nullptr));
  EXPECT_EQ(Fields(offered), Fields(got[0]));
  EXPECT_HR(S_FALSE, formats->Next(1, got, &fetched));
  EXPECT_EQ(77u, fetched) << "not written at the end";
  EXPECT_HR(S_OK, formats->Reset());
  EXPECT_HR(E_INVALIDARG, formats->Next(2, got, nullptr));
  EXPECT_HR(S_FALSE, formats->Next(3, got, &fetched));
  EXPECT_EQ(1u, fetched);
  EXPECT_HR(S_OK, formats->Clone(&clone));
  EXPECT_HR(S_OK, clone->Skip(1)) << "a clone starts at the beginning";
  EXPECT_HR(S_FALSE, clone->Skip(1));
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, formats->Release());

  void* unknown = nullptr;
  EXPECT_HR(S_OK, object->QueryInterface(IID_IUnknown, &unknown));
  EXPECT_EQ(object, unknown);
  EXPECT_HR(E_NOINTERFACE, object->QueryInterface(IID_IEnumFORMATETC, &unknown));
  EXPECT_EQ(nullptr, unknown);
  EXPECT_EQ(1u, object->Release());
  memset(&out, 0xA5, sizeof out);
  EXPECT_HR(DV_E_LINDEX, object->GetCanonicalFormatEtc(&got[1], &out));  // lindex 0
  EXPECT_HR(DATA_S_SAMEFORMATETC, object->GetCanonicalFormatEtc(&offered, &out));
  EXPECT_EQ(Fields(got[2]), Fields(out)) << "all zeros";
  DWORD connection = 0;
  EXPECT_HR(E_NOTIMPL, object->SetData(&offered, nullptr, FALSE));
  EXPECT_HR(E_NOTIMPL, object->DAdvise(&offered, 0, nullptr, &connection));
  EXPECT_HR(E_NOTIMPL, object->DUnadvise(connection));
  EXPECT_HR(E_NOTIMPL, object->EnumDAdvise(nullptr));
}

// Checked on the handle itself: a freed moveable handle is an invalid one.
TEST_F(DataObjectTest, TheCallersBlockIsCopiedOrTakenOverAsAskedAndHostileOnesRefused) {
  for (BOOL take : {FALSE, TRUE}) {
    HGLOBAL block = MoveableBlock(kData);
    IDataObject* made = nullptr;
    ASSERT_HR(S_OK, GetDataObjectFromHGlobal(block, &made, take));
    EXPECT_EQ(kData, Read(made, Format(CF_TEXT), S_OK)) << "always offered as text";
    EXPECT_EQ(0u, made->Release());
    EXPECT_EQ(take ? GMEM_INVALID_HANDLE : 0u, GlobalFlags(block)) << take;
    if (!take) EXPECT_EQ(kData, BytesOf(block)) << "unchanged";
    if (!take) GlobalFree(block);
  }
  IDataObject* made = object;
  HGLOBAL freed = MoveableBlock(kData), empty = GlobalAlloc(GMEM_MOVEABLE, 0);
  GlobalFree(freed);
  EXPECT_HR(E_HANDLE, GetDataObjectFromHGlobal(freed, &made, TRUE));
  for (BOOL take : {FALSE, TRUE})
    EXPECT_HR(E_UNEXPECTED, GetDataObjectFromHGlobal(empty, &made, take));
  EXPECT_EQ(GMEM_DISCARDED, GlobalFlags(empty)) << "an empty block stays the caller's";
  GlobalFree(empty);
  ASSERT_HR(S_OK, GetDataObjectFromMemory(nullptr, 100, &made, kFormat));
  EXPECT_EQ("----", Read(made, Format(), S_OK, true)) << "no bytes means none, whatever the count";
  EXPECT_EQ(0u, made->Release());
}

// The file names in a drop handle as the shell reads them.
std::wstring NamesIn(HGLOBAL drop) {
  std::wstring names;
  wchar_t name[MAX_PATH];
  for (UINT i = 0; DragQueryFileW(static_cast<HDROP>(drop), i, name, MAX_PATH); ++i)
    names += name + std::wstring(L";");
  GlobalFree(drop);
  return names;
}

// The platform's clipboard hands out its own data object over ours: the drop
// handle comes out of that one, and belongs to the caller.
TEST_F(DataObjectTest, TheDropHandleComesOutOfAnyDataObjectForTheShellToRead) {
  const DROPFILES header = {sizeof header, {0, 0}, FALSE, TRUE};
  const wchar_t names[] = L"a.txt\0second.txt\0";
  std::string files(reinterpret_cast<const char*>(&header), sizeof header);
  files.append(reinterpret_cast<const char*>(names), sizeof names);
  IDataObject *drop = nullptr, *clipboard = nullptr;
  ASSERT_HR(S_OK, GetDataObjectFromMemory(files.data(), DWORD(files.size()), &drop, CF_HDROP));
  HGLOBAL handle = nullptr;
  ASSERT_HR(S_OK, OleInitialize(nullptr));
  ASSERT_HR(S_OK, OleSetClipboard(drop));
  ASSERT_HR(S_OK, OleGetClipboard(&clipboard));
  EXPECT_NE(drop, clipboard);
  ASSERT_HR(S_OK, DataObject_GetHDrop(clipboard, &handle));
  EXPECT_EQ(L"a.txt;second.txt;", NamesIn(handle));
  clipboard->Release();
  EXPECT_HR(S_OK, OleSetClipboard(nullptr));
  OleUninitialize();
  ASSERT_HR(S_OK, DataObject_GetHDrop(drop, &handle)) << "and out of ours";
  EXPECT_EQ(L"a.txt;second.txt;", NamesIn(handle));
  EXPECT_EQ(0u, drop->Release());
}

// Every null the contract forbids is reported, and the call fails.
TEST_F(DataObjectTest, NullArgumentsAreReportedAndRefused) {
  xktest::DebugOutputCapture capture;
  FORMATETC format = Format();
  IEnumFORMATETC* formats = nullptr;
  HGLOBAL handle = nullptr;
  ASSERT_HR(S_OK, object->EnumFormatEtc(DATADIR_GET, &formats));
  using QueryGetData = HRESULT(STDMETHODCALLTYPE*)(void*, FORMATETC*);
  EXPECT_HR(E_POINTER, (*reinterpret_cast<QueryGetData**>(object))[5](nullptr, &format));
  EXPECT_HR(E_POINTER, object->GetData(nullptr, nullptr));
  EXPECT_HR(E_POINTER, object->GetDataHere(&format, nullptr));
  EXPECT_HR(E_POINTER, object->GetCanonicalFormatEtc(nullptr, &format));
  EXPECT_HR(E_POINTER, object->GetCanonicalFormatEtc(&format, nullptr));
  EXPECT_HR(E_POINTER, object->EnumFormatEtc(DATADIR_GET, nullptr));
  EXPECT_HR(E_POINTER, formats->Next(1, nullptr, nullptr));
  EXPECT_HR(E_INVALIDARG, DataObject_GetHDrop(nullptr, &handle));
  EXPECT_HR(E_INVALIDARG, DataObject_GetHDrop(object, nullptr));
  std::string reports;
  for (const auto& report : capture.Assertions())
    reports += report.file + ":" + std::to_string(report.line) + " " + report.expression + ";";
  EXPECT_EQ(
      "MODatObj:96 pThis != NULL;MODatObj:97 lpfe != NULL;MODatObj:98 lpstm != NULL;"
      "MODatObj:99 lpfeIn != NULL;MODatObj:100 lpfeOut != NULL;MODatObj:102 ppenum != NULL;"
      "MODatObj:103 rgelt != NULL;MODatObj:101 pDO != NULL;",
      reports);
  EXPECT_EQ(0u, formats->Release());
}

}  // namespace
