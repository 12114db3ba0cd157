/* A C client of the collection interfaces: the vtable form of the public
   header must put every method in the slot the objects fill. */
#include <xkcombsd/Collections.h>

/* Puts item first and last, then reads back the count and the first element. */
HRESULT InsertAddAndReadThroughC(ISeqBSTR* seq, BSTR item, long* count, BSTR* first) {
  IEnumBSTR* e = NULL;
  HRESULT hr = seq->lpVtbl->InsertAt(seq, 0, &item, 1);
  if (SUCCEEDED(hr)) hr = seq->lpVtbl->Add(seq, &item, 1);
  if (SUCCEEDED(hr)) hr = seq->lpVtbl->Count(seq, count);
  if (SUCCEEDED(hr)) hr = seq->lpVtbl->_NewEnum(seq, &e);
  if (FAILED(hr)) return hr;
  hr = e->lpVtbl->Reset(e);
  if (SUCCEEDED(hr)) hr = e->lpVtbl->Next(e, 1, first, NULL);
  e->lpVtbl->Release(e);
  return hr;
}
