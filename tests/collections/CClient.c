/* A C client of the collection interfaces: the vtable form of the public
   header must put every method in the slot the objects fill. */
#include <xkcombsd/Collections.h>

HRESULT AppendAndCountThroughC(ISeqGUID* seq, const GUID* item, long* count) {
  HRESULT hr = seq->lpVtbl->InsertAt(seq, 0, item, 1);
  if (FAILED(hr)) return hr;
  hr = seq->lpVtbl->Add(seq, item, 1);
  if (FAILED(hr)) return hr;
  return seq->lpVtbl->Count(seq, count);
}

HRESULT FirstThroughC(ICollBSTR* coll, BSTR* first) {
  IEnumBSTR* e = NULL;
  HRESULT hr = coll->lpVtbl->_NewEnum(coll, &e);
  if (FAILED(hr)) return hr;
  hr = e->lpVtbl->Reset(e);
  if (SUCCEEDED(hr)) hr = e->lpVtbl->Next(e, 1, first, NULL);
  e->lpVtbl->Release(e);
  return hr;
}
