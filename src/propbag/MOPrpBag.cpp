// Property bags: an ordered list of named VARIANTs behind IPropertyBag, the
// library's IPropertyBagEdit, ISupportErrorInfo and IPersistStream (which
// loads but never saves). PropertyBag and PropertyBag_ST are one template
// over the thread model: atomic or plain reference count, a recursive
// critical section or no lock at all.
//
// The entries live in one task-allocator array of 16 slots at first; from the
// 16th entry on it is resized to exactly the entries it holds, and removal
// never shrinks it. Warnings (S_FALSE results) are left as the thread's error
// information; Read reports to the caller's error log instead.
//
// Where the behaviour was left open: Read holds the lock through its copy or
// coercion, so a concurrent Remove cannot free the value being copied; an Add
// whose name or value cannot be copied is refused and adds nothing.
#include <xkcombsd/Collections.h>
#include <xkcombsd/ErrorInfo.h>
#include <xkcombsd/MLLock.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/MORefCnt.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>
#include <xkcombsd/ScopedValue.h>
#include <xkcombsd/Strings.h>

#include "frame/Diagnostics.h"
#include "frame/HandOut.h"
#include "frame/RuntimePrimitives.h"
#include "persist/ObjectLoading.h"
#include "propbag/PropertyBagRows.h"

namespace xk::propbag {

namespace {

constexpr OLECHAR kErrorSource[] = L"Quorvel Software PropertyBag Implementation";
constexpr char kErrorSourceA[] = "Quorvel Software PropertyBag Implementation";
constexpr OLECHAR kAlreadyEmpty[] = L"_PropData bag is already empty (warning only)";
constexpr OLECHAR kNameMissing[] =
    L"Did not add a property, as the name was empty or unspecified (warning only)";
constexpr OLECHAR kAlreadyThere[] = L"The property already exists (warning only)";
constexpr OLECHAR kNoEnumString[] =
    L"Failed to create an instance of the Quorvel Software EnumString class. Please ensure it "
    L"is registered correctly";
constexpr OLECHAR kNamesNotListed[] =
    L"Failed to add one or more properties to the string enumerator";
constexpr OLECHAR kBadHeader[] =
    L"_PropData bag could not be loaded from the stream. Header information invalid";
constexpr OLECHAR kSizeUnknown[] = L"Could not determine size of one or more properties";
constexpr char kNotFound[] = "The property could not be found";
constexpr char kNotCoerced[] = "The property could not be coerced to the type requested";

constexpr LONG kInitialSlots = 16;
constexpr ULONG kHeaderBytes = 16;
constexpr BYTE kHeaderVersion = 1;

void Warn(LPCOLESTR text, REFIID iid = IID_IPropertyBagEdit) {
  ErrorInfo_SetW(text, kErrorSource, iid);
}

void ReportToLog(IErrorLog* log, LPCOLESTR name, HRESULT failure, const char* description) {
  EXCEPINFO info;
  EXCEPINFO_InitA(&info, 0, failure, kErrorSourceA, description, nullptr, 0);
  log->AddError(name, &info);
  EXCEPINFO_Clear(&info);
}

// One slot of the array; both members are owned by the slot.
struct PropertyEntry {
  BSTR name;
  VARIANT value;
};

void DestroyEntry(PropertyEntry* entry) {
  VariantClear(&entry->value);
  SysFreeString(entry->name);
}

template <class ThreadModel>
class PropertyBag final : public IPropertyBag,
                          public IPropertyBagEdit,
                          public ISupportErrorInfo,
                          public IPersistStream,
                          public MORefCnt<ThreadModel> {
 public:
  PropertyBag(REFCLSID clsid, LONG* objectCount) : m_clsid(clsid), m_objectCount(objectCount) {
    if (m_objectCount) AtomicIncrement(m_objectCount);
  }

  HRESULT Initialise() { return Reserve(kInitialSlots) ? S_OK : E_OUTOFMEMORY; }

  // ---- IUnknown, shared by the four faces
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (!ppv) return E_POINTER;
    IUnknown* face = FaceFor(iid);
    TraceQueryInterface(iid, face != nullptr);
    *ppv = face;
    if (!face) return E_NOINTERFACE;
    face->AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return this->InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return this->InternalRelease(); }

