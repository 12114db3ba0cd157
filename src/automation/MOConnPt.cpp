// Connecting an event sink to a connectable object in one call. The helpers
// hold the source's container and connection point only for the call; what
// the source answers is returned unchanged.
#include <xkcombsd/Connections.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/XKAssert.h>

namespace xk::automation {

namespace {

HRESULT FindConnectionPoint(IUnknown* source, REFIID iid, MLRelItf<IConnectionPoint>* point) {
  MLRelItf<IConnectionPointContainer> container;
  const HRESULT hr = source->QueryInterface(IID_IConnectionPointContainer, container.put_void());
  if (FAILED(hr)) return hr;
  return container->FindConnectionPoint(iid, point->put());
}

// A null argument is both a broken contract and an answer to the caller.
HRESULT RefuseNullArguments(const char* line, const AssertSite& site) {
  OutputDebugStringA(line);
  ReportAssertion(site);
  return E_POINTER;
}

}  // namespace

}  // namespace xk::automation

using namespace xk;
using namespace xk::automation;

// ---- AdviseConnection --------------------------------------------------------
extern "C" HRESULT WINAPI AdviseConnection(IUnknown* source, REFIID iid, IUnknown* sink,
                                           DWORD* cookie, BOOL strong) {
  if (!source || !sink || !cookie)
    return RefuseNullArguments("AdviseConnection: source, sink or key pointers null!\n",
                               {"MOConnPt", 39, "0"});
  MLRelItf<IConnectionPoint> point;
  HRESULT hr = FindConnectionPoint(source, iid, &point);
  if (FAILED(hr)) return hr;
  hr = point->Advise(sink, cookie);
  // Weak: the reference the point has just taken must not keep the sink alive.
  if (SUCCEEDED(hr) && !strong) ReleaseItf(sink);
  return hr;
}

// ---- UnadviseConnection ------------------------------------------------------
extern "C" HRESULT WINAPI UnadviseConnection(IUnknown* source, REFIID iid, IUnknown* sink,
                                             DWORD cookie, BOOL strong) {
  if (!source || !sink)
    return RefuseNullArguments("UnadviseConnection: source or sink pointers null!\n",
                               {"MOConnPt", 90, "0"});
  // The point's release of a weak sink may be its last: the sink lives through the call.
  MLRelItf<IUnknown> held(sink, true);
  MLRelItf<IConnectionPoint> point;
  HRESULT hr = FindConnectionPoint(source, iid, &point);
  if (FAILED(hr)) return hr;
  // Weak: the point releases a reference that its Advise gave back at once.
  if (!strong) AddRefItf(sink);
  hr = point->Unadvise(cookie);
  // A weak sink that was let go keeps the call's reference too. A refused weak
  // unadvise keeps only the reference added for the point's release: the
  // helpers' published counts hold for the successful calls alone.
  if (SUCCEEDED(hr) && !strong) held.Detach();
  return hr;
}