  // ---- IPropertyBag
  STDMETHODIMP Read(LPCOLESTR name, VARIANT* value, IErrorLog* log) override {
    if (!name || !value) return E_POINTER;
    auto guard = Locked();
    const PropertyEntry* entry = Find(name);
    if (!entry) {
      if (log) ReportToLog(log, name, E_INVALIDARG, kNotFound);
      return E_INVALIDARG;
    }
    auto* source = const_cast<VARIANT*>(&entry->value);  // only read
    if (V_VT(value) == VT_EMPTY) return VariantCopy(value, source);
    const HRESULT hr = VariantChangeType(value, source, 0, V_VT(value));
    if (FAILED(hr) && log) ReportToLog(log, name, hr, kNotCoerced);
    return hr;
  }

  STDMETHODIMP Write(LPCOLESTR name, VARIANT* value) override {
    if (!name || !value) return E_POINTER;
    auto guard = Locked();
    return FAILED(Add(const_cast<LPWSTR>(name), value)) ? E_FAIL : S_OK;  // Add only reads name
  }

  // ---- IPropertyBagEdit
  STDMETHODIMP Count(LONG* count) override {
    if (!count) return E_POINTER;
    auto guard = Locked();
    *count = m_count;
    return S_OK;
  }

  STDMETHODIMP Remove(LPWSTR name) override {
    if (!name || !*name) return S_FALSE;
    auto guard = Locked();
    PropertyEntry* entry = Find(name);
    if (!entry) return E_FAIL;
    DestroyEntry(entry);
    // The later slots move as bytes: their names and values change place, not owner.
    PropertyEntry* end = m_entries + m_count;
    MemMove(entry, entry + 1, static_cast<size_t>(end - (entry + 1)) * sizeof(PropertyEntry));
    --m_count;
    m_dirty = true;
    return S_OK;
  }

  // The array and its capacity stay; dirty is not changed.
  STDMETHODIMP Empty() override {
    auto guard = Locked();
    if (m_count == 0) {
      Warn(kAlreadyEmpty);
      return S_FALSE;
    }
    for (LONG i = 0; i < m_count; ++i) DestroyEntry(&m_entries[i]);
    m_count = 0;
    return S_OK;
  }

  STDMETHODIMP Add(LPWSTR name, VARIANT* value) override {
    if (!value) return E_POINTER;
    if (!name || !*name) {
      Warn(kNameMissing);
      return S_FALSE;
    }
    auto guard = Locked();
    if (PropertyEntry* entry = Find(name)) {
      const HRESULT replaced = VariantCopy(&entry->value, value);
      if (FAILED(replaced)) return replaced;
      Warn(kAlreadyThere);
      return S_FALSE;
    }
    return Append(name, value);
  }

  STDMETHODIMP Item(LPWSTR name, VARIANT* value) override {
    if (!value) return E_POINTER;
    VariantInit(value);
    return Read(name, value, nullptr);
  }

  // Copies of the names as they are now, in order.
  STDMETHODIMP _NewEnum(IEnumString** ppenum) override {
    if (!ppenum) return E_POINTER;
    *ppenum = nullptr;
    MLRelItf<ICollString> names;
    HRESULT hr = CoCreateInstance(CLSID_QvEnumString, nullptr, CLSCTX_INPROC_SERVER,
                                  IID_ICollString, names.put_void());
    if (FAILED(hr)) {
      Warn(kNoEnumString);
      return hr;
    }
    {
      auto guard = Locked();
      for (LONG i = 0; i < m_count && SUCCEEDED(hr); ++i)
        hr = names->Add(const_cast<LPCOLESTR*>(&m_entries[i].name), 1);
    }
    if (FAILED(hr)) {
      Warn(kNamesNotListed);
      return hr;
    }
    return names->_NewEnum(ppenum);
  }

  // ---- ISupportErrorInfo
  STDMETHODIMP InterfaceSupportsErrorInfo(REFIID iid) override {
    const bool answered = FaceFor(iid) != nullptr;
    TraceQueryInterface(iid, answered);
    return answered ? S_OK : S_FALSE;
  }

  // ---- IPersistStream
  STDMETHODIMP GetClassID(CLSID* pclsid) override {
    if (!pclsid) return E_POINTER;
    *pclsid = m_clsid;
    return S_OK;
  }

  STDMETHODIMP IsDirty() override {
    auto guard = Locked();
    return m_dirty ? S_OK : S_FALSE;
  }

  // Adds to the entries already there; an existing name has its value replaced.
  STDMETHODIMP Load(IStream* stream) override {
    if (!stream) return E_POINTER;
    BYTE header[kHeaderBytes];
    ULONG read = 0;
    const HRESULT hr = stream->Read(header, sizeof header, &read);
    if (FAILED(hr) || read < sizeof header) return E_FAIL;
    if (header[0] != kHeaderVersion) {
      Warn(kBadHeader, IID_IPersistStream);
      return CONVERT10_E_OLESTREAM_FMT;
    }
    ULONG count;
    MemCopy(&count, header + 4, sizeof count);
    auto guard = Locked();
    return LoadProperties(stream, count);
  }

  STDMETHODIMP Save(IStream*, BOOL) override { return E_NOTIMPL; }

  // The size of a VARIANT record is never known, so only an empty bag has one.
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override {
    if (!size) return E_POINTER;
    auto guard = Locked();
    size->QuadPart = kHeaderBytes;
    for (LONG i = 0; i < m_count; ++i) {
      ULONG entrySize = 0;
      const HRESULT hr = Property_GetSizeMax(m_entries[i].name, &m_entries[i].value, &entrySize);
      if (FAILED(hr)) {
        Warn(kSizeUnknown, IID_IPersistStream);
        size->QuadPart = 0;
        return hr;
      }
      size->QuadPart += entrySize;
    }
    return S_OK;
  }

 private:
  using Guard = MLLock<typename ThreadModel::Lock>;

  // Clearing again leaves the "already empty" warning once more, as the last
  // Release's own Empty did.
  ~PropertyBag() override {
    Empty();
    CoTaskMemFree(m_entries);
    if (m_objectCount) AtomicDecrement(m_objectCount);
  }

  // The last reference empties the bag before it goes.
  void FinalRelease() override { Empty(); }

  Guard Locked() { return Guard(&m_lock); }

  IUnknown* FaceFor(REFIID iid) {
    if (iid == IID_IUnknown || iid == IID_IPropertyBag) return static_cast<IPropertyBag*>(this);
    if (iid == IID_IPropertyBagEdit) return static_cast<IPropertyBagEdit*>(this);
    if (iid == IID_ISupportErrorInfo) return static_cast<ISupportErrorInfo*>(this);
    if (iid == IID_IPersistStream) return static_cast<IPersistStream*>(this);
    return nullptr;
  }

  // The first entry whose name equals name code unit by code unit.
  PropertyEntry* Find(LPCOLESTR name) {
    for (LONG i = 0; i < m_count; ++i)
      if (StrCmpO(m_entries[i].name, name) == 0) return &m_entries[i];
    return nullptr;
  }

  // Room for n entries: kept while 0 < n < capacity, else exactly n slots. A
  // refused resize leaves the array and capacity as they were.
  bool Reserve(LONG n) {
    if (n > 0 && n < m_capacity) return true;
    void* resized = CoTaskMemRealloc(m_entries, static_cast<SIZE_T>(n) * sizeof(PropertyEntry));
    if (n > 0 && !resized) return false;
    m_entries = static_cast<PropertyEntry*>(resized);
    m_capacity = n;
    return true;
  }

  HRESULT Append(LPCOLESTR name, const VARIANT* value) {
    ScopedBstr copiedName(BSTR_CreateW(name, -1));
    if (!copiedName.get()) return E_OUTOFMEMORY;
    ScopedVariant copiedValue;
    const HRESULT copied = VariantCopy(&copiedValue.get(), const_cast<VARIANT*>(value));
    if (FAILED(copied)) return copied;
    if (!Reserve(m_count + 1)) return E_FAIL;
    m_entries[m_count] = PropertyEntry{copiedName.Detach(), copiedValue.Detach()};
    ++m_count;
    m_dirty = true;
    return S_OK;
  }

  // A failed record puts the stream back where it began, so every later round
  // would read the same bytes and fail the same way: the first failure is the
  // result the whole count would end with, reached without spinning through a
  // hostile count.
  HRESULT LoadProperties(IStream* stream, ULONG count) {
    HRESULT hr = S_OK;
    for (ULONG i = 0; i < count && SUCCEEDED(hr); ++i) {
      ScopedTaskMemory<OLECHAR> name;
      ScopedVariant value;
      hr = Property_LoadFromStream(stream, name.put(), &value.get());
      if (SUCCEEDED(hr)) Add(name.get(), &value.get());
    }
    return hr;
  }

  const CLSID m_clsid;        // read-only after construction
  LONG* const m_objectCount;  // read-only after construction; the count is atomic
  typename ThreadModel::Lock m_lock;
  PropertyEntry* m_entries = nullptr;  // (lock) m_capacity slots, m_count of them in use
  LONG m_count = 0;                    // (lock)
  LONG m_capacity = 0;                 // (lock)
  bool m_dirty = false;                // (lock) set by an append or a removal, never cleared
};

template <class ThreadModel>
HRESULT MakeBag(REFCLSID clsid, LONG* objectCount, REFIID riid, void** ppv) {
  auto* bag = new PropertyBag<ThreadModel>(clsid, objectCount);
  if (!bag) return E_OUTOFMEMORY;
  return HandOut(bag, riid, ppv, bag->Initialise());
}

}  // namespace

HRESULT CreatePropertyBag(REFCLSID clsid, IUnknown* outer, LONG* objectCount, REFIID riid,
                          void** ppv) {
  if (outer) {
    const HRESULT refusal = AggregationRefusal(riid);
    if (FAILED(refusal)) return refusal;
  }
  if (clsid == CLSID_QvPropertyBag) return MakeBag<MultiThreaded>(clsid, objectCount, riid, ppv);
  if (clsid == CLSID_QvPropertyBag_ST)
    return MakeBag<SingleThreaded>(clsid, objectCount, riid, ppv);
  return E_OUTOFMEMORY;
}

}  // namespace xk::propbag

using namespace xk::propbag;

// ---- PropertyBag_GetSizeMax --------------------------------------------------
extern "C" HRESULT WINAPI PropertyBag_GetSizeMax(IUnknown* bag, ULONG* pcb) {
  if (!bag || !pcb) return E_POINTER;
  *pcb = 0;
  xk::MLRelItf<IPersistStream> persist;
  HRESULT hr = bag->QueryInterface(IID_IPersistStream, persist.put_void());
  if (FAILED(hr)) return hr;
  ULARGE_INTEGER size = {};
  hr = persist->GetSizeMax(&size);
  if (SUCCEEDED(hr)) {
    if (size.HighPart) return PERSIST_E_SIZEDEFINITE;
    *pcb = size.LowPart;
  }
  return hr;
}

// ---- PropertyBag_LoadFromStream ----------------------------------------------
extern "C" HRESULT WINAPI PropertyBag_LoadFromStream(IStream* pstm, IPropertyBag** ppbag) {
  if (!ppbag) return E_POINTER;
  *ppbag = nullptr;
  if (pstm) return xk::persist::LoadObject(pstm, IID_IPropertyBag, reinterpret_cast<void**>(ppbag));
  return MakeBag<xk::MultiThreaded>(CLSID_QvPropertyBag, nullptr, IID_IPropertyBag,
                                    reinterpret_cast<void**>(ppbag));
}

// ---- PropertyBag_InitFromStream ----------------------------------------------
extern "C" HRESULT WINAPI PropertyBag_InitFromStream(IStream* pstm, IUnknown* bag) {
  return OleInitFromStream(pstm, bag);
}

// ---- PropertyBag_SaveToStream ------------------------------------------------
extern "C" HRESULT WINAPI PropertyBag_SaveToStream(IStream* pstm, IUnknown* bag) {
  return OleSaveUnknownToStream(pstm, bag);
}

// ---- PropertyBag_SaveToStreamAndRelease --------------------------------------
extern "C" HRESULT WINAPI PropertyBag_SaveToStreamAndRelease(IStream* pstm, IUnknown* bag) {
  const HRESULT hr = PropertyBag_SaveToStream(pstm, bag);
  if (SUCCEEDED(hr) && bag) bag->Release();
  return hr;
}
